#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/hal/AggregateDeviceDescription.h"
#include "platform/hal/AudioBufferList.h"
#include "platform/hal/AudioHardwareConstants.h"
#include "platform/hal/AudioObjectPropertyAddress.h"
#include "platform/hal/AudioTimeStamp.h"
#include "platform/hal/TapDescription.h"

namespace bw {

class SerialQueue;

/// Runs when a property changes: the number of addresses and the addresses that changed.
using AudioObjectPropertyListenerBlock =
    std::function<void(std::uint32_t count, const AudioObjectPropertyAddress* addresses)>;
/// A listener as it is added and removed: removal finds it by identity.
using AudioObjectPropertyListener = std::shared_ptr<const AudioObjectPropertyListenerBlock>;

/// One IO cycle of a device: the input the device captured and the output it wants filled. The
/// buffer lists are in the device's stream formats; either may be null when the device has no such
/// side. The lists and their memory belong to the caller and live for the call only.
using AudioDeviceIOBlock = std::function<void(
    const AudioTimeStamp* now, const AudioBufferList* inputData, const AudioTimeStamp* inputTime,
    AudioBufferList* outputData, const AudioTimeStamp* outputTime)>;

/// The audio hardware layer: a flat space of numbered audio objects (the system object, devices,
/// process objects, taps, aggregate devices) with properties addressed by selector, scope and
/// element, and the operations that make taps, aggregate devices and IO procs.
///
/// Every operation returns a status: 0 for success, otherwise a code of AudioHardwareConstants.h or
/// one passed through from the audio server. No operation throws.
///
/// Thread: every operation may be called from any thread except a realtime callback. Operations
/// may block briefly on the audio server. No operation calls a listener or IO block before it
/// returns, and no lock of the implementation is held while a listener or IO block runs.
class AudioHardware {
public:
    virtual ~AudioHardware() = default;

    /// The byte size of the property's current value, in `outSize`.
    virtual OSStatus getPropertyDataSize(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address,
                                         std::uint32_t qualifierSize, const void* qualifier,
                                         std::uint32_t& outSize) = 0;

    /// Reads the property into `data`, which has room for `ioSize` bytes; on success `ioSize` is
    /// what was written, which may be less than offered.
    virtual OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                     std::uint32_t qualifierSize, const void* qualifier,
                                     std::uint32_t& ioSize, void* data) = 0;

    virtual OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                     std::uint32_t qualifierSize, const void* qualifier,
                                     std::uint32_t size, const void* data) = 0;

    /// From a status of 0 on, `listener` runs on `queue` whenever the property changes.
    virtual OSStatus addPropertyListener(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address,
                                         std::shared_ptr<SerialQueue> queue,
                                         AudioObjectPropertyListener listener) = 0;

    /// After it returns no further call of that listener starts (one already running on its queue
    /// may finish).
    virtual OSStatus removePropertyListener(AudioObjectID object,
                                            const AudioObjectPropertyAddress& address,
                                            const std::shared_ptr<SerialQueue>& queue,
                                            const AudioObjectPropertyListener& listener) = 0;

    virtual OSStatus createProcessTap(const TapDescription& description, AudioObjectID& outTap) = 0;
    virtual OSStatus destroyProcessTap(AudioObjectID tap) = 0;

    virtual OSStatus createAggregateDevice(const AggregateDeviceDescription& description,
                                           AudioObjectID& outDevice) = 0;
    virtual OSStatus destroyAggregateDevice(AudioObjectID device) = 0;

    /// Registers `block` for the device's IO cycles after `deviceStart`. With a queue, each cycle's
    /// block runs on that queue, away from the realtime thread. With no queue, the block runs on
    /// the device's realtime thread and must keep its rules: no allocation, lock, log or wait.
    virtual OSStatus createIOProcID(AudioObjectID device, std::shared_ptr<SerialQueue> queue,
                                    AudioDeviceIOBlock block, AudioDeviceIOProcID& outProcID) = 0;

    virtual OSStatus deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) = 0;

    /// After it returns no further cycle of that proc starts.
    virtual OSStatus deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) = 0;

    virtual OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) = 0;

    /// Whether taps can name applications by bundle ID and follow them before they play.
    virtual bool supportsBundleIDTaps() const = 0;
};

}  // namespace bw
