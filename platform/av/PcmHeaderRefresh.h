#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

namespace bw {

/// Keeps the sizes in a WAV or AIFF header true while the file is still being written, so that a
/// file cut short by a crash or a power cut plays, in a player that believes its header, up to
/// the last refresh. FFmpeg leaves placeholders there until its trailer; this writes the current
/// sizes in their place through a descriptor of its own and syncs the file to disk.
///
/// Owner: `AudioFile`, on the thread that writes the file. `refresh` blocks on the disk
/// (fdatasync), so it runs at a slow pace, not per buffer. Move-only; closes its descriptor.
class PcmHeaderRefresh {
public:
    enum class Layout { wav, aiff };

    /// Reads the header of `path`, written and flushed, whose samples begin at `dataOffset`, to
    /// find where its sizes stand. Nothing when the file can't be opened or the header isn't
    /// one it knows.
    static std::optional<PcmHeaderRefresh> open(const std::filesystem::path& path, Layout layout,
                                                std::uint64_t dataOffset);

    PcmHeaderRefresh(PcmHeaderRefresh&& other) noexcept;
    PcmHeaderRefresh& operator=(PcmHeaderRefresh&& other) noexcept;
    PcmHeaderRefresh(const PcmHeaderRefresh&) = delete;
    PcmHeaderRefresh& operator=(const PcmHeaderRefresh&) = delete;
    ~PcmHeaderRefresh();

    /// Writes the sizes of `dataBytes` of samples (`frames` frames) and syncs the file. Sizes past
    /// 32 bits are left to the trailer (a WAV becomes RF64 there). False when the disk refused.
    bool refresh(std::uint64_t dataBytes, std::uint64_t frames);

private:
    PcmHeaderRefresh(int descriptor, Layout layout, std::uint64_t dataOffset)
        : descriptor_(descriptor), layout_(layout), dataOffset_(dataOffset) {}

    int descriptor_ = -1;
    Layout layout_;
    std::uint64_t dataOffset_;
    std::uint64_t dataSizeAt_ = 0;    // WAV "data" / AIFF "SSND" size field
    std::uint64_t frameCountAt_ = 0;  // AIFF "COMM" numSampleFrames
};

}  // namespace bw
