#include "tests/support/FakeHardware.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <type_traits>
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
    bool started = false;  // guarded by the core's mutex
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

using Announcements = std::vector<Announcement>;

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

template <class Map>
std::vector<AudioObjectID> keysOf(const Map& map) {
    std::vector<AudioObjectID> keys;
    for (const auto& entry : map) {
        keys.push_back(entry.first);
    }
    return keys;
}

template <class Map>
std::optional<typename Map::mapped_type> lookup(const Map& map, AudioObjectID key) {
    auto it = map.find(key);
    return it == map.end() ? std::nullopt : std::optional(it->second);
}

// Owns the memory behind one AudioBufferList of a cycle, all of it made up front so the cycle
// itself touches no allocator. Samples are 32-bit floats, interleaved or not: the only layouts an
// IO block meets in tests (a tap of integers is refused before any cycle).
class CycleBuffers {
public:
    CycleBuffers(const AudioStreamBasicDescription& format, std::uint32_t frames)
        : channels_(format.mChannelsPerFrame),
          frames_(frames),
          interleaved_((format.mFormatFlags & kAudioFormatFlagIsNonInterleaved) == 0) {
        // A format that says otherwise would have the product read these buffers wrongly.
        EXPECT_TRUE((format.mFormatFlags & kAudioFormatFlagIsFloat) &&
                    format.mBitsPerChannel == 32 &&
                    format.mBytesPerFrame == (interleaved_ ? 4 * channels_ : 4))
            << "an IO cycle needs 32-bit float samples in the layout the format gives";
        const std::uint32_t count = interleaved_ ? 1 : channels_;
        const std::uint32_t perBuffer = interleaved_ ? channels_ : 1;
        storage_.assign(count, std::vector<float>(std::size_t(frames) * perBuffer, 0.0f));
        buffers_.resize(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            buffers_[i] = {perBuffer, std::uint32_t(storage_[i].size() * sizeof(float)),
                           storage_[i].data()};
        }
        list_.mNumberBuffers = count;
        list_.mBuffers = buffers_.data();
    }

    CycleBuffers(const CycleBuffers&) = delete;
    CycleBuffers& operator=(const CycleBuffers&) = delete;

    AudioBufferList* list() { return &list_; }

    float& at(std::uint32_t channel, std::uint32_t frame) {
        return interleaved_ ? storage_[0][std::size_t(frame) * channels_ + channel]
                            : storage_[channel][frame];
    }

    void fill(const std::vector<std::vector<float>>& samples) {
        for (std::uint32_t ch = 0; ch < channels_ && ch < samples.size(); ++ch) {
            for (std::uint32_t f = 0; f < frames_ && f < samples[ch].size(); ++f) {
                at(ch, f) = samples[ch][f];
            }
        }
    }

    void addTo(std::vector<std::vector<float>>& mix) {
        for (std::uint32_t ch = 0; ch < channels_; ++ch) {
            for (std::uint32_t f = 0; f < frames_; ++f) {
                mix[ch][f] += at(ch, f);
            }
        }
    }

private:
    std::uint32_t channels_;
    std::uint32_t frames_;
    bool interleaved_;
    std::vector<std::vector<float>> storage_;
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

    // The status of a property that isn't there.
    OSStatus missing(AudioObjectID object) const {
        return objectExists(object) ? kAudioHardwareUnknownPropertyError
                                    : kAudioHardwareBadObjectError;
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

    // Stores a value of an object and announces it.
    template <class T>
    void change(AudioObjectID object, AudioObjectPropertySelector selector, const T& value,
                Announcements& out) {
        store(object, globalAddress(selector), value);
        collect(object, globalAddress(selector), out);
    }

    // Edits a list of the system object and announces it.
    template <class F>
    void editSystemList(AudioObjectPropertySelector selector, F edit, Announcements& out) {
        const auto address = globalAddress(selector);
        auto list = idArray(kAudioObjectSystemObject, address);
        edit(list);
        storeIdArray(kAudioObjectSystemObject, address, list);
        collect(kAudioObjectSystemObject, address, out);
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

    std::size_t procCount(AudioObjectID device, bool runningOnly) const {
        return std::size_t(std::count_if(procs.begin(), procs.end(), [&](const auto& entry) {
            return entry.second->device == device && (entry.second->started || !runningOnly);
        }));
    }

    // Logs the call, then returns the status of an injected failure or 0.
    OSStatus logAndCheck(HardwareOperation operation, AudioObjectID object,
                         AudioObjectPropertySelector selector) {
        calls.push_back({operation, object, selector});
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
                 Announcements& out) const {
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

    // A device's own side, or for an aggregate the tap it hears: that tap's format at the
    // aggregate's own rate.
    std::optional<AudioStreamBasicDescription> sideFormat(AudioObjectID device,
                                                          AudioObjectPropertyScope scope) const {
        std::optional<AudioStreamBasicDescription> format;
        if (auto aggregate = aggregates.find(device); aggregate != aggregates.end()) {
            if (scope != kAudioObjectPropertyScopeInput) {
                return std::nullopt;
            }
            format = tapFormat;
            for (const auto& subTap : aggregate->second.taps) {
                auto tap = std::find_if(taps.begin(), taps.end(), [&](const auto& entry) {
                    return entry.second.uuidString == subTap.uid;
                });
                if (tap != taps.end()) {
                    format = value<AudioStreamBasicDescription>(
                        tap->first, globalAddress(kAudioTapPropertyFormat));
                    break;
                }
            }
            format = format.value_or(tapFormat);
            format->mSampleRate =
                value<double>(device, globalAddress(kAudioDevicePropertyNominalSampleRate))
                    .value_or(aggregateRate);
        } else {
            format = value<AudioStreamBasicDescription>(
                device, {kAudioDevicePropertyStreamFormat, scope, kAudioObjectPropertyElementMain});
        }
        if (!format || format->mChannelsPerFrame == 0) {
            return std::nullopt;
        }
        return format;
    }
};

}  // namespace

struct FakeHardware::State {
    std::shared_ptr<Core> core = std::make_shared<Core>();

    template <class F>
    auto locked(F body) const {
        std::lock_guard lock(core->mutex);
        return body(*core);
    }

    // Runs `change` under the lock, then queues the listener calls it collected. Each task checks,
    // under the lock, that its registration is still there, so a removal that has returned stops
    // calls that were already queued.
    template <class F>
    auto announce(F change) const {
        Announcements announcements;
        std::unique_lock lock(core->mutex);
        auto finish = [&] {
            lock.unlock();
            std::weak_ptr<Core> weak = core;
            for (auto& announcement : announcements) {
                auto queue = announcement.queue;
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
                    // Every test on this fake checks that listeners run where the product
                    // asked them to.
                    EXPECT_TRUE(a.queue->isCurrent()) << "a listener ran off its queue";
                    (*a.listener)(1, &a.address);
                });
            }
        };
        if constexpr (std::is_void_v<decltype(change(*core, announcements))>) {
            change(*core, announcements);
            finish();
        } else {
            auto result = change(*core, announcements);
            finish();
            return result;
        }
    }

    // Locks, logs the call and applies an injected failure; otherwise runs `body` on the core.
    template <class F>
    OSStatus call(HardwareOperation operation, AudioObjectID object,
                  AudioObjectPropertySelector selector, F body) const {
        std::lock_guard lock(core->mutex);
        if (OSStatus status = core->logAndCheck(operation, object, selector)) {
            return status;
        }
        return body(*core);
    }
};

FakeHardware::FakeHardware() : state_(std::make_unique<State>()) {
    Core& core = *state_->core;
    core.objects.insert(kAudioObjectSystemObject);
    for (auto list : {kAudioHardwarePropertyDevices, kAudioHardwarePropertyProcessObjectList}) {
        core.storeIdArray(kAudioObjectSystemObject, globalAddress(list), {});
    }
    for (auto device :
         {kAudioHardwarePropertyDefaultOutputDevice, kAudioHardwarePropertyDefaultInputDevice}) {
        core.store(kAudioObjectSystemObject, globalAddress(device), AudioObjectID(0));
    }
}

FakeHardware::~FakeHardware() {
    // Listener tasks still queued elsewhere must not call into a test that has moved on.
    state_->locked([](Core& core) {
        core.listeners.clear();
        core.procs.clear();
    });
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
    AudioStreamBasicDescription format = floatFormat(sampleRate, channels, true);
    format.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    format.mBytesPerFrame = format.mBytesPerPacket = 2 * channels;
    format.mBitsPerChannel = 16;
    return format;
}

// ---- Scripting objects -------------------------------------------------------------------------

AudioObjectID FakeHardware::addDevice(const DeviceSpec& config) {
    return state_->announce([&](Core& core, Announcements& out) {
        AudioObjectID device = core.nextObject++;
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

        core.editSystemList(
            kAudioHardwarePropertyDevices, [&](auto& list) { list.push_back(device); }, out);
        // The first device of a side becomes its default.
        for (auto [selector, present] :
             {std::pair{kAudioHardwarePropertyDefaultOutputDevice, hasOutput},
              std::pair{kAudioHardwarePropertyDefaultInputDevice, hasInput}}) {
            if (present &&
                core.value<AudioObjectID>(kAudioObjectSystemObject, globalAddress(selector))
                        .value_or(0) == 0) {
                core.change(kAudioObjectSystemObject, selector, device, out);
            }
        }
        return device;
    });
}

void FakeHardware::removeDevice(AudioObjectID device) {
    state_->announce([&](Core& core, Announcements& out) {
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
        core.editSystemList(
            kAudioHardwarePropertyDevices, [&](auto& list) { std::erase(list, device); }, out);
        for (auto selector : {kAudioHardwarePropertyDefaultOutputDevice,
                              kAudioHardwarePropertyDefaultInputDevice}) {
            if (core.value<AudioObjectID>(kAudioObjectSystemObject, globalAddress(selector)) ==
                device) {
                core.change(kAudioObjectSystemObject, selector, AudioObjectID(0), out);
            }
        }
    });
}

void FakeHardware::setDefaultOutputDevice(AudioObjectID device) {
    state_->announce([&](Core& core, Announcements& out) {
        core.change(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice, device,
                    out);
    });
}

AudioObjectID FakeHardware::addProcess(std::int32_t pid, bool runningOutput) {
    return state_->announce([&](Core& core, Announcements& out) {
        AudioObjectID process = core.nextObject++;
        core.objects.insert(process);
        core.processes.insert(process);
        core.store(process, globalAddress(kAudioProcessPropertyPID), pid);
        core.store(process, globalAddress(kAudioProcessPropertyIsRunningOutput),
                   std::uint32_t(runningOutput ? 1 : 0));
        core.editSystemList(
            kAudioHardwarePropertyProcessObjectList, [&](auto& list) { list.push_back(process); },
            out);
        return process;
    });
}

void FakeHardware::removeProcess(AudioObjectID process) {
    state_->announce([&](Core& core, Announcements& out) {
        if (core.processes.erase(process) != 0) {
            core.eraseObject(process);
            core.editSystemList(
                kAudioHardwarePropertyProcessObjectList,
                [&](auto& list) { std::erase(list, process); }, out);
        }
    });
}

void FakeHardware::setProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               std::vector<std::uint8_t> bytes) {
    state_->locked([&](Core& core) {
        core.properties[PropertyKey(object, address)] = PropertyValue{std::move(bytes), false, {}};
    });
}

void FakeHardware::setArrayProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                    const std::vector<std::uint32_t>& values) {
    state_->locked([&](Core& core) { core.storeIdArray(object, address, values); });
}

void FakeHardware::setStringProperty(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address,
                                     std::optional<std::string> value) {
    state_->locked([&](Core& core) { core.storeString(object, address, std::move(value)); });
}

void FakeHardware::removeProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) {
    state_->locked([&](Core& core) {
        core.properties.erase(PropertyKey(object, address));
        core.reportedSizes.erase(PropertyKey(object, address));
    });
}

void FakeHardware::setReturnedDataSize(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       std::uint32_t size) {
    state_->locked([&](Core& core) { core.returnedSizes[PropertyKey(object, address)] = size; });
}

void FakeHardware::setReportedDataSize(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       std::uint32_t size) {
    state_->locked([&](Core& core) { core.reportedSizes[PropertyKey(object, address)] = size; });
}

void FakeHardware::setTapFormat(const AudioStreamBasicDescription& format) {
    state_->locked([&](Core& core) { core.tapFormat = format; });
}

void FakeHardware::setAggregateSampleRate(double rate) {
    state_->locked([&](Core& core) { core.aggregateRate = rate; });
}

void FakeHardware::setSupportsBundleIDTaps(bool supported) {
    state_->locked([&](Core& core) { core.bundleIDTaps = supported; });
}

// ---- Failures and call log ---------------------------------------------------------------------

void FakeHardware::failNext(HardwareOperation operation, OSStatus status,
                            std::optional<AudioObjectPropertySelector> selector) {
    state_->locked([&](Core& core) { core.nextFailures.push_back({operation, status, selector}); });
}

void FakeHardware::failAlways(HardwareOperation operation, OSStatus status,
                              std::optional<AudioObjectPropertySelector> selector) {
    state_->locked([&](Core& core) {
        core.alwaysFailures.push_back({operation, status, selector});
    });
}

void FakeHardware::clearFailures() {
    state_->locked([](Core& core) {
        core.nextFailures.clear();
        core.alwaysFailures.clear();
    });
}

std::vector<HardwareCall> FakeHardware::calls() const {
    return state_->locked([](const Core& core) { return core.calls; });
}

std::size_t FakeHardware::callCount(HardwareOperation operation) const {
    return state_->locked([&](const Core& core) {
        return std::size_t(
            std::count_if(core.calls.begin(), core.calls.end(),
                          [&](const auto& call) { return call.operation == operation; }));
    });
}

void FakeHardware::clearCalls() {
    state_->locked([](Core& core) { core.calls.clear(); });
}

// ---- Inspection --------------------------------------------------------------------------------

std::vector<AudioObjectID> FakeHardware::taps() const {
    return state_->locked([](const Core& core) { return keysOf(core.taps); });
}

std::optional<TapDescription> FakeHardware::tapDescription(AudioObjectID tap) const {
    return state_->locked([&](const Core& core) { return lookup(core.taps, tap); });
}

std::vector<AudioObjectID> FakeHardware::aggregateDevices() const {
    return state_->locked([](const Core& core) { return keysOf(core.aggregates); });
}

std::optional<AggregateDeviceDescription> FakeHardware::aggregateDescription(
    AudioObjectID device) const {
    return state_->locked([&](const Core& core) { return lookup(core.aggregates, device); });
}

std::size_t FakeHardware::ioProcCount(AudioObjectID device) const {
    return state_->locked([&](const Core& core) { return core.procCount(device, false); });
}

std::size_t FakeHardware::runningIOProcCount(AudioObjectID device) const {
    return state_->locked([&](const Core& core) { return core.procCount(device, true); });
}

std::size_t FakeHardware::listenerCount(AudioObjectID object,
                                        AudioObjectPropertySelector selector) const {
    return state_->locked([&](const Core& core) {
        return std::size_t(std::count_if(
            core.listeners.begin(), core.listeners.end(), [&](const ListenerEntry& entry) {
                return entry.object == object && entry.address.mSelector == selector;
            }));
    });
}

void FakeHardware::notifyPropertyChanged(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address) {
    state_->announce([&](Core& core, Announcements& out) { core.collect(object, address, out); });
}

// ---- IO cycles ---------------------------------------------------------------------------------

std::vector<std::vector<float>> FakeHardware::runIOCycle(
    AudioObjectID device, std::uint32_t frames, const std::vector<std::vector<float>>& input) {
    Core& core = *state_->core;
    std::optional<AudioStreamBasicDescription> inputFormat;
    std::optional<AudioStreamBasicDescription> outputFormat;
    std::vector<std::shared_ptr<IOProc>> procs;
    AudioTimeStamp now;
    {
        std::lock_guard lock(core.mutex);
        if (!core.isDevice(device)) {
            return {};
        }
        inputFormat = core.sideFormat(device, kAudioObjectPropertyScopeInput);
        outputFormat = core.sideFormat(device, kAudioObjectPropertyScopeOutput);
        for (const auto& [id, proc] : core.procs) {
            if (proc->device == device && proc->started) {
                procs.push_back(proc);
            }
        }
        double& sampleTime = core.sampleTimes[device];
        now.mSampleTime = sampleTime;
        sampleTime += frames;
    }
    now.mHostTime = std::uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                      std::chrono::steady_clock::now().time_since_epoch())
                                      .count());
    AudioTimeStamp inputTime = now;
    // Output is scheduled one buffer ahead of the input it answers.
    AudioTimeStamp outputTime = now;
    outputTime.mSampleTime += frames;

    // All buffers up front: the blocks see only memory made before the first of them runs.
    std::optional<CycleBuffers> inputBuffers;
    if (inputFormat) {
        inputBuffers.emplace(*inputFormat, frames);
        inputBuffers->fill(input);
    }
    std::vector<std::unique_ptr<CycleBuffers>> outputBuffers;
    for (std::size_t i = 0; outputFormat && i < procs.size(); ++i) {
        outputBuffers.push_back(std::make_unique<CycleBuffers>(*outputFormat, frames));
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
            (*proc.block)(&now, inputList, &inputTime, outputList, &outputTime);
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
    return state_->call(HardwareOperation::getPropertyDataSize, object, address.mSelector,
                        [&](Core& core) {
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
                                return core.missing(object);
                            }
                            auto reported = core.reportedSizes.find(key);
                            outSize = reported != core.reportedSizes.end() ? reported->second
                                      : stored->isString ? std::uint32_t(sizeof(AudioStringRef))
                                                         : std::uint32_t(stored->bytes.size());
                            return kAudioHardwareNoError;
                        });
}

OSStatus FakeHardware::getPropertyData(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       std::uint32_t qualifierSize, const void* qualifier,
                                       std::uint32_t& ioSize, void* data) {
    return state_->call(
        HardwareOperation::getPropertyData, object, address.mSelector, [&](Core& core) {
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
                    if (core.value<std::int32_t>(process,
                                                 globalAddress(kAudioProcessPropertyPID)) == pid) {
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
                return core.missing(object);
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
            std::uint32_t size = storedSize;
            if (isArraySelector(address.mSelector)) {
                // Lists hand back as many whole entries as fit: the caller sees a shorter size.
                size = std::min(ioSize, storedSize) / sizeof(AudioObjectID) * sizeof(AudioObjectID);
            } else if (ioSize < storedSize) {
                return kAudioHardwareBadPropertySizeError;
            }
            if (size > 0 && data == nullptr) {
                return kAudioHardwareIllegalOperationError;
            }
            if (size > 0) {
                std::memcpy(data, stored->bytes.data(), size);
            }
            auto returned = core.returnedSizes.find(PropertyKey(object, address));
            ioSize = isArraySelector(address.mSelector) && returned != core.returnedSizes.end()
                         ? returned->second
                         : size;
            return kAudioHardwareNoError;
        });
}

OSStatus FakeHardware::setPropertyData(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       std::uint32_t /*qualifierSize*/, const void* /*qualifier*/,
                                       std::uint32_t size, const void* data) {
    return state_->announce([&](Core& core, Announcements& out) -> OSStatus {
        if (OSStatus status =
                core.logAndCheck(HardwareOperation::setPropertyData, object, address.mSelector)) {
            return status;
        }
        // A tap's description is the only property the program sets.
        if (address.mSelector != kAudioTapPropertyDescription) {
            return kAudioHardwareUnknownPropertyError;
        }
        auto tap = core.taps.find(object);
        if (tap == core.taps.end()) {
            return kAudioHardwareBadObjectError;
        }
        if (OSStatus status = TapDescription::readPropertyValue(size, data, tap->second)) {
            return status;
        }
        core.collect(object, address, out);
        return kAudioHardwareNoError;
    });
}

OSStatus FakeHardware::addPropertyListener(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           std::shared_ptr<SerialQueue> queue,
                                           AudioObjectPropertyListener listener) {
    return state_->call(
        HardwareOperation::addPropertyListener, object, address.mSelector, [&](Core& core) {
            if (!core.objectExists(object)) {
                return kAudioHardwareBadObjectError;
            }
            if (!queue || !listener || !*listener) {
                return kAudioHardwareIllegalOperationError;
            }
            core.listeners.push_back(
                {core.nextRegistration++, object, address, std::move(queue), std::move(listener)});
            return kAudioHardwareNoError;
        });
}

OSStatus FakeHardware::removePropertyListener(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address,
                                              const std::shared_ptr<SerialQueue>& queue,
                                              const AudioObjectPropertyListener& listener) {
    return state_->call(
        HardwareOperation::removePropertyListener, object, address.mSelector, [&](Core& core) {
            auto it = std::find_if(
                core.listeners.begin(), core.listeners.end(), [&](const ListenerEntry& entry) {
                    return entry.object == object && entry.address.mSelector == address.mSelector &&
                           entry.queue == queue && entry.listener == listener;
                });
            if (it == core.listeners.end()) {
                return core.objectExists(object) ? kAudioHardwareNoError
                                                 : kAudioHardwareBadObjectError;
            }
            core.listeners.erase(it);
            return kAudioHardwareNoError;
        });
}

OSStatus FakeHardware::createProcessTap(const TapDescription& description, AudioObjectID& outTap) {
    return state_->call(HardwareOperation::createProcessTap, 0, 0, [&](Core& core) {
        outTap = core.nextObject++;
        core.objects.insert(outTap);
        core.taps.emplace(outTap, description);
        core.store(outTap, globalAddress(kAudioTapPropertyFormat), core.tapFormat);
        return kAudioHardwareNoError;
    });
}

OSStatus FakeHardware::destroyProcessTap(AudioObjectID tap) {
    return state_->call(HardwareOperation::destroyProcessTap, tap, 0, [&](Core& core) {
        if (core.taps.erase(tap) == 0) {
            return kAudioHardwareBadObjectError;
        }
        core.eraseObject(tap);
        return kAudioHardwareNoError;
    });
}

OSStatus FakeHardware::createAggregateDevice(const AggregateDeviceDescription& description,
                                             AudioObjectID& outDevice) {
    return state_->call(HardwareOperation::createAggregateDevice, 0, 0, [&](Core& core) {
        AudioObjectID device = core.nextObject++;
        core.objects.insert(device);
        core.aggregates.emplace(device, description);
        core.sampleTimes[device] = 0;
        core.store(device, globalAddress(kAudioDevicePropertyNominalSampleRate),
                   core.aggregateRate);
        core.storeString(device, globalAddress(kAudioDevicePropertyDeviceUID), description.uid);
        core.storeString(device, globalAddress(kAudioObjectPropertyName), description.name);
        outDevice = device;
        return kAudioHardwareNoError;
    });
}

OSStatus FakeHardware::destroyAggregateDevice(AudioObjectID device) {
    return state_->call(HardwareOperation::destroyAggregateDevice, device, 0, [&](Core& core) {
        if (core.aggregates.erase(device) == 0) {
            return kAudioHardwareBadObjectError;
        }
        core.eraseObject(device);
        core.stopProcsOf(device);
        std::erase_if(core.procs,
                      [&](const auto& entry) { return entry.second->device == device; });
        return kAudioHardwareNoError;
    });
}

OSStatus FakeHardware::createIOProcID(AudioObjectID device, std::shared_ptr<SerialQueue> queue,
                                      AudioDeviceIOBlock block, AudioDeviceIOProcID& outProcID) {
    return state_->call(HardwareOperation::createIOProcID, device, 0, [&](Core& core) {
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
        outProcID = core.nextProc++;
        core.procs.emplace(outProcID, std::move(proc));
        return kAudioHardwareNoError;
    });
}

OSStatus FakeHardware::deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) {
    return state_->call(HardwareOperation::deviceStart, device, 0, [&](Core& core) {
        auto it = core.procs.find(procID);
        if (it == core.procs.end() || it->second->device != device || !core.isDevice(device)) {
            return kAudioHardwareBadObjectError;
        }
        it->second->started = true;
        return kAudioHardwareNoError;
    });
}

OSStatus FakeHardware::deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) {
    return state_->call(HardwareOperation::deviceStop, device, 0, [&](Core& core) {
        auto it = core.procs.find(procID);
        if (it == core.procs.end() || it->second->device != device) {
            return kAudioHardwareBadObjectError;
        }
        it->second->started = false;
        return kAudioHardwareNoError;
    });
}

OSStatus FakeHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) {
    return state_->call(HardwareOperation::destroyIOProcID, device, 0, [&](Core& core) {
        auto it = core.procs.find(procID);
        if (it == core.procs.end() || it->second->device != device) {
            return kAudioHardwareBadObjectError;
        }
        // A cycle that already holds the proc sees it stopped and skips the block.
        it->second->started = false;
        core.procs.erase(it);
        return kAudioHardwareNoError;
    });
}

bool FakeHardware::supportsBundleIDTaps() const {
    return state_->locked([](const Core& core) { return core.bundleIDTaps; });
}

}  // namespace bw::test
