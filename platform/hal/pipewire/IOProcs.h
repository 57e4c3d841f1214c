#pragma once

#include <map>
#include <memory>
#include <vector>

#include "platform/hal/AudioHardware.h"
#include "platform/hal/pipewire/PipeWireConnection.h"
#include "platform/hal/pipewire/RegistryMirror.h"
#include "platform/hal/pipewire/StandInClock.h"
#include "platform/hal/pipewire/StreamEndpoint.h"

namespace bw::pipewire {

/// The IO procs: an IO proc on a sink is a playback stream to it, rendered by its block on the
/// stream's realtime thread; one on a source is a capture stream from it at the device's own
/// format, and one on an aggregate device reads that aggregate's capture. A capture's pump thread
/// takes what the realtime thread left in the ring and calls the block on the proc's queue; a
/// ring that ran over is announced as a processor overload of the device.
///
/// Owner: the hardware layer. Thread: as each function says. Those that stop procs take the loop
/// lock themselves and wait for pump threads and the stand-in clock with no lock held; a stop on
/// the proc's own queue leaves its pump to end once the queue is free.
class IOProcs {
public:
    IOProcs(PipeWireConnection& connection, RegistryMirror& mirror, StandInClock& standIn);
    ~IOProcs();
    IOProcs(const IOProcs&) = delete;
    IOProcs& operator=(const IOProcs&) = delete;

    /// Loop lock held. An IO proc on an aggregate device (`capture` is its capture) or on a
    /// device (null `capture`: the proc gets a stream of its own).
    OSStatus create(AudioObjectID device, std::shared_ptr<StreamEndpoint> capture,
                    std::shared_ptr<SerialQueue> queue, AudioDeviceIOBlock block,
                    AudioDeviceIOProcID& outProcID);
    /// Loop lock held. Starts rendering, or the pump thread; a started proc stays as it is.
    OSStatus start(AudioObjectID device, AudioDeviceIOProcID procID);
    /// No lock held. After it returns no further cycle of that proc starts.
    OSStatus stop(AudioObjectID device, AudioDeviceIOProcID procID);
    /// No lock held. Stops the proc, forgets it and destroys its own stream.
    OSStatus destroy(AudioObjectID device, AudioDeviceIOProcID procID);
    /// No lock held. Stops and forgets every proc on `device` (their streams are the device's).
    void removeAll(AudioObjectID device);
    /// No lock held. Stops every proc: at the end.
    void stopAll();
    /// Loop lock held. Destroys the procs' own streams and forgets every proc: at the end.
    void destroyAll();
    /// Loop lock held. The streams the procs made for themselves, in proc order.
    std::vector<std::shared_ptr<StreamEndpoint>> ownedEndpoints() const;

private:
    struct IOProc;

    void pump(const std::shared_ptr<IOProc>& proc);
    void stopProc(const std::shared_ptr<IOProc>& proc);

    PipeWireConnection& connection_;
    RegistryMirror& mirror_;
    StandInClock& standIn_;
    std::map<AudioDeviceIOProcID, std::shared_ptr<IOProc>> procs_;
    AudioDeviceIOProcID nextProc_ = 1;
};

}  // namespace bw::pipewire
