#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

#include "platform/av/AVError.h"
#include "platform/av/AudioFormat.h"
#include "platform/av/AudioSettings.h"
#include "platform/av/PCMBuffer.h"
#include "platform/base/Expected.h"

namespace bw {

/// An audio file being written, encoded with FFmpeg. The file's extension picks the container:
/// ".m4a" is MPEG-4 (AAC), ".wav" RIFF WAVE and ".aiff"/".aif" AIFF (16-bit PCM, little- and
/// big-endian). The settings map says codec, rate, channels, bit rate and PCM layout.
///
/// Owner: one owner at a time (`std::unique_ptr`). Thread: not synchronised; all calls from one
/// thread at a time. Every call may block on the disk and allocate.
///
/// The file is complete once `close()` has returned or the object is destroyed, whichever comes
/// first: the trailer or header sizes are written and synced to disk then. An M4A is written as
/// fragments and made a plain movie by the close, in well under a second even for hours.
class AudioFile {
public:
    /// The code of the error `write` returns once an AIFF has reached the header size limit: its
    /// text is the whole reason the recording ends, for the user.
    static constexpr std::int32_t kSizeLimitReached = 0x62696721;  // 'big!'

    /// Creates (truncating) the file at `url`. Fails with a readable error when the folder is
    /// missing or not writable, the extension is unknown, or the settings don't fit the container.
    static Expected<std::unique_ptr<AudioFile>, AVError> createForWriting(
        const std::filesystem::path& url, const AudioSettings& settings);

    ~AudioFile();

    AudioFile(const AudioFile&) = delete;
    AudioFile& operator=(const AudioFile&) = delete;

    const std::filesystem::path& url() const;

    /// The format `write` accepts: the standard format at the file's rate and channel count.
    const AudioFormat& processingFormat() const;

    /// Appends and encodes the buffer's `frameLength` frames, synchronously. The buffer must be
    /// 32-bit float at the file's rate and channel count (interleaved or not); otherwise, or when
    /// the disk or encoder refuses, a readable error and nothing of the buffer is written.
    ///
    /// What a crash leaves: a WAV or AIFF has every accepted buffer and a header telling the
    /// length up to a second ago; an M4A plays up to its last fragment (a second at most).
    /// An AIFF that would grow past the header size limit takes no more: the file is completed
    /// and the error (`kSizeLimitReached`) says why the recording ends.
    Expected<void, AVError> write(const PCMBuffer& buffer);

    /// Flushes the encoder and completes the file. Later calls and later writes fail harmlessly.
    Expected<void, AVError> close();

    /// Frames accepted by `write` so far.
    std::int64_t framesWritten() const;

    /// The largest form (file less 8 bytes) a 32-bit RIFF or AIFF header describes; 4 GiB less
    /// one byte, and no more, by default. Past it a WAV's header turns RF64 and an AIFF ends.
    /// Tests lower it to get there in a second.
    void setHeaderSizeLimit(std::uint64_t bytes);

private:
    struct Impl;
    explicit AudioFile(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace bw
