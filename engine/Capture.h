#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "engine/FailureCallback.h"
#include "engine/RecordingSource.h"
#include "platform/av/AudioFormat.h"
#include "platform/av/PCMBuffer.h"
#include "platform/base/Error.h"
#include "platform/base/Expected.h"

namespace bw {

/// Receives one captured buffer, in the capture's `format()`, in memory the receiver may keep.
using BufferHandler = std::function<void(std::shared_ptr<PCMBuffer> buffer)>;

/// What the recording engine asks of a source's capture (a process tap or a microphone).
///
/// Construction touches no device. Thread: `start` and `stop` on the engine's control queue, never
/// at the same time; the handler runs on the capture's own thread, outside its lock, one call at a
/// time. `setBufferHandler` replaces the handler under that lock, from any thread.
class Capture {
public:
    virtual ~Capture() = default;

    /// Starts capturing; returns at once when already started. After success `format()` is valid.
    /// A failure leaves nothing running, and `start` may be called again.
    virtual Expected<void, ErrorRef> start() = 0;

    /// The format of every delivered buffer, once started.
    virtual std::optional<AudioFormat> format() const = 0;

    /// Buffers that arrive while there is no handler are dropped.
    virtual void setBufferHandler(BufferHandler handler) = 0;
    /// Receives, once per start, the report that captured audio was lost on the way to the
    /// buffer handler (a reader fell behind); on any thread. Replaced under the capture's lock.
    virtual void setFailureHandler(FailureCallback handler) = 0;

    /// Stops capturing. Cannot fail; harmless on a capture that never started.
    virtual void stop() = 0;
};

/// Makes the capture of one source: a tap for system audio and applications (muting the tapped
/// audio at its output when asked), a microphone capture for input devices.
using CaptureFactory =
    std::function<std::shared_ptr<Capture>(const RecordingSource& source, bool muteTappedAudio)>;

}  // namespace bw
