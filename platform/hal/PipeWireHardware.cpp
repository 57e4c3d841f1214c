#include "platform/hal/PipeWireHardware.h"

#include <cstring>
#include <vector>

#include "platform/hal/AudioStringRef.h"
#include "platform/hal/pipewire/IOProcs.h"
#include "platform/hal/pipewire/LoopLock.h"
#include "platform/hal/pipewire/PipeWireConnection.h"
#include "platform/hal/pipewire/PropertyAnswer.h"
#include "platform/hal/pipewire/RegistryMirror.h"
#include "platform/hal/pipewire/StandInClock.h"
#include "platform/hal/pipewire/StreamEndpoint.h"
#include "platform/hal/pipewire/StreamMover.h"
#include "platform/hal/pipewire/TapLinks.h"

namespace bw {

using pipewire::LoopLock;

// The parts, and what they do together when the connection turns. Everything runs with the loop
// lock held, except stopping IO procs, which waits for their threads without it.
struct PipeWireHardware::Impl final : pipewire::PipeWireConnection::Observer {
    explicit Impl(BundleResolver bundleOfProcess)
        : mirror(connection, std::move(bundleOfProcess), [this] { taps.reconcileAll(); }) {
        connection.open();
    }
    ~Impl() override;

    void connectionMade() override {
        mirror.attach(connection.registry());
        standIn.stop();
        for (const auto& endpoint : endpoints()) {
            endpoint->connect(connection.core());
        }
    }
    void connectionSettled() override { mirror.graphChanged(); }
    // Nothing yet: the old streams may still be in a cycle until they are destroyed.
    void connectionLost() override {}
    void connectionClosing() override {
        for (const auto& endpoint : endpoints()) {
            endpoint->destroy();  // waits for the stream's realtime thread to let go
        }
        // Only now: the stand-in clock must never render beside a stream's own cycle.
        standIn.start(endpoints());
        taps.dropLinks();
        mover.dropSink();
        mirror.clear();
        mirror.detach();
    }
    void outageOutlasted() override {
        standIn.stop();
        mirror.announce();
    }

    // Every stream of ours: the aggregates' captures, then the IO procs' own.
    std::vector<std::shared_ptr<pipewire::StreamEndpoint>> endpoints() const {
        auto list = taps.captures();
        for (auto& endpoint : procs.ownedEndpoints()) {
            list.push_back(std::move(endpoint));
        }
        return list;
    }

    pipewire::PropertyAnswer answer(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                    std::uint32_t qualifierSize, const void* qualifier) const {
        if (auto result = mirror.answer(object, address, qualifierSize, qualifier)) {
            return std::move(*result);
        }
        if (auto result = taps.answer(object, address)) {
            return std::move(*result);
        }
        pipewire::PropertyAnswer result;
        result.status = kAudioHardwareBadObjectError;
        return result;
    }

    // Runs `operation` with the loop lock held if the server is there.
    template <typename Operation>
    OSStatus whileConnected(Operation&& operation) {
        if (connection.loop() == nullptr) {
            return kAudioHardwareNotRunningError;
        }
        LoopLock lock(connection.loop());
        if (!connection.isConnected()) {
            return kAudioHardwareNotRunningError;
        }
        return operation();
    }

    // First made, last gone: the loop outlives every part that uses it.
    pipewire::PipeWireConnection connection{*this};
    pipewire::StandInClock standIn;
    pipewire::RegistryMirror mirror;
    pipewire::StreamMover mover{connection, mirror};
    pipewire::TapLinks taps{connection, mirror, mover};
    pipewire::IOProcs procs{connection, mirror, standIn};
};

PipeWireHardware::Impl::~Impl() {
    if (connection.loop() == nullptr) {
        return;
    }
    standIn.stop();
    procs.stopAll();
    LoopLock lock(connection.loop());
    procs.destroyAll();
    taps.destroyAll();  // the moved streams go back to the default output
    mover.dropSink();
    connection.flush();
    mirror.clear();
    mirror.detach();
    connection.close();
}

PipeWireHardware::PipeWireHardware(BundleResolver bundleOfProcess)
    : impl_(std::make_unique<Impl>(std::move(bundleOfProcess))) {}

PipeWireHardware::~PipeWireHardware() = default;

bool PipeWireHardware::isConnected() const {
    if (impl_->connection.loop() == nullptr) {
        return false;
    }
    LoopLock lock(impl_->connection.loop());
    return impl_->connection.isConnected();
}

OSStatus PipeWireHardware::getPropertyDataSize(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address,
                                               std::uint32_t qualifierSize, const void* qualifier,
                                               std::uint32_t& outSize) {
    return impl_->whileConnected([&]() -> OSStatus {
        const auto result = impl_->answer(object, address, qualifierSize, qualifier);
        if (result.status != 0) {
            return result.status;
        }
        outSize = result.text ? std::uint32_t(sizeof(AudioStringRef))
                              : std::uint32_t(result.bytes.size());
        return 0;
    });
}

OSStatus PipeWireHardware::getPropertyData(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           std::uint32_t qualifierSize, const void* qualifier,
                                           std::uint32_t& ioSize, void* data) {
    pipewire::PropertyAnswer result;
    if (const OSStatus status = impl_->whileConnected([&]() -> OSStatus {
            result = impl_->answer(object, address, qualifierSize, qualifier);
            return 0;
        });
        status != 0) {
        return status;
    }
    if (result.status != 0) {
        return result.status;
    }
    if (result.text) {
        if (ioSize < sizeof(AudioStringRef) || data == nullptr) {
            return kAudioHardwareBadPropertySizeError;
        }
        AudioStringRef reference = makeAudioString(*result.text);
        std::memcpy(data, &reference, sizeof reference);
        ioSize = sizeof reference;
        return 0;
    }
    const auto size = std::uint32_t(result.bytes.size());
    if (result.isArray) {
        const std::uint32_t fit = std::min(ioSize, size) / 4 * 4;
        if (fit > 0) {
            std::memcpy(data, result.bytes.data(), fit);
        }
        ioSize = fit;
        return 0;
    }
    if (ioSize < size || data == nullptr) {
        return kAudioHardwareBadPropertySizeError;
    }
    std::memcpy(data, result.bytes.data(), size);
    ioSize = size;
    return 0;
}

OSStatus PipeWireHardware::setPropertyData(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address, std::uint32_t,
                                           const void*, std::uint32_t size, const void* data) {
    return impl_->whileConnected(
        [&] { return impl_->taps.setTapProperty(object, address, size, data); });
}

OSStatus PipeWireHardware::addPropertyListener(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address,
                                               std::shared_ptr<SerialQueue> queue,
                                               AudioObjectPropertyListener listener) {
    if (!queue || !listener) {
        return kAudioHardwareIllegalOperationError;
    }
    if (impl_->connection.loop() == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    LoopLock lock(impl_->connection.loop());
    impl_->mirror.addListener(object, address.mSelector, std::move(queue), std::move(listener));
    return 0;
}

OSStatus PipeWireHardware::removePropertyListener(AudioObjectID object,
                                                  const AudioObjectPropertyAddress& address,
                                                  const std::shared_ptr<SerialQueue>& queue,
                                                  const AudioObjectPropertyListener& listener) {
    if (impl_->connection.loop() == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    LoopLock lock(impl_->connection.loop());
    impl_->mirror.removeListener(object, address.mSelector, queue, listener);
    return 0;
}

OSStatus PipeWireHardware::createProcessTap(const TapDescription& description,
                                            AudioObjectID& outTap) {
    return impl_->whileConnected([&] { return impl_->taps.createTap(description, outTap); });
}

OSStatus PipeWireHardware::destroyProcessTap(AudioObjectID tap) {
    if (impl_->connection.loop() == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    LoopLock lock(impl_->connection.loop());
    return impl_->taps.destroyTap(tap);
}

OSStatus PipeWireHardware::createAggregateDevice(const AggregateDeviceDescription& description,
                                                 AudioObjectID& outDevice) {
    return impl_->whileConnected(
        [&] { return impl_->taps.createAggregate(description, outDevice); });
}

OSStatus PipeWireHardware::destroyAggregateDevice(AudioObjectID device) {
    if (impl_->connection.loop() == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    impl_->procs.removeAll(device);  // no cycle of the device's IO procs runs past this
    LoopLock lock(impl_->connection.loop());
    return impl_->taps.destroyAggregate(device);
}

OSStatus PipeWireHardware::createIOProcID(AudioObjectID device, std::shared_ptr<SerialQueue> queue,
                                          AudioDeviceIOBlock block,
                                          AudioDeviceIOProcID& outProcID) {
    if (!block) {
        return kAudioHardwareIllegalOperationError;
    }
    return impl_->whileConnected([&] {
        return impl_->procs.create(device, impl_->taps.captureOf(device), std::move(queue),
                                   std::move(block), outProcID);
    });
}

OSStatus PipeWireHardware::deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) {
    return impl_->whileConnected([&] { return impl_->procs.start(device, procID); });
}

OSStatus PipeWireHardware::deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (impl_->connection.loop() == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    return impl_->procs.stop(device, procID);
}

OSStatus PipeWireHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (impl_->connection.loop() == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    return impl_->procs.destroy(device, procID);
}

}  // namespace bw
