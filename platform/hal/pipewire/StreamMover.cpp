#include "platform/hal/pipewire/StreamMover.h"

#include <unistd.h>

#include <chrono>

namespace bw::pipewire {

namespace {

std::string uniqueSinkName() {
    return "brightwave-silence-" + std::to_string(std::int32_t(getpid())) + "-" +
           std::to_string(std::chrono::steady_clock::now().time_since_epoch().count() % 1000000007);
}

}  // namespace

StreamMover::StreamMover(PipeWireConnection& connection, RegistryMirror& mirror)
    : connection_(connection), mirror_(mirror), silentSinkName_(uniqueSinkName()) {}

void StreamMover::update(std::set<std::uint32_t>& moved, std::set<std::uint32_t> wanted) {
    if (!wanted.empty() && (mirror_.metadata() == nullptr || !ensureSilentSink())) {
        wanted.clear();  // tried again at the next change
    }
    for (std::uint32_t node : moved) {
        if (!wanted.contains(node) && mirror_.hasNode(node)) {
            setTarget(node, nullptr);
        }
    }
    for (std::uint32_t node : wanted) {
        if (!moved.contains(node)) {
            setTarget(node, silentSinkName_.c_str());
        }
    }
    moved = std::move(wanted);
}

void StreamMover::release(const std::set<std::uint32_t>& moved) {
    for (std::uint32_t node : moved) {
        setTarget(node, nullptr);  // the streams go back to the default output
    }
}

void StreamMover::dropSink() {
    if (silentSink_ != nullptr) {
        pw_proxy_destroy(silentSink_);
        silentSink_ = nullptr;
    }
}

bool StreamMover::ensureSilentSink() {
    if (silentSink_ != nullptr) {
        return true;
    }
    pw_properties* props = pw_properties_new(
        "factory.name", "support.null-audio-sink", PW_KEY_NODE_NAME, silentSinkName_.c_str(),
        PW_KEY_NODE_DESCRIPTION, "Brightwave Record (muted while recorded)", PW_KEY_MEDIA_CLASS,
        "Audio/Sink", "audio.position", "FL,FR", PW_KEY_OBJECT_LINGER, "false", PW_KEY_NODE_GROUP,
        "brightwave-recording", "node.virtual", "true",
        // It can clock the streams it silences when nothing else does, but yields to any device.
        PW_KEY_NODE_DRIVER, "true", PW_KEY_PRIORITY_DRIVER, "1", nullptr);
    silentSink_ = static_cast<pw_proxy*>(pw_core_create_object(
        connection_.core(), "adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, &props->dict, 0));
    pw_properties_free(props);
    return silentSink_ != nullptr;
}

void StreamMover::setTarget(std::uint32_t nodeID, const char* target) {
    if (pw_metadata* metadata = mirror_.metadata(); metadata != nullptr) {
        pw_metadata_set_property(metadata, nodeID, "target.object", target ? "Spa:String" : nullptr,
                                 target);
    }
}

}  // namespace bw::pipewire
