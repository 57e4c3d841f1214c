#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace bw::test {

/// An audio file decoded with FFmpeg, independently of the code that wrote it.
struct DecodedAudio {
    std::string codecName;      ///< FFmpeg's codec name: "aac", "pcm_s16le", ...
    std::string containerName;  ///< The demuxer's short name: "wav", "aiff", "mov,mp4,..."
    int sampleRate = 0;
    int channels = 0;
    std::int64_t bitRate = 0;      ///< Of the stream, else of the container; bits per second
    std::string sampleFormatName;  ///< The decoder's output format: "s16", "fltp", ...
    double containerSeconds = 0;  ///< The length the container claims, as ffprobe's format=duration
    /// Samples per channel as floats; integers are scaled so that full scale is ±1 (x / 32768 for
    /// 16-bit). Encoder delay and padding are already trimmed, as the container says.
    std::vector<std::vector<float>> channelsData;

    std::size_t frames() const { return channelsData.empty() ? 0 : channelsData[0].size(); }
};

/// Decodes the first audio stream of `path` completely. Nothing when the file can't be opened,
/// has no audio stream, or a packet fails to decode. Blocks on the disk; allocates.
std::optional<DecodedAudio> decodeAudioFile(const std::filesystem::path& path);

/// What a strict player reads from the header of a 48 kHz stereo 16-bit WAV, RF64 or AIFF file:
/// the seconds its sizes claim ("data", or ds64 behind a data size of 0xFFFFFFFF, or COMM's frame
/// count), once it has checked that the form's size fits the file. Nothing for another container
/// or a header that claims too much.
std::optional<double> pcmHeaderSeconds(const std::filesystem::path& path);

}  // namespace bw::test
