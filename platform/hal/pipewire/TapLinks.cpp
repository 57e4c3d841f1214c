#include "platform/hal/pipewire/TapLinks.h"

#include <unistd.h>

#include <algorithm>
#include <string>

#include "platform/hal/pipewire/Constants.h"

namespace bw::pipewire {

namespace {

// "FL", "RL", ... → 0 (left), 1 (right), or -1 (feeds both: mono, centre, LFE, unknown).
int sideOfChannel(const std::string& channel) {
    static const std::set<std::string> left = {"FL", "RL", "SL", "FLC", "RLC", "TFL", "TRL", "FLW"};
    static const std::set<std::string> right = {"FR",  "RR",  "SR",  "FRC",
                                                "RRC", "TFR", "TRR", "FRW"};
    if (left.contains(channel)) {
        return 0;
    }
    if (right.contains(channel)) {
        return 1;
    }
    return -1;
}

}  // namespace

TapLinks::TapLinks(PipeWireConnection& connection, RegistryMirror& mirror, StreamMover& mover)
    : connection_(connection),
      mirror_(mirror),
      mover_(mover),
      ownPID_(std::int32_t(getpid())),
      nextTap_(kTapBase + 1),
      nextAggregate_(kAggregateBase + 1) {}

// ---------------------------------------------------------------------------------------------
// Taps and aggregate devices

OSStatus TapLinks::createTap(const TapDescription& description, AudioObjectID& outTap) {
    outTap = nextTap_++;
    taps_[outTap] = Tap{description};
    return 0;
}

OSStatus TapLinks::destroyTap(AudioObjectID tap) {
    if (taps_.erase(tap) == 0) {
        return kAudioHardwareBadObjectError;
    }
    reconcileAll();
    return 0;
}

OSStatus TapLinks::setTapProperty(AudioObjectID tap, const AudioObjectPropertyAddress& address,
                                  std::uint32_t size, const void* data) {
    auto it = taps_.find(tap);
    if (it == taps_.end()) {
        return kAudioHardwareBadObjectError;
    }
    if (address.mSelector != kAudioTapPropertyDescription) {
        return kAudioHardwareUnknownPropertyError;
    }
    if (OSStatus status = TapDescription::readPropertyValue(size, data, it->second.description)) {
        return status;
    }
    reconcileAll();
    return 0;
}

OSStatus TapLinks::createAggregate(const AggregateDeviceDescription& description,
                                   AudioObjectID& outDevice) {
    AudioObjectID tap = 0;
    for (const auto& [id, entry] : taps_) {
        if (!description.taps.empty() && entry.description.uuidString == description.taps[0].uid) {
            tap = id;
        }
    }
    if (tap == 0) {
        return kAudioHardwareBadObjectError;
    }
    auto aggregate = std::make_unique<Aggregate>();
    aggregate->description = description;
    aggregate->tap = tap;
    aggregate->capture = StreamEndpoint::make(
        connection_.core(), false, connection_.nodeName("capture"), 2, kGraphRate, "", false);
    if (!aggregate->capture) {
        return kAudioHardwareUnspecifiedError;
    }
    StreamEndpoint* capture = aggregate->capture.get();
    // Links need the capture's input ports: wait until the server has shown them.
    const bool ready = connection_.waitFor([&] {
        const std::uint32_t node = capture->nodeID();
        return node != SPA_ID_INVALID && mirror_.portsOf(node, false).size() >= 2;
    });
    if (!ready) {
        aggregate->capture->destroy();
        return connection_.isConnected() ? kAudioHardwareUnspecifiedError
                                         : kAudioHardwareNotRunningError;
    }
    outDevice = nextAggregate_++;
    reconcile(*aggregate);
    aggregates_[outDevice] = std::move(aggregate);
    return 0;
}

OSStatus TapLinks::destroyAggregate(AudioObjectID device) {
    auto it = aggregates_.find(device);
    if (it == aggregates_.end()) {
        return kAudioHardwareBadObjectError;
    }
    auto& aggregate = *it->second;
    unlink(aggregate);
    mover_.release(aggregate.mutedNodes);
    aggregate.capture->destroy();
    aggregates_.erase(it);
    return 0;
}

std::shared_ptr<StreamEndpoint> TapLinks::captureOf(AudioObjectID device) const {
    auto it = aggregates_.find(device);
    return it == aggregates_.end() ? nullptr : it->second->capture;
}

std::vector<std::shared_ptr<StreamEndpoint>> TapLinks::captures() const {
    std::vector<std::shared_ptr<StreamEndpoint>> list;
    for (const auto& [id, aggregate] : aggregates_) {
        if (aggregate->capture) {
            list.push_back(aggregate->capture);
        }
    }
    return list;
}

void TapLinks::dropLinks() {
    for (auto& [id, aggregate] : aggregates_) {
        unlink(*aggregate);
        aggregate->links.clear();
        aggregate->mutedNodes.clear();  // the moves went with the old server's metadata
    }
}

void TapLinks::destroyAll() {
    for (auto& [id, aggregate] : aggregates_) {
        unlink(*aggregate);
        mover_.release(aggregate->mutedNodes);
        aggregate->capture->destroy();
    }
    aggregates_.clear();
}

void TapLinks::unlink(Aggregate& aggregate) {
    for (auto& [key, link] : aggregate.links) {
        pw_proxy_destroy(link);
    }
}

// ---------------------------------------------------------------------------------------------
// Links from the tapped streams into our capture streams

std::set<std::uint32_t> TapLinks::tappedNodes(const TapDescription& description) {
    std::set<std::int32_t> listedPIDs;
    for (AudioObjectID object : description.processes) {
        if (const auto pid = mirror_.pidOfProcessObject(object)) {
            listedPIDs.insert(*pid);
        }
    }
    auto bundleOf = [&](std::int32_t pid) -> std::optional<std::string> {
        if (description.bundleIDs.empty()) {
            return std::nullopt;
        }
        return mirror_.bundleOf(pid);
    };
    std::set<std::uint32_t> tapped;
    for (const RegistryMirror::Node* node : mirror_.outputStreams()) {
        if (node->name.rfind("brightwave-", 0) == 0) {
            continue;
        }
        const std::int32_t pid = mirror_.pidOf(*node);
        if (pid == ownPID_) {
            continue;  // never our own sound
        }
        const auto bundle = bundleOf(pid);
        const bool listed =
            listedPIDs.contains(pid) ||
            (bundle && std::find(description.bundleIDs.begin(), description.bundleIDs.end(),
                                 *bundle) != description.bundleIDs.end());
        if (description.isExclusive) {
            // Halves of loopbacks and filters carry audio already counted once.
            if (!listed && node->linkGroup.empty()) {
                tapped.insert(node->id);
            }
        } else if (listed) {
            tapped.insert(node->id);
        }
    }
    return tapped;
}

void TapLinks::reconcileAll() {
    if (!connection_.isConnected()) {
        return;
    }
    for (auto& [id, aggregate] : aggregates_) {
        reconcile(*aggregate);
    }
}

void TapLinks::reconcile(Aggregate& aggregate) {
    if (!aggregate.capture || !aggregate.capture->hasStream()) {
        return;
    }
    const std::uint32_t captureNode = aggregate.capture->nodeID();
    const RegistryMirror::Port* left = nullptr;
    const RegistryMirror::Port* right = nullptr;
    for (const RegistryMirror::Port* port : mirror_.portsOf(captureNode, false)) {
        if (sideOfChannel(port->channel) == 1) {
            right = port;
        } else if (left == nullptr) {
            left = port;
        }
    }
    std::set<std::pair<std::uint32_t, std::uint32_t>> desired;
    std::set<std::uint32_t> tapped;
    auto tap = taps_.find(aggregate.tap);
    if (tap != taps_.end() && left != nullptr && right != nullptr) {
        tapped = tappedNodes(tap->second.description);
        for (std::uint32_t node : tapped) {
            const auto outputs = mirror_.portsOf(node, true);
            for (const RegistryMirror::Port* port : outputs) {
                const int side = outputs.size() == 1 ? -1 : sideOfChannel(port->channel);
                if (side <= 0) {
                    desired.insert({port->id, left->id});
                }
                if (side != 0) {
                    desired.insert({port->id, right->id});
                }
            }
        }
    }
    for (auto it = aggregate.links.begin(); it != aggregate.links.end();) {
        if (!desired.contains(it->first)) {
            pw_proxy_destroy(it->second);
            it = aggregate.links.erase(it);
        } else {
            ++it;
        }
    }
    for (const auto& key : desired) {
        if (aggregate.links.contains(key)) {
            continue;
        }
        const RegistryMirror::Port& output = mirror_.port(key.first);
        pw_properties* props = pw_properties_new(PW_KEY_OBJECT_LINGER, "false", nullptr);
        pw_properties_setf(props, PW_KEY_LINK_OUTPUT_NODE, "%u", output.nodeID);
        pw_properties_setf(props, PW_KEY_LINK_OUTPUT_PORT, "%u", key.first);
        pw_properties_setf(props, PW_KEY_LINK_INPUT_NODE, "%u", captureNode);
        pw_properties_setf(props, PW_KEY_LINK_INPUT_PORT, "%u", key.second);
        auto* link = static_cast<pw_proxy*>(
            pw_core_create_object(connection_.core(), "link-factory", PW_TYPE_INTERFACE_Link,
                                  PW_VERSION_LINK, &props->dict, 0));
        pw_properties_free(props);
        if (link != nullptr) {
            aggregate.links[key] = link;
        }
    }
    // Muted when tapped: the tapped streams play into our silent sink instead of the speakers;
    // our links from their ports stay as they are.
    const bool mute = tap != taps_.end() &&
                      tap->second.description.muteBehavior != TapDescription::MuteBehavior::unmuted;
    mover_.update(aggregate.mutedNodes, mute ? tapped : std::set<std::uint32_t>{});
}

// ---------------------------------------------------------------------------------------------
// Property answers

std::optional<PropertyAnswer> TapLinks::answer(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address) const {
    PropertyAnswer result;
    const auto selector = address.mSelector;
    if (auto aggregate = aggregates_.find(object); aggregate != aggregates_.end()) {
        switch (selector) {
            case kAudioDevicePropertyNominalSampleRate:
                result.value(kGraphRate);
                return result;
            case kAudioDevicePropertyDeviceUID:
                result.text = aggregate->second->description.uid;
                return result;
            case kAudioObjectPropertyName:
                result.text = aggregate->second->description.name;
                return result;
            case kAudioDevicePropertyStreamFormat:
                result.value(interleavedFloat(kGraphRate, 2));
                return result;
            default:
                result.status = kAudioHardwareUnknownPropertyError;
                return result;
        }
    }
    if (taps_.contains(object)) {
        if (selector == kAudioTapPropertyFormat) {
            result.value(interleavedFloat(kGraphRate, 2));
        } else {
            result.status = kAudioHardwareUnknownPropertyError;
        }
        return result;
    }
    return std::nullopt;
}

}  // namespace bw::pipewire
