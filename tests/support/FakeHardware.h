#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/hal/AudioHardware.h"
#include "platform/hal/AudioStreamBasicDescription.h"

namespace bw::test {

/// The operations of `AudioHardware`, as the call log names them.
enum class HardwareOperation {
    getPropertyDataSize,
    getPropertyData,
    setPropertyData,
    addPropertyListener,
    removePropertyListener,
    createProcessTap,
    destroyProcessTap,
    createAggregateDevice,
    destroyAggregateDevice,
    createIOProcID,
    deviceStart,
    deviceStop,
    destroyIOProcID,
};

/// One logged call: the operation, the object it addressed (the device, tap or property owner; 0
/// for creations) and the property selector (0 where there is none).
struct HardwareCall {
    HardwareOperation operation;
    AudioObjectID object = 0;
    AudioObjectPropertySelector selector = 0;
    friend bool operator==(const HardwareCall&, const HardwareCall&) = default;
};

/// A scripted `AudioHardware` for tests: objects and properties set by the test, failures injected
/// per call, every call logged, and IO cycles that the test runs by hand.
///
/// Thread: all members are thread-safe. No internal lock is held while a listener or IO block runs.
class FakeHardware : public AudioHardware {
public:
    /// A device: a non-zero channel count in a format gives the device that side.
    struct DeviceSpec {
        std::string uid;
        std::string name;
        AudioStreamBasicDescription outputFormat{};
        AudioStreamBasicDescription inputFormat{};
    };

    FakeHardware();
    ~FakeHardware() override;

    /// 32-bit float, non-interleaved or interleaved: the layouts devices and taps use in tests.
    static AudioStreamBasicDescription floatFormat(double sampleRate, std::uint32_t channels,
                                                   bool interleaved = false);
    /// 16-bit signed integer, interleaved: a tap format the program refuses (no IO cycle runs it).
    static AudioStreamBasicDescription int16Format(double sampleRate, std::uint32_t channels);

    // Scripting objects. Each change that a real server would announce is announced: the
    // matching listeners run on their queues (asynchronously, as the hardware does).

    /// Adds a device to `kAudioHardwarePropertyDevices` with its UID, name, nominal sample rate,
    /// stream formats (`kAudioDevicePropertyStreamFormat` in the input and output scopes) and, for
    /// an input side, one stream object in `kAudioDevicePropertyStreams` (input scope).
    AudioObjectID addDevice(const DeviceSpec& device);
    void removeDevice(AudioObjectID device);
    void setDefaultOutputDevice(AudioObjectID device);

    /// Adds a process object with `kAudioProcessPropertyPID` and
    /// `kAudioProcessPropertyIsRunningOutput` and appends it to
    /// `kAudioHardwarePropertyProcessObjectList`;
    /// `kAudioHardwarePropertyTranslatePIDToProcessObject` finds it by pid.
    AudioObjectID addProcess(std::int32_t pid, bool runningOutput = false);
    void removeProcess(AudioObjectID process);

    /// Raw property bytes, for any object and address (also objects that don't otherwise exist).
    void setProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                     std::vector<std::uint8_t> bytes);
    template <class T>
    void setPropertyValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                          const T& value) {
        const auto* p = reinterpret_cast<const std::uint8_t*>(&value);
        setProperty(object, address, std::vector<std::uint8_t>(p, p + sizeof(T)));
    }
    void setArrayProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                          const std::vector<std::uint32_t>& values);
    /// A string property; nothing makes the read succeed with a null reference.
    void setStringProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                           std::optional<std::string> value);
    void removeProperty(AudioObjectID object, const AudioObjectPropertyAddress& address);
    /// From now on `getPropertyDataSize` reports `size` for this property while the data call
    /// still returns the stored value: a list that changes between the two calls.
    void setReportedDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             std::uint32_t size);

    /// From now on the data call of this list property reports `size` bytes as written, whatever
    /// it copied: a hardware that claims more than it was offered.
    void setReturnedDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             std::uint32_t size);

    /// The format that new taps report in `kAudioTapPropertyFormat` (float32 stereo 48 kHz, at
    /// first) and the nominal rate of new aggregate devices (48000 at first).
    void setTapFormat(const AudioStreamBasicDescription& format);
    void setAggregateSampleRate(double rate);
    void setSupportsBundleIDTaps(bool supported);

    // Failures.

    /// The next call of `operation` (for property calls: with that selector, when given) fails with
    /// `status` and does nothing else. Queued failures are used up in order.
    void failNext(HardwareOperation operation, OSStatus status,
                  std::optional<AudioObjectPropertySelector> selector = std::nullopt);
    /// Every such call fails until `clearFailures`.
    void failAlways(HardwareOperation operation, OSStatus status,
                    std::optional<AudioObjectPropertySelector> selector = std::nullopt);
    void clearFailures();

    // Call log.

    std::vector<HardwareCall> calls() const;
    std::size_t callCount(HardwareOperation operation) const;
    void clearCalls();

    // Inspection.

    std::vector<AudioObjectID> taps() const;
    std::optional<TapDescription> tapDescription(AudioObjectID tap) const;
    std::vector<AudioObjectID> aggregateDevices() const;
    std::optional<AggregateDeviceDescription> aggregateDescription(AudioObjectID device) const;
    /// IO procs registered on the device, and those of them started.
    std::size_t ioProcCount(AudioObjectID device) const;
    std::size_t runningIOProcCount(AudioObjectID device) const;
    /// Listeners currently added for the object and selector.
    std::size_t listenerCount(AudioObjectID object, AudioObjectPropertySelector selector) const;

    /// Runs the listeners of that property, each on its queue, asynchronously.
    void notifyPropertyChanged(AudioObjectID object, const AudioObjectPropertyAddress& address);

    // IO cycles.

    /// Runs one IO cycle of `frames` frames for every started proc of the device, in order of
    /// creation: on the proc's queue (waiting for it to finish) or, for a proc without queue, on
    /// the calling thread. `input` gives the input side's samples per channel (missing samples are
    /// silence) in the device's input format, or for an aggregate device the tap format at the
    /// aggregate's rate; either must be 32-bit float. Returns what the procs wrote to the output
    /// side, per channel (empty when the device has no output side).
    std::vector<std::vector<float>> runIOCycle(AudioObjectID device, std::uint32_t frames,
                                               const std::vector<std::vector<float>>& input = {});

    // AudioHardware.
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
    bool supportsBundleIDTaps() const override;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace bw::test
