#pragma once

#include <functional>
#include <string>

namespace bw {

/// Looks up the text for the user's language; the English wording is the key, `context` the
/// class it belongs to (as Qt's `tr` has it, so one catalogue holds every text). Until the
/// application installs a lookup, the key itself is the text.
///
/// Thread: any. The lookup is installed once at start-up, before other threads use `localized`.
std::string localized(const char* context, const char* english);

/// Installs the lookup (the application routes it to Qt's translations).
void setLocalizationLookup(
    std::function<std::string(const char* context, const char* english)> lookup);

}  // namespace bw
