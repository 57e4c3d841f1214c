#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace bw {

/// The fragments of an AAC MP4 file while FFmpeg writes it fragmented, and the plain movie made of
/// them once the recording ends.
///
/// While recording, the file is an empty moov followed by one moof and mdat per second or so: a
/// file cut short by a crash or a power cut plays up to its last fragment. FFmpeg's trailer leaves
/// the moov empty, and its own reader then takes the length from the fragments, encoder priming
/// included; so `finish` appends a moov that indexes every sample, with the edit list that trims
/// the priming and the padding, and hides the fragments' moofs and the empty moov as free space,
/// in steps that each leave a file that plays.
///
/// Owner: `AudioFile`, on the thread that writes the file; it has its own descriptor on the file.
/// `fragmentWritten` and `finish` block on the disk (fdatasync). Move-only.
class Mp4Fragments {
public:
    /// Reads the empty moov of `path`, written and flushed. Nothing when the file can't be opened
    /// or its header isn't a single track's empty moov.
    static std::optional<Mp4Fragments> open(const std::filesystem::path& path);

    /// Notes a sample of `bytes` lasting `duration` (in the track's time scale) that the muxer has
    /// taken into the fragment being filled.
    void addSample(std::uint32_t bytes, std::uint32_t duration);

    /// Notes that the samples since the last fragment were written, flushed, as one fragment from
    /// `moofAt` to `end`, and syncs the file. False when the disk refused the sync.
    bool fragmentWritten(std::uint64_t moofAt, std::uint64_t end);

    /// Makes the file, `fileEnd` bytes long with every fragment flushed, a plain movie whose
    /// presentation starts `mediaStart` into the track and lasts `presented` (both in the track's
    /// time scale). Blocks on the disk. An error text when the disk refused or the file doesn't
    /// hold what was noted; the file then still plays as fragments, as after a crash.
    std::optional<std::string> finish(std::uint64_t fileEnd, std::uint64_t mediaStart,
                                      std::uint64_t presented);

private:
    /// Closes the file descriptor it holds.
    class Descriptor {
    public:
        explicit Descriptor(int fd) : fd_(fd) {}
        Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
        Descriptor& operator=(Descriptor&& other) noexcept;
        ~Descriptor();
        int get() const { return fd_; }

    private:
        int fd_;
    };

    explicit Mp4Fragments(int descriptor) : descriptor_(descriptor) {}

    struct Fragment {
        std::uint64_t moofAt;
        std::uint64_t chunkAt;  // first sample byte, in the mdat after the moof
        std::uint32_t samples;
    };
    struct Run {  // samples of equal duration in a row
        std::uint32_t count;
        std::uint32_t duration;
    };

    std::vector<std::uint8_t> movieBox(std::uint64_t mediaStart, std::uint64_t presented) const;
    bool verify() const;

    Descriptor descriptor_;
    std::uint64_t moovAt_ = 0;  // FFmpeg's empty moov
    std::uint64_t moovSize_ = 0;
    // FFmpeg's boxes, copied into the final moov as they are or with their durations set.
    std::vector<std::uint8_t> mvhd_, tkhd_, mdhd_, hdlr_, smhd_, dinf_, stsd_, udta_;
    std::uint32_t movieTimescale_ = 0;
    std::uint32_t trackTimescale_ = 0;

    std::vector<std::uint32_t> sampleSizes_;
    std::vector<Run> durations_;
    std::vector<Fragment> fragments_;
    std::uint64_t trackDuration_ = 0;
    std::uint64_t pendingBytes_ = 0;
    std::uint32_t pendingSamples_ = 0;
};

}  // namespace bw
