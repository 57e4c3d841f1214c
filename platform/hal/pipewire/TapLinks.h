#pragma once

#include <pipewire/pipewire.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "platform/hal/AudioHardware.h"
#include "platform/hal/pipewire/PipeWireConnection.h"
#include "platform/hal/pipewire/PropertyAnswer.h"
#include "platform/hal/pipewire/RegistryMirror.h"
#include "platform/hal/pipewire/StreamEndpoint.h"
#include "platform/hal/pipewire/StreamMover.h"

namespace bw::pipewire {

/// Taps and the aggregate devices that hold them. A tap is a description kept here; an aggregate
/// device is a capture stream of ours, linked (link-factory links that don't outlive us) from the
/// output ports of the streams its tap names, streams that start later included. Mono ports feed
/// both channels. Every change of the graph or of a tap's description brings the links, and the
/// moves of muted streams, up to date.
///
/// Owner: the hardware layer. Thread: everything with the loop lock held; `createAggregate` lets
/// it go while it waits (bounded) for the server to show the capture's ports.
class TapLinks {
public:
    TapLinks(PipeWireConnection& connection, RegistryMirror& mirror, StreamMover& mover);
    TapLinks(const TapLinks&) = delete;
    TapLinks& operator=(const TapLinks&) = delete;

    OSStatus createTap(const TapDescription& description, AudioObjectID& outTap);
    OSStatus destroyTap(AudioObjectID tap);
    /// Sets a tap's description (`data` points at a `const TapDescription*`) and relinks.
    OSStatus setTapProperty(AudioObjectID tap, const AudioObjectPropertyAddress& address,
                            std::uint32_t size, const void* data);
    /// Makes the capture stream of an aggregate device for its first tap and links it.
    OSStatus createAggregate(const AggregateDeviceDescription& description,
                             AudioObjectID& outDevice);
    /// Unlinks, sends moved streams back and destroys the capture. The device's IO procs are
    /// gone before.
    OSStatus destroyAggregate(AudioObjectID device);
    /// An aggregate device's capture; null for any other object.
    std::shared_ptr<StreamEndpoint> captureOf(AudioObjectID device) const;
    /// Every aggregate's capture, in id order.
    std::vector<std::shared_ptr<StreamEndpoint>> captures() const;

    /// Brings every aggregate's links and moves up to date, while connected.
    void reconcileAll();
    /// Forgets links and moves that went with a lost server; they are made again once the next
    /// one settles.
    void dropLinks();
    /// Unlinks, sends moved streams back and destroys every aggregate: at the end.
    void destroyAll();

    /// The answer for an aggregate device or a tap; nothing for other objects.
    std::optional<PropertyAnswer> answer(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address) const;

private:
    struct Tap {
        TapDescription description;
    };
    struct Aggregate {
        AggregateDeviceDescription description;
        AudioObjectID tap = 0;
        std::shared_ptr<StreamEndpoint> capture;
        std::map<std::pair<std::uint32_t, std::uint32_t>, pw_proxy*> links;  // (out, in) port
        std::set<std::uint32_t> mutedNodes;
    };

    std::set<std::uint32_t> tappedNodes(const TapDescription& description);
    void reconcile(Aggregate& aggregate);
    void unlink(Aggregate& aggregate);

    PipeWireConnection& connection_;
    RegistryMirror& mirror_;
    StreamMover& mover_;
    const std::int32_t ownPID_;
    std::map<AudioObjectID, Tap> taps_;
    AudioObjectID nextTap_;
    std::map<AudioObjectID, std::unique_ptr<Aggregate>> aggregates_;
    AudioObjectID nextAggregate_;
};

}  // namespace bw::pipewire
