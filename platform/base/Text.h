#pragma once

#include <string>
#include <string_view>

namespace bw {

/// Orders two texts as a person would in the current locale, ignoring case (case folding, then
/// the locale's collation). Negative, zero or positive like strcmp. Any thread.
int localizedCaseInsensitiveCompare(std::string_view a, std::string_view b);

/// The bytes as UTF-8, each invalid sequence replaced by U+FFFD.
std::string repairedUTF8(std::string_view bytes);

}  // namespace bw
