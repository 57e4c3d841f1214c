#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "platform/av/AudioSettings.h"

namespace bw {

/// The kind of file a recording is written to. The raw value is both the stored preference and
/// the file's extension. A plain value.
class RecordingFormat {
public:
    enum Case { m4a, wav, aiff };

    constexpr RecordingFormat(Case value) : value_(value) {}

    /// The three formats in the order the settings show them.
    static constexpr std::array<RecordingFormat, 3> allCases() { return {m4a, wav, aiff}; }

    /// The format whose raw value is exactly `raw`; nothing for any other text.
    static std::optional<RecordingFormat> fromRawValue(std::string_view raw);

    Case value() const { return value_; }
    std::string rawValue() const;

    /// The localized name the settings show.
    std::string displayName() const;

    /// The settings of the output file at the given rate and channel count.
    AudioSettings fileSettings(double sampleRate, std::uint32_t channelCount) const;

    friend bool operator==(RecordingFormat, RecordingFormat) = default;

private:
    Case value_;
};

}  // namespace bw
