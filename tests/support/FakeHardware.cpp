#include "tests/support/FakeHardware.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <set>
#include <tuple>
#include <utility>

#include "platform/dispatch/SerialQueue.h"
#include "platform/hal/AudioStringRef.h"

namespace bw::test {

namespace {

struct PropertyKey {
    AudioObjectID object = 0;
    AudioObjectPropertySelector selector = 0;
    AudioObjectPropertyScope scope = 0;
    AudioObjectPropertyElement element = 0;

    PropertyKey(AudioObjectID o, const AudioObjectPropertyAddress& a)
        : object(o), selector(a.mSelector), scope(a.mScope), element(a.mElement) {}

    friend auto operator<=>(const PropertyKey&, const PropertyKey&) = default;
};

struct PropertyValue {
    std::vector<std::uint8_t> bytes;
    // String properties hand out a fresh reference per read instead of raw bytes.
    bool isString = false;
    std::optional<std::string> text;
};

struct IOProc {
    AudioObjectID device = 0;
    std::shared_ptr<SerialQueue> queue;
    std::shared_ptr<const AudioDeviceIOBlock> block;
    bool started = false;  // guarded by the state mutex
};

struct ListenerEntry {
    std::uint64_t registration = 0;
    AudioObjectID object = 0;
    AudioObjectPropertyAddress address;
    std::shared_ptr<SerialQueue> queue;
    AudioObjectPropertyListener listener;
};

struct Failure {
    HardwareOperation operation;
    OSStatus status;
    std::optional<AudioObjectPropertySelector> selector;

    bool matches(HardwareOperation op, AudioObjectPropertySelector sel) const {
        return operation == op && (!selector || *selector == sel);
    }
};

struct Announcement {
    std::shared_ptr<SerialQueue> queue;
    AudioObjectPropertyListener listener;
    std::uint64_t registration;
    AudioObjectPropertyAddress address;
};

constexpr AudioObjectPropertyAddress globalAddress(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

bool isArraySelector(AudioObjectPropertySelector selector) {
    return selector == kAudioHardwarePropertyDevices ||
           selector == kAudioHardwarePropertyProcessObjectList ||
           selector == kAudioDevicePropertyStreams;
}

bool scopesMatch(AudioObjectPropertyScope a, AudioObjectPropertyScope b) {
    return a == b || a == kAudioObjectPropertyScopeGlobal || b == kAudioObjectPropertyScopeGlobal;
}

bool elementsMatch(AudioObjectPropertyElement a, AudioObjectPropertyElement b) {
    return a == b || a == kAudioObjectPropertyElementMain || b == kAudioObjectPropertyElementMain;
}

template <class T>
std::vector<std::uint8_t> bytesOf(const T& value) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(&value);
    return std::vector<std::uint8_t>(p, p + sizeof(T));
}

std::uint64_t monotonicNanos() {
    return std::uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::steady_clock::now().time_since_epoch())
                             .count());
}

// The sample layout of one side of a device, reduced to what buffer building needs.
struct Layout {
    std::uint32_t channels = 0;
    std::uint32_t bytesPerSample = 0;
    bool interleaved = false;
    bool isFloat = false;
    bool isSigned = false;

    static Layout of(const AudioStreamBasicDescription& format) {
        Layout layout;
        layout.channels = format.mChannelsPerFrame;
        layout.bytesPerSample = format.mBitsPerChannel / 8;
        layout.interleaved = (format.mFormatFlags & kAudioFormatFlagIsNonInterleaved) == 0;
        if (layout.bytesPerSample == 0 && layout.channels > 0) {
            layout.bytesPerSample = layout.interleaved ? format.mBytesPerFrame / layout.channels
                                                       : format.mBytesPerFrame;
        }
        layout.isFloat = (format.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
        layout.isSigned = (format.mFormatFlags & kAudioFormatFlagIsSignedInteger) != 0;
        return layout;
    }

    std::uint32_t bufferCount() const { return interleaved ? 1 : channels; }
    std::uint32_t channelsPerBuffer() const { return interleaved ? channels : 1; }
};

template <class Int>
Int toInt(float value) {
    constexpr double scale = double(std::uint64_t(1) << (8 * sizeof(Int) - 1));
    double scaled = std::round(double(value) * scale);
    scaled = std::clamp(scaled, -scale, scale - 1);
    return Int(scaled);
}

template <class Int>
float fromInt(Int value) {
    constexpr double scale = double(std::uint64_t(1) << (8 * sizeof(Int) - 1));
    return float(double(value) / scale);
}

void encodeSample(const Layout& layout, float value, std::uint8_t* out) {
    if (layout.isFloat && layout.bytesPerSample == 4) {
        std::memcpy(out, &value, 4);
    } else if (layout.isFloat && layout.bytesPerSample == 8) {
        double wide = value;
        std::memcpy(out, &wide, 8);
    } else if (layout.isSigned && layout.bytesPerSample == 2) {
        auto sample = toInt<std::int16_t>(value);
        std::memcpy(out, &sample, 2);
    } else if (layout.isSigned && layout.bytesPerSample == 4) {
        auto sample = toInt<std::int32_t>(value);
        std::memcpy(out, &sample, 4);
    }
    // Other layouts stay silent: no test feeds them.
}

float decodeSample(const Layout& layout, const std::uint8_t* in) {
    if (layout.isFloat && layout.bytesPerSample == 4) {
        float value;
        std::memcpy(&value, in, 4);
        return value;
    }
    if (layout.isFloat && layout.bytesPerSample == 8) {
        double value;
        std::memcpy(&value, in, 8);
        return float(value);
    }
    if (layout.isSigned && layout.bytesPerSample == 2) {
        std::int16_t value;
        std::memcpy(&value, in, 2);
        return fromInt(value);
    }
    if (layout.isSigned && layout.bytesPerSample == 4) {
        std::int32_t value;
        std::memcpy(&value, in, 4);
        return fromInt(value);
    }
    return 0.0f;
}

// Owns the memory behind one AudioBufferList of a cycle. Everything is allocated up front so the
// cycle itself touches no allocator.
class CycleBuffers {
public:
    CycleBuffers(const Layout& layout, std::uint32_t frames) : layout_(layout), frames_(frames) {
        std::uint32_t count = layout.bufferCount();
        std::size_t bytes =
            std::size_t(frames) * layout.channelsPerBuffer() * layout.bytesPerSample;
        storage_.assign(count, std::vector<std::uint8_t>(bytes, 0));
        buffers_.resize(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            buffers_[i].mNumberChannels = layout.channelsPerBuffer();
            buffers_[i].mDataByteSize = std::uint32_t(bytes);
            buffers_[i].mData = storage_[i].data();
        }
        list_.mNumberBuffers = count;
        list_.mBuffers = buffers_.data();
    }

    CycleBuffers(const CycleBuffers&) = delete;
    CycleBuffers& operator=(const CycleBuffers&) = delete;

    AudioBufferList* list() { return &list_; }

    std::uint8_t* sampleAt(std::uint32_t channel, std::uint32_t frame) {
        if (layout_.interleaved) {
            return storage_[0].data() +
                   (std::size_t(frame) * layout_.channels + channel) * layout_.bytesPerSample;
        }
        return storage_[channel].data() + std::size_t(frame) * layout_.bytesPerSample;
    }

    void fill(const std::vector<std::vector<float>>& samples) {
        for (std::uint32_t channel = 0; channel < layout_.channels; ++channel) {
            if (channel >= samples.size()) {
                break;
            }
            const auto& source = samples[channel];
            std::uint32_t count = std::min<std::uint32_t>(frames_, std::uint32_t(source.size()));
            for (std::uint32_t frame = 0; frame < count; ++frame) {
                encodeSample(layout_, source[frame], sampleAt(channel, frame));
            }
        }
    }

    void addTo(std::vector<std::vector<float>>& mix) {
        for (std::uint32_t channel = 0; channel < layout_.channels; ++channel) {
            for (std::uint32_t frame = 0; frame < frames_; ++frame) {
                mix[channel][frame] += decodeSample(layout_, sampleAt(channel, frame));
            }
        }
    }

private:
    Layout layout_;
    std::uint32_t frames_;
    std::vector<std::vector<std::uint8_t>> storage_;
    std::vector<AudioBuffer> buffers_;
    AudioBufferList list_;
};

// Everything lives in `Core`, shared with the listener tasks on other queues, so a task that runs
// after the fake is gone finds nothing registered instead of touching freed memory.
struct Core {
    mutable std::mutex mutex;

    std::map<PropertyKey, PropertyValue> properties;
    std::map<PropertyKey, std::uint32_t> reportedSizes;
    std::map<PropertyKey, std::uint32_t> returnedSizes;
    std::set<AudioObjectID> objects;

    // Stream objects per device, so removing the device removes them too.
    std::map<AudioObjectID, std::vector<AudioObjectID>> devices;
    std::set<AudioObjectID> processes;
    std::map<AudioObjectID, TapDescription> taps;
    std::map<AudioObjectID, AggregateDeviceDescription> aggregates;
    std::map<AudioObjectID, double> sampleTimes;

    std::map<AudioDeviceIOProcID, std::shared_ptr<IOProc>> procs;
    std::vector<ListenerEntry> listeners;

    std::vector<Failure> nextFailures;
    std::vector<Failure> alwaysFailures;
    std::vector<HardwareCall> calls;

    AudioStreamBasicDescription tapFormat = FakeHardware::floatFormat(48000, 2);
    double aggregateRate = 48000;
    bool bundleIDTaps = false;
    std::function<void(bool)> cycleObserver;

    AudioObjectID nextObject = 100;
    AudioDeviceIOProcID nextProc = 1;
    std::uint64_t nextRegistration = 1;

    // All below: the caller holds `mutex`.

    bool objectExists(AudioObjectID object) const {
        if (objects.count(object) != 0) {
            return true;
        }
        auto it = properties.lower_bound(PropertyKey(object, {0, 0, 0}));
        return it != properties.end() && it->first.object == object;
    }

    // Exact address first; a property kept in the global scope answers for any scope.
    const PropertyValue* find(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              PropertyKey* foundKey = nullptr) const {
        PropertyKey key(object, address);
        auto it = properties.find(key);
        if (it == properties.end() && address.mScope != kAudioObjectPropertyScopeGlobal) {
            key.scope = kAudioObjectPropertyScopeGlobal;
            it = properties.find(key);
        }
        if (it == properties.end()) {
            return nullptr;
        }
        if (foundKey != nullptr) {
            *foundKey = it->first;
        }
        return &it->second;
    }

    template <class T>
    std::optional<T> value(AudioObjectID object, const AudioObjectPropertyAddress& address) const {
        const PropertyValue* stored = find(object, address);
        if (stored == nullptr || stored->isString || stored->bytes.size() != sizeof(T)) {
            return std::nullopt;
        }
        T result;
        std::memcpy(&result, stored->bytes.data(), sizeof(T));
        return result;
    }

    template <class T>
    void store(AudioObjectID object, const AudioObjectPropertyAddress& address, const T& value) {
        properties[PropertyKey(object, address)] = PropertyValue{bytesOf(value), false, {}};
    }

    void storeString(AudioObjectID object, const AudioObjectPropertyAddress& address,
                     std::optional<std::string> text) {
        properties[PropertyKey(object, address)] = PropertyValue{{}, true, std::move(text)};
    }

    std::vector<AudioObjectID> idArray(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address) const {
        std::vector<AudioObjectID> ids;
        if (const PropertyValue* stored = find(object, address); stored && !stored->isString) {
            ids.resize(stored->bytes.size() / sizeof(AudioObjectID));
            std::memcpy(ids.data(), stored->bytes.data(), ids.size() * sizeof(AudioObjectID));
        }
        return ids;
    }

    void storeIdArray(AudioObjectID object, const AudioObjectPropertyAddress& address,
                      const std::vector<AudioObjectID>& ids) {
        const auto* p = reinterpret_cast<const std::uint8_t*>(ids.data());
        properties[PropertyKey(object, address)] = PropertyValue{
            std::vector<std::uint8_t>(p, p + ids.size() * sizeof(AudioObjectID)), false, {}};
    }

    void eraseObject(AudioObjectID object) {
        objects.erase(object);
        std::erase_if(properties, [&](const auto& entry) { return entry.first.object == object; });
        std::erase_if(reportedSizes,
                      [&](const auto& entry) { return entry.first.object == object; });
        sampleTimes.erase(object);
    }

    void stopProcsOf(AudioObjectID device) {
        for (auto& [id, proc] : procs) {
            if (proc->device == device) {
                proc->started = false;
            }
        }
    }

    void eraseProcsOf(AudioObjectID device) {
        stopProcsOf(device);
        std::erase_if(procs, [&](const auto& entry) { return entry.second->device == device; });
    }

    void log(HardwareOperation operation, AudioObjectID object,
             AudioObjectPropertySelector selector) {
        calls.push_back({operation, object, selector});
    }

    // Logs the call, then returns the status of an injected failure or 0.
    OSStatus logAndCheck(HardwareOperation operation, AudioObjectID object,
                         AudioObjectPropertySelector selector) {
        log(operation, object, selector);
        auto next = std::find_if(nextFailures.begin(), nextFailures.end(),
                                 [&](const Failure& f) { return f.matches(operation, selector); });
        if (next != nextFailures.end()) {
            OSStatus status = next->status;
            nextFailures.erase(next);
            return status;
        }
        for (const Failure& failure : alwaysFailures) {
            if (failure.matches(operation, selector)) {
                return failure.status;
            }
        }
        return kAudioHardwareNoError;
    }

    void collect(AudioObjectID object, const AudioObjectPropertyAddress& address,
                 std::vector<Announcement>& out) const {
        for (const ListenerEntry& entry : listeners) {
            if (entry.object == object && entry.address.mSelector == address.mSelector &&
                scopesMatch(entry.address.mScope, address.mScope) &&
                elementsMatch(entry.address.mElement, address.mElement)) {
                out.push_back({entry.queue, entry.listener, entry.registration, address});
            }
        }
    }

    bool isRegistered(std::uint64_t registration) const {
        return std::any_of(listeners.begin(), listeners.end(), [&](const ListenerEntry& entry) {
            return entry.registration == registration;
        });
    }

    bool isDevice(AudioObjectID object) const {
        return devices.count(object) != 0 || aggregates.count(object) != 0;
    }

    std::optional<AudioStreamBasicDescription> sideFormat(AudioObjectID device,
                                                          AudioObjectPropertyScope scope) const {
        auto format = value<AudioStreamBasicDescription>(
            device, {kAudioDevicePropertyStreamFormat, scope, kAudioObjectPropertyElementMain});
        if (!format || format->mChannelsPerFrame == 0) {
            return std::nullopt;
        }
        return format;
    }

    // An aggregate hears its tap: that tap's format at the aggregate's own rate.
    std::optional<AudioStreamBasicDescription> aggregateInputFormat(AudioObjectID device) const {
        const AggregateDeviceDescription& description = aggregates.at(device);
        AudioStreamBasicDescription format = tapFormat;
        bool found = false;
        for (const auto& subTap : description.taps) {
            for (const auto& [tap, tapDescription] : taps) {
                if (tapDescription.uuidString == subTap.uid) {
                    format = value<AudioStreamBasicDescription>(
                                 tap, globalAddress(kAudioTapPropertyFormat))
                                 .value_or(tapFormat);
                    found = true;
                    break;
                }
            }
            if (found) {
                break;
            }
        }
        format.mSampleRate =
            value<double>(device, globalAddress(kAudioDevicePropertyNominalSampleRate))
                .value_or(aggregateRate);
        if (format.mChannelsPerFrame == 0) {
            return std::nullopt;
        }
        return format;
    }
};

}  // namespace

struct FakeHardware::State {
    std::shared_ptr<Core> core = std::make_shared<Core>();

    // Queues the listener calls. Each task checks, under the lock, that its registration is still
    // there, so a removal that has returned stops calls that were already queued.
    void dispatch(std::vector<Announcement> announcements) const {
        std::weak_ptr<Core> weak = core;
        for (auto& announcement : announcements) {
            auto queue = std::move(announcement.queue);
            queue->async([weak, a = std::move(announcement)] {
                auto strong = weak.lock();
                if (!strong) {
                    return;
                }
                {
                    std::lock_guard lock(strong->mutex);
                    if (!strong->isRegistered(a.registration)) {
                        return;
                    }
                }
                (*a.listener)(1, &a.address);
            });
        }
    }
};

FakeHardware::FakeHardware() : state_(std::make_unique<State>()) {
    Core& core = *state_->core;
    core.objects.insert(kAudioObjectSystemObject);
    core.storeIdArray(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDevices), {});
    core.storeIdArray(kAudioObjectSystemObject,
                      globalAddress(kAudioHardwarePropertyProcessObjectList), {});
    core.store(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
               AudioObjectID(0));
    core.store(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultInputDevice),
               AudioObjectID(0));
}

FakeHardware::~FakeHardware() {
    // Listener tasks still queued elsewhere must not call into a test that has moved on.
    std::lock_guard lock(state_->core->mutex);
    state_->core->listeners.clear();
    state_->core->procs.clear();
}

AudioStreamBasicDescription FakeHardware::floatFormat(double sampleRate, std::uint32_t channels,
                                                      bool interleaved) {
    AudioStreamBasicDescription format;
    format.mSampleRate = sampleRate;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    if (!interleaved) {
        format.mFormatFlags |= kAudioFormatFlagIsNonInterleaved;
    }
    format.mBytesPerFrame = interleaved ? 4 * channels : 4;
    format.mBytesPerPacket = format.mBytesPerFrame;
    format.mFramesPerPacket = 1;
    format.mChannelsPerFrame = channels;
    format.mBitsPerChannel = 32;
    return format;
}

AudioStreamBasicDescription FakeHardware::int16Format(double sampleRate, std::uint32_t channels) {
    AudioStreamBasicDescription format;
    format.mSampleRate = sampleRate;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    format.mBytesPerFrame = 2 * channels;
    format.mBytesPerPacket = format.mBytesPerFrame;
    format.mFramesPerPacket = 1;
    format.mChannelsPerFrame = channels;
    format.mBitsPerChannel = 16;
    return format;
}

// ---- Scripting objects -------------------------------------------------------------------------

AudioObjectID FakeHardware::addDevice(const DeviceSpec& config) {
    std::vector<Announcement> announcements;
    AudioObjectID device;
    {
        Core& core = *state_->core;
        std::lock_guard lock(core.mutex);
        device = core.nextObject++;
        core.objects.insert(device);
        core.sampleTimes[device] = 0;
        core.storeString(device, globalAddress(kAudioDevicePropertyDeviceUID), config.uid);
        core.storeString(device, globalAddress(kAudioObjectPropertyName), config.name);

        bool hasOutput = config.outputFormat.mChannelsPerFrame > 0;
        bool hasInput = config.inputFormat.mChannelsPerFrame > 0;
        double rate = hasOutput ? config.outputFormat.mSampleRate : config.inputFormat.mSampleRate;
        core.store(device, globalAddress(kAudioDevicePropertyNominalSampleRate), rate);

        std::vector<AudioObjectID>& streams = core.devices[device];
        auto addSide = [&](AudioObjectPropertyScope scope,
                           const AudioStreamBasicDescription& format, bool present) {
            AudioObjectPropertyAddress streamsAddress{kAudioDevicePropertyStreams, scope,
                                                      kAudioObjectPropertyElementMain};
            if (!present) {
                core.storeIdArray(device, streamsAddress, {});
                return;
            }
            core.store(device,
                       {kAudioDevicePropertyStreamFormat, scope, kAudioObjectPropertyElementMain},
                       format);
            AudioObjectID stream = core.nextObject++;
            core.objects.insert(stream);
            core.store(stream, globalAddress(kAudioDevicePropertyStreamFormat), format);
            streams.push_back(stream);
            core.storeIdArray(device, streamsAddress, {stream});
        };
        addSide(kAudioObjectPropertyScopeOutput, config.outputFormat, hasOutput);
        addSide(kAudioObjectPropertyScopeInput, config.inputFormat, hasInput);

        auto devicesAddress = globalAddress(kAudioHardwarePropertyDevices);
        auto list = core.idArray(kAudioObjectSystemObject, devicesAddress);
        list.push_back(device);
        core.storeIdArray(kAudioObjectSystemObject, devicesAddress, list);
        core.collect(kAudioObjectSystemObject, devicesAddress, announcements);

        auto adoptDefault = [&](AudioObjectPropertySelector selector, bool present) {
            auto address = globalAddress(selector);
            if (present &&
                core.value<AudioObjectID>(kAudioObjectSystemObject, address).value_or(0) == 0) {
                core.store(kAudioObjectSystemObject, address, device);
                core.collect(kAudioObjectSystemObject, address, announcements);
            }
        };
        adoptDefault(kAudioHardwarePropertyDefaultOutputDevice, hasOutput);
        adoptDefault(kAudioHardwarePropertyDefaultInputDevice, hasInput);
    }
    state_->dispatch(std::move(announcements));
    return device;
}

void FakeHardware::removeDevice(AudioObjectID device) {
    std::vector<Announcement> announcements;
    {
        Core& core = *state_->core;
        std::lock_guard lock(core.mutex);
        auto it = core.devices.find(device);
        if (it == core.devices.end()) {
            return;
        }
        for (AudioObjectID stream : it->second) {
            core.eraseObject(stream);
        }
        core.devices.erase(it);
        core.eraseObject(device);
        core.stopProcsOf(device);

        auto devicesAddress = globalAddress(kAudioHardwarePropertyDevices);
        auto list = core.idArray(kAudioObjectSystemObject, devicesAddress);
        std::erase(list, device);
        core.storeIdArray(kAudioObjectSystemObject, devicesAddress, list);
        core.collect(kAudioObjectSystemObject, devicesAddress, announcements);

        for (auto selector : {kAudioHardwarePropertyDefaultOutputDevice,
                              kAudioHardwarePropertyDefaultInputDevice}) {
            auto address = globalAddress(selector);
            if (core.value<AudioObjectID>(kAudioObjectSystemObject, address) == device) {
                core.store(kAudioObjectSystemObject, address, AudioObjectID(0));
                core.collect(kAudioObjectSystemObject, address, announcements);
            }
        }
    }
    state_->dispatch(std::move(announcements));
}

void FakeHardware::setDefaultOutputDevice(AudioObjectID device) {
    std::vector<Announcement> announcements;
    {
        Core& core = *state_->core;
        std::lock_guard lock(core.mutex);
        auto address = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
        core.store(kAudioObjectSystemObject, address, device);
        core.collect(kAudioObjectSystemObject, address, announcements);
    }
    state_->dispatch(std::move(announcements));
}

void FakeHardware::setDefaultInputDevice(AudioObjectID device) {
    std::vector<Announcement> announcements;
    {
        Core& core = *state_->core;
        std::lock_guard lock(core.mutex);
        auto address = globalAddress(kAudioHardwarePropertyDefaultInputDevice);
        core.store(kAudioObjectSystemObject, address, device);
        core.collect(kAudioObjectSystemObject, address, announcements);
    }
    state_->dispatch(std::move(announcements));
}

AudioObjectID FakeHardware::addProcess(std::int32_t pid, bool runningOutput) {
    std::vector<Announcement> announcements;
    AudioObjectID process;
    {
        Core& core = *state_->core;
        std::lock_guard lock(core.mutex);
        process = core.nextObject++;
        core.objects.insert(process);
        core.processes.insert(process);
        core.store(process, globalAddress(kAudioProcessPropertyPID), pid);
        core.store(process, globalAddress(kAudioProcessPropertyIsRunningOutput),
                   std::uint32_t(runningOutput ? 1 : 0));
        auto listAddress = globalAddress(kAudioHardwarePropertyProcessObjectList);
        auto list = core.idArray(kAudioObjectSystemObject, listAddress);
        list.push_back(process);
        core.storeIdArray(kAudioObjectSystemObject, listAddress, list);
        core.collect(kAudioObjectSystemObject, listAddress, announcements);
    }
    state_->dispatch(std::move(announcements));
    return process;
}

void FakeHardware::removeProcess(AudioObjectID process) {
    std::vector<Announcement> announcements;
    {
        Core& core = *state_->core;
        std::lock_guard lock(core.mutex);
        if (core.processes.erase(process) == 0) {
            return;
        }
        core.eraseObject(process);
        auto listAddress = globalAddress(kAudioHardwarePropertyProcessObjectList);
        auto list = core.idArray(kAudioObjectSystemObject, listAddress);
        std::erase(list, process);
        core.storeIdArray(kAudioObjectSystemObject, listAddress, list);
        core.collect(kAudioObjectSystemObject, listAddress, announcements);
    }
    state_->dispatch(std::move(announcements));
}

void FakeHardware::setProcessRunningOutput(AudioObjectID process, bool running) {
    std::vector<Announcement> announcements;
    {
        Core& core = *state_->core;
        std::lock_guard lock(core.mutex);
        auto address = globalAddress(kAudioProcessPropertyIsRunningOutput);
        core.store(process, address, std::uint32_t(running ? 1 : 0));
        core.collect(process, address, announcements);
    }
    state_->dispatch(std::move(announcements));
}

void FakeHardware::setProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               std::vector<std::uint8_t> bytes) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->properties[PropertyKey(object, address)] =
        PropertyValue{std::move(bytes), false, {}};
}

void FakeHardware::setArrayProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                    const std::vector<std::uint32_t>& values) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->storeIdArray(object, address, values);
}

void FakeHardware::setStringProperty(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address,
                                     std::optional<std::string> value) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->storeString(object, address, std::move(value));
}

void FakeHardware::removeProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->properties.erase(PropertyKey(object, address));
    state_->core->reportedSizes.erase(PropertyKey(object, address));
}

void FakeHardware::setReturnedDataSize(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       std::uint32_t size) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->returnedSizes[PropertyKey(object, address)] = size;
}

void FakeHardware::setReportedDataSize(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       std::uint32_t size) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->reportedSizes[PropertyKey(object, address)] = size;
}

void FakeHardware::setTapFormat(const AudioStreamBasicDescription& format) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->tapFormat = format;
}

void FakeHardware::setAggregateSampleRate(double rate) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->aggregateRate = rate;
}

void FakeHardware::setSupportsBundleIDTaps(bool supported) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->bundleIDTaps = supported;
}

// ---- Failures and call log ---------------------------------------------------------------------

void FakeHardware::failNext(HardwareOperation operation, OSStatus status,
                            std::optional<AudioObjectPropertySelector> selector) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->nextFailures.push_back({operation, status, selector});
}

void FakeHardware::failAlways(HardwareOperation operation, OSStatus status,
                              std::optional<AudioObjectPropertySelector> selector) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->alwaysFailures.push_back({operation, status, selector});
}

void FakeHardware::clearFailures() {
    std::lock_guard lock(state_->core->mutex);
    state_->core->nextFailures.clear();
    state_->core->alwaysFailures.clear();
}

std::vector<HardwareCall> FakeHardware::calls() const {
    std::lock_guard lock(state_->core->mutex);
    return state_->core->calls;
}

std::size_t FakeHardware::callCount(HardwareOperation operation) const {
    std::lock_guard lock(state_->core->mutex);
    const auto& calls = state_->core->calls;
    return std::size_t(std::count_if(calls.begin(), calls.end(), [&](const HardwareCall& call) {
        return call.operation == operation;
    }));
}

void FakeHardware::clearCalls() {
    std::lock_guard lock(state_->core->mutex);
    state_->core->calls.clear();
}

// ---- Inspection --------------------------------------------------------------------------------

std::vector<AudioObjectID> FakeHardware::taps() const {
    std::lock_guard lock(state_->core->mutex);
    std::vector<AudioObjectID> ids;
    for (const auto& [id, description] : state_->core->taps) {
        ids.push_back(id);
    }
    return ids;
}

std::optional<TapDescription> FakeHardware::tapDescription(AudioObjectID tap) const {
    std::lock_guard lock(state_->core->mutex);
    auto it = state_->core->taps.find(tap);
    if (it == state_->core->taps.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::vector<AudioObjectID> FakeHardware::aggregateDevices() const {
    std::lock_guard lock(state_->core->mutex);
    std::vector<AudioObjectID> ids;
    for (const auto& [id, description] : state_->core->aggregates) {
        ids.push_back(id);
    }
    return ids;
}

std::optional<AggregateDeviceDescription> FakeHardware::aggregateDescription(
    AudioObjectID device) const {
    std::lock_guard lock(state_->core->mutex);
    auto it = state_->core->aggregates.find(device);
    if (it == state_->core->aggregates.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::size_t FakeHardware::ioProcCount(AudioObjectID device) const {
    std::lock_guard lock(state_->core->mutex);
    const auto& procs = state_->core->procs;
    return std::size_t(std::count_if(procs.begin(), procs.end(), [&](const auto& entry) {
        return entry.second->device == device;
    }));
}

std::size_t FakeHardware::runningIOProcCount(AudioObjectID device) const {
    std::lock_guard lock(state_->core->mutex);
    const auto& procs = state_->core->procs;
    return std::size_t(std::count_if(procs.begin(), procs.end(), [&](const auto& entry) {
        return entry.second->device == device && entry.second->started;
    }));
}

std::size_t FakeHardware::listenerCount(AudioObjectID object,
                                        AudioObjectPropertySelector selector) const {
    std::lock_guard lock(state_->core->mutex);
    const auto& listeners = state_->core->listeners;
    return std::size_t(
        std::count_if(listeners.begin(), listeners.end(), [&](const ListenerEntry& entry) {
            return entry.object == object && entry.address.mSelector == selector;
        }));
}

void FakeHardware::notifyPropertyChanged(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address) {
    std::vector<Announcement> announcements;
    {
        std::lock_guard lock(state_->core->mutex);
        state_->core->collect(object, address, announcements);
    }
    state_->dispatch(std::move(announcements));
}

// ---- IO cycles ---------------------------------------------------------------------------------

std::vector<std::vector<float>> FakeHardware::runIOCycle(
    AudioObjectID device, std::uint32_t frames, const std::vector<std::vector<float>>& input) {
    Core& core = *state_->core;
    std::optional<AudioStreamBasicDescription> inputFormat;
    std::optional<AudioStreamBasicDescription> outputFormat;
    std::vector<std::shared_ptr<IOProc>> procs;
    std::function<void(bool)> observer;
    AudioTimeStamp now;
    {
        std::lock_guard lock(core.mutex);
        if (!core.isDevice(device)) {
            return {};
        }
        if (core.aggregates.count(device) != 0) {
            inputFormat = core.aggregateInputFormat(device);
        } else {
            inputFormat = core.sideFormat(device, kAudioObjectPropertyScopeInput);
            outputFormat = core.sideFormat(device, kAudioObjectPropertyScopeOutput);
        }
        for (const auto& [id, proc] : core.procs) {
            if (proc->device == device && proc->started) {
                procs.push_back(proc);
            }
        }
        observer = core.cycleObserver;
        double& sampleTime = core.sampleTimes[device];
        now.mSampleTime = sampleTime;
        sampleTime += frames;
    }
    now.mHostTime = monotonicNanos();
    AudioTimeStamp inputTime = now;
    // Output is scheduled one buffer ahead of the input it answers.
    AudioTimeStamp outputTime = now;
    outputTime.mSampleTime += frames;

    // All buffers up front: the blocks see only memory made before the first of them runs.
    std::optional<CycleBuffers> inputBuffers;
    if (inputFormat) {
        inputBuffers.emplace(Layout::of(*inputFormat), frames);
        inputBuffers->fill(input);
    }
    std::vector<std::unique_ptr<CycleBuffers>> outputBuffers;
    if (outputFormat) {
        for (std::size_t i = 0; i < procs.size(); ++i) {
            outputBuffers.push_back(
                std::make_unique<CycleBuffers>(Layout::of(*outputFormat), frames));
        }
    }
    const AudioBufferList* inputList = inputBuffers ? inputBuffers->list() : nullptr;

    for (std::size_t i = 0; i < procs.size(); ++i) {
        const IOProc& proc = *procs[i];
        AudioBufferList* outputList = outputFormat ? outputBuffers[i]->list() : nullptr;
        auto cycle = [&] {
            {
                // Checked on the cycle's own thread, so a stop that has returned is never missed.
                std::lock_guard lock(core.mutex);
                if (!proc.started) {
                    return;
                }
            }
            if (observer) {
                observer(true);
            }
            (*proc.block)(&now, inputList, &inputTime, outputList, &outputTime);
            if (observer) {
                observer(false);
            }
        };
        if (proc.queue) {
            proc.queue->sync(cycle);
        } else {
            cycle();
        }
    }

    std::vector<std::vector<float>> output;
    if (outputFormat) {
        output.assign(outputFormat->mChannelsPerFrame, std::vector<float>(frames, 0.0f));
        for (auto& buffers : outputBuffers) {
            buffers->addTo(output);
        }
    }
    return output;
}

void FakeHardware::setCycleObserver(std::function<void(bool entering)> observer) {
    std::lock_guard lock(state_->core->mutex);
    state_->core->cycleObserver = std::move(observer);
}

// ---- AudioHardware -----------------------------------------------------------------------------

namespace {

// The pid qualifier of the translate property, or an error status.
OSStatus readPid(std::uint32_t qualifierSize, const void* qualifier, std::int32_t& pid) {
    if (qualifierSize != sizeof(std::int32_t) || qualifier == nullptr) {
        return kAudioHardwareBadPropertySizeError;
    }
    std::memcpy(&pid, qualifier, sizeof pid);
    return kAudioHardwareNoError;
}

bool isTranslatePid(AudioObjectID object, const AudioObjectPropertyAddress& address) {
    return object == kAudioObjectSystemObject &&
           address.mSelector == kAudioHardwarePropertyTranslatePIDToProcessObject;
}

}  // namespace

OSStatus FakeHardware::getPropertyDataSize(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           std::uint32_t qualifierSize, const void* qualifier,
                                           std::uint32_t& outSize) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status =
            core.logAndCheck(HardwareOperation::getPropertyDataSize, object, address.mSelector)) {
        return status;
    }
    if (isTranslatePid(object, address)) {
        std::int32_t pid;
        if (OSStatus status = readPid(qualifierSize, qualifier, pid)) {
            return status;
        }
        outSize = sizeof(AudioObjectID);
        return kAudioHardwareNoError;
    }
    PropertyKey key(object, address);
    const PropertyValue* stored = core.find(object, address, &key);
    if (stored == nullptr) {
        return core.objectExists(object) ? kAudioHardwareUnknownPropertyError
                                         : kAudioHardwareBadObjectError;
    }
    if (auto reported = core.reportedSizes.find(key); reported != core.reportedSizes.end()) {
        outSize = reported->second;
    } else {
        outSize = stored->isString ? std::uint32_t(sizeof(AudioStringRef))
                                   : std::uint32_t(stored->bytes.size());
    }
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::getPropertyData(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       std::uint32_t qualifierSize, const void* qualifier,
                                       std::uint32_t& ioSize, void* data) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status =
            core.logAndCheck(HardwareOperation::getPropertyData, object, address.mSelector)) {
        return status;
    }
    if (isTranslatePid(object, address)) {
        std::int32_t pid;
        if (OSStatus status = readPid(qualifierSize, qualifier, pid)) {
            return status;
        }
        if (ioSize < sizeof(AudioObjectID) || data == nullptr) {
            return kAudioHardwareBadPropertySizeError;
        }
        AudioObjectID found = kAudioObjectUnknown;
        for (AudioObjectID process : core.processes) {
            if (core.value<std::int32_t>(process, globalAddress(kAudioProcessPropertyPID)) == pid) {
                found = process;
                break;
            }
        }
        std::memcpy(data, &found, sizeof found);
        ioSize = sizeof found;
        return kAudioHardwareNoError;
    }
    const PropertyValue* stored = core.find(object, address);
    if (stored == nullptr) {
        return core.objectExists(object) ? kAudioHardwareUnknownPropertyError
                                         : kAudioHardwareBadObjectError;
    }
    if (stored->isString) {
        if (ioSize < sizeof(AudioStringRef) || data == nullptr) {
            return kAudioHardwareBadPropertySizeError;
        }
        AudioStringRef reference = stored->text ? makeAudioString(*stored->text) : nullptr;
        std::memcpy(data, &reference, sizeof reference);
        ioSize = sizeof reference;
        return kAudioHardwareNoError;
    }
    auto storedSize = std::uint32_t(stored->bytes.size());
    if (isArraySelector(address.mSelector)) {
        // Lists hand back as many whole entries as fit: the caller sees a shorter size.
        std::uint32_t fit =
            std::min(ioSize, storedSize) / sizeof(AudioObjectID) * sizeof(AudioObjectID);
        if (fit > 0 && data == nullptr) {
            return kAudioHardwareIllegalOperationError;
        }
        if (fit > 0) {
            std::memcpy(data, stored->bytes.data(), fit);
        }
        ioSize = fit;
        if (auto returned = core.returnedSizes.find(PropertyKey(object, address));
            returned != core.returnedSizes.end()) {
            ioSize = returned->second;
        }
        return kAudioHardwareNoError;
    }
    if (ioSize < storedSize) {
        return kAudioHardwareBadPropertySizeError;
    }
    if (storedSize > 0 && data == nullptr) {
        return kAudioHardwareIllegalOperationError;
    }
    if (storedSize > 0) {
        std::memcpy(data, stored->bytes.data(), storedSize);
    }
    ioSize = storedSize;
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::setPropertyData(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       std::uint32_t /*qualifierSize*/, const void* /*qualifier*/,
                                       std::uint32_t size, const void* data) {
    std::vector<Announcement> announcements;
    OSStatus result = kAudioHardwareNoError;
    {
        Core& core = *state_->core;
        std::lock_guard lock(core.mutex);
        if (OSStatus status =
                core.logAndCheck(HardwareOperation::setPropertyData, object, address.mSelector)) {
            return status;
        }
        if (address.mSelector == kAudioTapPropertyDescription) {
            auto tap = core.taps.find(object);
            if (tap == core.taps.end()) {
                return kAudioHardwareBadObjectError;
            }
            if (size != sizeof(const TapDescription*) || data == nullptr) {
                return kAudioHardwareBadPropertySizeError;
            }
            const TapDescription* description = nullptr;
            std::memcpy(&description, data, sizeof description);
            if (description == nullptr) {
                return kAudioHardwareIllegalOperationError;
            }
            tap->second = *description;
            core.collect(object, address, announcements);
        } else {
            PropertyKey key(object, address);
            const PropertyValue* stored = core.find(object, address, &key);
            if (stored == nullptr) {
                return core.objectExists(object) ? kAudioHardwareUnknownPropertyError
                                                 : kAudioHardwareBadObjectError;
            }
            if (stored->isString || isArraySelector(address.mSelector)) {
                return kAudioHardwareIllegalOperationError;
            }
            if (size != stored->bytes.size() || (size > 0 && data == nullptr)) {
                return kAudioHardwareBadPropertySizeError;
            }
            const auto* p = static_cast<const std::uint8_t*>(data);
            std::vector<std::uint8_t> bytes(p, p + size);
            if (bytes != stored->bytes) {
                core.properties[key].bytes = std::move(bytes);
                core.collect(object, address, announcements);
            }
        }
    }
    state_->dispatch(std::move(announcements));
    return result;
}

OSStatus FakeHardware::addPropertyListener(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           std::shared_ptr<SerialQueue> queue,
                                           AudioObjectPropertyListener listener) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status =
            core.logAndCheck(HardwareOperation::addPropertyListener, object, address.mSelector)) {
        return status;
    }
    if (!core.objectExists(object)) {
        return kAudioHardwareBadObjectError;
    }
    if (!queue || !listener || !*listener) {
        return kAudioHardwareIllegalOperationError;
    }
    core.listeners.push_back(
        {core.nextRegistration++, object, address, std::move(queue), std::move(listener)});
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::removePropertyListener(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address,
                                              const std::shared_ptr<SerialQueue>& queue,
                                              const AudioObjectPropertyListener& listener) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status = core.logAndCheck(HardwareOperation::removePropertyListener, object,
                                           address.mSelector)) {
        return status;
    }
    auto it =
        std::find_if(core.listeners.begin(), core.listeners.end(), [&](const ListenerEntry& entry) {
            return entry.object == object && entry.address.mSelector == address.mSelector &&
                   entry.queue == queue && entry.listener == listener;
        });
    if (it == core.listeners.end()) {
        return core.objectExists(object) ? kAudioHardwareNoError : kAudioHardwareBadObjectError;
    }
    core.listeners.erase(it);
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::createProcessTap(const TapDescription& description, AudioObjectID& outTap) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status = core.logAndCheck(HardwareOperation::createProcessTap, 0, 0)) {
        return status;
    }
    AudioObjectID tap = core.nextObject++;
    core.objects.insert(tap);
    core.taps.emplace(tap, description);
    core.store(tap, globalAddress(kAudioTapPropertyFormat), core.tapFormat);
    outTap = tap;
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::destroyProcessTap(AudioObjectID tap) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status = core.logAndCheck(HardwareOperation::destroyProcessTap, tap, 0)) {
        return status;
    }
    if (core.taps.erase(tap) == 0) {
        return kAudioHardwareBadObjectError;
    }
    core.eraseObject(tap);
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::createAggregateDevice(const AggregateDeviceDescription& description,
                                             AudioObjectID& outDevice) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status = core.logAndCheck(HardwareOperation::createAggregateDevice, 0, 0)) {
        return status;
    }
    AudioObjectID device = core.nextObject++;
    core.objects.insert(device);
    core.aggregates.emplace(device, description);
    core.sampleTimes[device] = 0;
    core.store(device, globalAddress(kAudioDevicePropertyNominalSampleRate), core.aggregateRate);
    core.storeString(device, globalAddress(kAudioDevicePropertyDeviceUID), description.uid);
    core.storeString(device, globalAddress(kAudioObjectPropertyName), description.name);
    outDevice = device;
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::destroyAggregateDevice(AudioObjectID device) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status = core.logAndCheck(HardwareOperation::destroyAggregateDevice, device, 0)) {
        return status;
    }
    if (core.aggregates.erase(device) == 0) {
        return kAudioHardwareBadObjectError;
    }
    core.eraseObject(device);
    core.eraseProcsOf(device);
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::createIOProcID(AudioObjectID device, std::shared_ptr<SerialQueue> queue,
                                      AudioDeviceIOBlock block, AudioDeviceIOProcID& outProcID) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status = core.logAndCheck(HardwareOperation::createIOProcID, device, 0)) {
        return status;
    }
    if (!core.isDevice(device)) {
        return kAudioHardwareBadObjectError;
    }
    if (!block) {
        return kAudioHardwareIllegalOperationError;
    }
    auto proc = std::make_shared<IOProc>();
    proc->device = device;
    proc->queue = std::move(queue);
    proc->block = std::make_shared<const AudioDeviceIOBlock>(std::move(block));
    AudioDeviceIOProcID id = core.nextProc++;
    core.procs.emplace(id, std::move(proc));
    outProcID = id;
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status = core.logAndCheck(HardwareOperation::deviceStart, device, 0)) {
        return status;
    }
    auto it = core.procs.find(procID);
    if (it == core.procs.end() || it->second->device != device || !core.isDevice(device)) {
        return kAudioHardwareBadObjectError;
    }
    it->second->started = true;
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status = core.logAndCheck(HardwareOperation::deviceStop, device, 0)) {
        return status;
    }
    auto it = core.procs.find(procID);
    if (it == core.procs.end() || it->second->device != device) {
        return kAudioHardwareBadObjectError;
    }
    it->second->started = false;
    return kAudioHardwareNoError;
}

OSStatus FakeHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) {
    Core& core = *state_->core;
    std::lock_guard lock(core.mutex);
    if (OSStatus status = core.logAndCheck(HardwareOperation::destroyIOProcID, device, 0)) {
        return status;
    }
    auto it = core.procs.find(procID);
    if (it == core.procs.end() || it->second->device != device) {
        return kAudioHardwareBadObjectError;
    }
    // A cycle that already holds the proc sees it stopped and skips the block.
    it->second->started = false;
    core.procs.erase(it);
    return kAudioHardwareNoError;
}

bool FakeHardware::supportsBundleIDTaps() const {
    std::lock_guard lock(state_->core->mutex);
    return state_->core->bundleIDTaps;
}

}  // namespace bw::test
