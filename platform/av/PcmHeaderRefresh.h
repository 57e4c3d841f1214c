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

    /// Writes the sizes of `dataBytes` of samples (`frames` frames) and syncs the file. Past the
    /// form limit a WAV's header turns RF64, its true sizes in the ds64 chunk that FFmpeg reserves
    /// as JUNK; an AIFF's is left as it was. False when the disk refused or nothing was written.
    bool refresh(std::uint64_t dataBytes, std::uint64_t frames);

    /// The largest form size (the file less 8 bytes) written as a plain 32-bit header; at most,
    /// and by default, 4 GiB less one byte.
    void setFormLimit(std::uint64_t bytes);

private:
    PcmHeaderRefresh(int descriptor, Layout layout, std::uint64_t dataOffset);

    int descriptor_ = -1;
    Layout layout_;
    std::uint64_t dataOffset_;
    std::uint64_t dataSizeAt_ = 0;    // WAV "data" / AIFF "SSND" size field
    std::uint64_t frameCountAt_ = 0;  // AIFF "COMM" numSampleFrames
    bool ds64Room_ = false;           // WAV: a JUNK chunk right after "WAVE" to turn into ds64
    std::uint64_t formLimit_;
};

}  // namespace bw
