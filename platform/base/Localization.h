#pragma once

#include <functional>
#include <string>

namespace bw {

/// Looks up the text for the user's language; the English wording is the key. Until the
/// application installs a translator, the key itself is the text.
///
/// Thread: any. The translator is installed once at start-up, before other threads use `localized`.
std::string localized(const char* english);

/// Installs the lookup (the application routes it to Qt's translations).
void setLocalizationLookup(std::function<std::string(const char* english)> lookup);

}  // namespace bw
