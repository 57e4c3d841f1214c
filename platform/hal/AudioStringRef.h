#pragma once

#include <memory>
#include <string>

namespace bw {

/// The 8-byte value of a string property: a string that the reader of the property owns, or null.
/// Wrap it at once with `adoptAudioString`.
using AudioStringRef = std::string*;

inline std::unique_ptr<std::string> adoptAudioString(AudioStringRef reference) {
    return std::unique_ptr<std::string>(reference);
}

/// Makes a reference for a property reader; used by hardware implementations.
inline AudioStringRef makeAudioString(std::string text) { return new std::string(std::move(text)); }

}  // namespace bw
