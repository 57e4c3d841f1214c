#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/hal/AudioHardware.h"

namespace bw {

/// The audio hardware layer on PipeWire.
///
/// Devices are the server's audio sink and source nodes (UID = node.name, name =
/// node.description); the default output device follows the "default" metadata. Process objects
/// stand for processes with a PipeWire client, keyed by the client's application.process.id; a
/// process runs output while one of its output streams runs. A tap is a description held here; an
/// aggregate device holding a tap is a capture stream of ours, linked from the output ports of
/// the tapped streams (streams that start later included); muted-when-tapped streams are moved to
/// a silent sink of ours. IO procs on sinks and sources are playback and capture streams.
///
/// Owner: one per process, shared. Thread: every operation from any thread but a realtime
/// callback; calls take the PipeWire loop lock briefly and may wait for the server (bounded).
/// Playback IO procs run on the stream's realtime thread; all others run on their queue.
///
/// A server that is missing or goes away is looked for once a second. While it is away,
/// operations fail with `kAudioHardwareNotRunningError`, listeners hear nothing and a stand-in
/// clock renders started playback IO procs into silence, so what they clock sees a gap. When it
/// comes back, what was made here (captures, their links and moves, IO procs' streams, the silent
/// sink) is made again under the same object ids; devices keep their ids by node name. A server
/// away for 5 s takes its devices and processes with it, as listeners then hear.
class PipeWireHardware : public AudioHardware {
public:
    /// Says which application (bundle ID) a process belongs to, for taps by bundle ID and for
    /// leaving this program's own sound out; nothing when it has none. Called on the PipeWire
    /// thread: it must not block for long.
    using BundleResolver = std::function<std::optional<std::string>(std::int32_t pid)>;

    /// Connects to the server of the environment (PIPEWIRE_RUNTIME_DIR / XDG_RUNTIME_DIR). A
    /// server that is missing or refuses leaves an object whose operations fail with a status.
    explicit PipeWireHardware(BundleResolver bundleOfProcess = {});
    ~PipeWireHardware() override;

    /// Whether a server is connected now.
    bool isConnected() const;

    OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 std::uint32_t qualifierSize, const void* qualifier,
                                 std::uint32_t& outSize) override;
    OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             std::uint32_t qualifierSize, const void* qualifier,
                             std::uint32_t& ioSize, void* data) override;
    OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             std::uint32_t qualifierSize, const void* qualifier, std::uint32_t size,
                             const void* data) override;
    OSStatus addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 std::shared_ptr<SerialQueue> queue,
                                 AudioObjectPropertyListener listener) override;
    OSStatus removePropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                    const std::shared_ptr<SerialQueue>& queue,
                                    const AudioObjectPropertyListener& listener) override;
    OSStatus createProcessTap(const TapDescription& description, AudioObjectID& outTap) override;
    OSStatus destroyProcessTap(AudioObjectID tap) override;
    OSStatus createAggregateDevice(const AggregateDeviceDescription& description,
                                   AudioObjectID& outDevice) override;
    OSStatus destroyAggregateDevice(AudioObjectID device) override;
    OSStatus createIOProcID(AudioObjectID device, std::shared_ptr<SerialQueue> queue,
                            AudioDeviceIOBlock block, AudioDeviceIOProcID& outProcID) override;
    OSStatus deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) override;
    bool supportsBundleIDTaps() const override { return true; }

private:
    // The parts under platform/hal/pipewire/, wired together.
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace bw
