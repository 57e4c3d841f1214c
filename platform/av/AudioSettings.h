#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>

namespace bw {

/// One value of a file's settings map: a flag, a whole number (format codes, counts, bit rates) or
/// a real number (sample rates).
using AudioSettingValue = std::variant<bool, std::int64_t, double>;

/// The settings of an audio file to create, keyed by the names below. A plain value.
using AudioSettings = std::map<std::string, AudioSettingValue>;

inline constexpr const char* AVFormatIDKey = "AVFormatIDKey";
inline constexpr const char* AVSampleRateKey = "AVSampleRateKey";
inline constexpr const char* AVNumberOfChannelsKey = "AVNumberOfChannelsKey";
inline constexpr const char* AVEncoderBitRateKey = "AVEncoderBitRateKey";
inline constexpr const char* AVLinearPCMBitDepthKey = "AVLinearPCMBitDepthKey";
inline constexpr const char* AVLinearPCMIsFloatKey = "AVLinearPCMIsFloatKey";
inline constexpr const char* AVLinearPCMIsBigEndianKey = "AVLinearPCMIsBigEndianKey";
inline constexpr const char* AVLinearPCMIsNonInterleaved = "AVLinearPCMIsNonInterleaved";

}  // namespace bw
