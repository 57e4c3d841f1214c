#include "platform/hal/pipewire/RegistryMirror.h"

#include <spa/utils/json.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "platform/dispatch/SerialQueue.h"
#include "platform/hal/pipewire/Constants.h"

namespace bw::pipewire {

namespace {

std::string dictValue(const spa_dict* props, const char* key) {
    const char* value = props ? spa_dict_lookup(props, key) : nullptr;
    return value ? value : "";
}

std::int32_t dictInt(const spa_dict* props, const char* key, std::int32_t fallback = 0) {
    const std::string text = dictValue(props, key);
    if (text.empty()) {
        return fallback;
    }
    try {
        return std::int32_t(std::stol(text));
    } catch (...) {
        return fallback;
    }
}

// The "name" of a default-device metadata value: {"name":"bw_speakers"}.
std::string nameInJson(const char* value) {
    if (value == nullptr) {
        return {};
    }
    spa_json it[2];
    spa_json_init(&it[0], value, strlen(value));
    if (spa_json_enter_object(&it[0], &it[1]) <= 0) {
        return {};
    }
    char key[64];
    while (spa_json_get_string(&it[1], key, sizeof key) > 0) {
        char text[512];
        if (strcmp(key, "name") == 0) {
            if (spa_json_get_string(&it[1], text, sizeof text) > 0) {
                return text;
            }
            return {};
        }
        const char* skipped = nullptr;
        if (spa_json_next(&it[1], &skipped) <= 0) {
            break;
        }
    }
    return {};
}

bool isOutputStream(const RegistryMirror::Node& node) {
    return node.mediaClass == "Stream/Output/Audio";
}

}  // namespace

RegistryMirror::RegistryMirror(PipeWireConnection& connection,
                               PipeWireHardware::BundleResolver bundleOfProcess,
                               std::function<void()> relink)
    : connection_(connection),
      bundleOfProcess_(std::move(bundleOfProcess)),
      relink_(std::move(relink)),
      nextProcessObject_(kProcessBase + 1),
      nextDevice_(kDeviceBase + 1) {}

// ---------------------------------------------------------------------------------------------
// Registry and proxy events

const pw_registry_events& RegistryMirror::registryEvents() {
    static const pw_registry_events events = [] {
        pw_registry_events e{};
        e.version = PW_VERSION_REGISTRY_EVENTS;
        e.global = &RegistryMirror::onGlobal;
        e.global_remove = &RegistryMirror::onGlobalRemove;
        return e;
    }();
    return events;
}

const pw_node_events& RegistryMirror::nodeEvents() {
    static const pw_node_events events = [] {
        pw_node_events e{};
        e.version = PW_VERSION_NODE_EVENTS;
        e.info = &RegistryMirror::onNodeInfo;
        return e;
    }();
    return events;
}

const pw_client_events& RegistryMirror::clientEvents() {
    static const pw_client_events events = [] {
        pw_client_events e{};
        e.version = PW_VERSION_CLIENT_EVENTS;
        e.info = &RegistryMirror::onClientInfo;
        return e;
    }();
    return events;
}

const pw_metadata_events& RegistryMirror::metadataEvents() {
    static const pw_metadata_events events = [] {
        pw_metadata_events e{};
        e.version = PW_VERSION_METADATA_EVENTS;
        e.property = &RegistryMirror::onMetadataProperty;
        return e;
    }();
    return events;
}

void RegistryMirror::attach(pw_registry* registry) {
    registry_ = registry;
    pw_registry_add_listener(registry_, &registryListener_, &registryEvents(), this);
}

void RegistryMirror::detach() {
    if (registry_ != nullptr) {
        spa_hook_remove(&registryListener_);
        registry_ = nullptr;
    }
}

void RegistryMirror::clear() {
    for (auto& [id, node] : nodes_) {
        if (node->proxy != nullptr) {
            spa_hook_remove(&node->listener);
            pw_proxy_destroy(node->proxy);
        }
    }
    nodes_.clear();
    ports_.clear();
    for (auto& [id, client] : clients_) {
        if (client->proxy != nullptr) {
            spa_hook_remove(&client->listener);
            pw_proxy_destroy(client->proxy);
        }
    }
    clients_.clear();
    if (metadata_ != nullptr) {
        spa_hook_remove(&metadataListener_);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(metadata_));
        metadata_ = nullptr;
        metadataID_ = 0;
    }
    defaultSinkName_.clear();
    defaultSourceName_.clear();
}

void RegistryMirror::onGlobal(void* data, std::uint32_t id, std::uint32_t, const char* type,
                              std::uint32_t, const spa_dict* props) {
    auto* self = static_cast<RegistryMirror*>(data);
    if (strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
        const std::string mediaClass = dictValue(props, PW_KEY_MEDIA_CLASS);
        if (mediaClass.find("Audio") == std::string::npos) {
            return;
        }
        auto node = std::make_unique<Node>();
        node->owner = self;
        node->id = id;
        node->mediaClass = mediaClass;
        node->name = dictValue(props, PW_KEY_NODE_NAME);
        node->description = dictValue(props, PW_KEY_NODE_DESCRIPTION);
        node->clientID = dictInt(props, PW_KEY_CLIENT_ID, -1);
        node->proxy =
            static_cast<pw_proxy*>(pw_registry_bind(self->registry_, id, type, PW_VERSION_NODE, 0));
        if (node->proxy != nullptr) {
            pw_proxy_add_object_listener(node->proxy, &node->listener, &nodeEvents(), node.get());
        }
        self->nodes_[id] = std::move(node);
    } else if (strcmp(type, PW_TYPE_INTERFACE_Port) == 0) {
        Port port;
        port.id = id;
        port.nodeID = std::uint32_t(dictInt(props, PW_KEY_NODE_ID, -1));
        port.output = dictValue(props, PW_KEY_PORT_DIRECTION) == "out";
        port.monitor = dictValue(props, PW_KEY_PORT_MONITOR) == "true";
        port.channel = dictValue(props, PW_KEY_AUDIO_CHANNEL);
        self->ports_[id] = port;
    } else if (strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
        auto client = std::make_unique<Client>();
        client->owner = self;
        client->id = id;
        client->pid = dictInt(props, PW_KEY_APP_PROCESS_ID, 0);
        client->proxy = static_cast<pw_proxy*>(
            pw_registry_bind(self->registry_, id, type, PW_VERSION_CLIENT, 0));
        if (client->proxy != nullptr) {
            pw_proxy_add_object_listener(client->proxy, &client->listener, &clientEvents(),
                                         client.get());
        }
        self->clients_[id] = std::move(client);
    } else if (strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0) {
        if (dictValue(props, PW_KEY_METADATA_NAME) != "default" || self->metadata_ != nullptr) {
            return;
        }
        self->metadata_ = static_cast<pw_metadata*>(
            pw_registry_bind(self->registry_, id, type, PW_VERSION_METADATA, 0));
        self->metadataID_ = id;
        if (self->metadata_ != nullptr) {
            pw_metadata_add_listener(self->metadata_, &self->metadataListener_, &metadataEvents(),
                                     self);
        }
        return;
    } else {
        return;
    }
    self->graphChanged();
}

void RegistryMirror::onGlobalRemove(void* data, std::uint32_t id) {
    auto* self = static_cast<RegistryMirror*>(data);
    if (auto node = self->nodes_.find(id); node != self->nodes_.end()) {
        if (node->second->proxy != nullptr) {
            spa_hook_remove(&node->second->listener);
            pw_proxy_destroy(node->second->proxy);
        }
        self->nodes_.erase(node);
    } else if (self->ports_.erase(id) > 0) {
    } else if (auto client = self->clients_.find(id); client != self->clients_.end()) {
        if (client->second->proxy != nullptr) {
            spa_hook_remove(&client->second->listener);
            pw_proxy_destroy(client->second->proxy);
        }
        self->clients_.erase(client);
    } else if (id == self->metadataID_ && self->metadata_ != nullptr) {
        spa_hook_remove(&self->metadataListener_);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(self->metadata_));
        self->metadata_ = nullptr;
        self->metadataID_ = 0;
    } else {
        return;
    }
    self->graphChanged();
}

void RegistryMirror::onNodeInfo(void* data, const pw_node_info* info) {
    auto* node = static_cast<Node*>(data);
    if (info->props != nullptr) {
        if (auto name = dictValue(info->props, PW_KEY_NODE_NAME); !name.empty()) {
            node->name = name;
        }
        if (auto description = dictValue(info->props, PW_KEY_NODE_DESCRIPTION);
            !description.empty()) {
            node->description = description;
        }
        node->linkGroup = dictValue(info->props, PW_KEY_NODE_LINK_GROUP);
        node->clientID = dictInt(info->props, PW_KEY_CLIENT_ID, node->clientID);
        node->rate = std::uint32_t(dictInt(info->props, "audio.rate", 0));
    }
    node->running = info->state == PW_NODE_STATE_RUNNING;
    node->owner->graphChanged();
}

void RegistryMirror::onClientInfo(void* data, const pw_client_info* info) {
    auto* client = static_cast<Client*>(data);
    if (info->props != nullptr) {
        // Not pipewire.sec.pid: for clients of the pulse layer that is the pulse server's.
        client->pid = dictInt(info->props, PW_KEY_APP_PROCESS_ID, client->pid);
    }
    client->owner->graphChanged();
}

int RegistryMirror::onMetadataProperty(void* data, std::uint32_t subject, const char* key,
                                       const char*, const char* value) {
    auto* self = static_cast<RegistryMirror*>(data);
    if (subject != PW_ID_CORE) {
        return 0;
    }
    if (key == nullptr) {
        self->defaultSinkName_.clear();
        self->defaultSourceName_.clear();
    } else if (strcmp(key, "default.audio.sink") == 0) {
        self->defaultSinkName_ = nameInJson(value);
    } else if (strcmp(key, "default.audio.source") == 0) {
        self->defaultSourceName_ = nameInJson(value);
    } else {
        return 0;
    }
    self->graphChanged();
    return 0;
}

// ---------------------------------------------------------------------------------------------
// The mirror as audio objects

bool RegistryMirror::isDevice(const Node& node) const {
    if (node.name.rfind("brightwave-", 0) == 0) {
        return false;  // our own silent sinks and streams
    }
    return node.mediaClass == "Audio/Sink" || node.mediaClass == "Audio/Source" ||
           node.mediaClass == "Audio/Source/Virtual" || node.mediaClass == "Audio/Duplex";
}

AudioObjectID RegistryMirror::deviceID(const Node& node) const {
    auto it = deviceIDs_.find(node.name);
    return it == deviceIDs_.end() ? 0 : it->second;
}

const RegistryMirror::Node* RegistryMirror::deviceNode(AudioObjectID device) const {
    if (!inRange(device, kDeviceBase)) {
        return nullptr;
    }
    for (const auto& [id, node] : nodes_) {
        if (isDevice(*node) && deviceID(*node) == device) {
            return node.get();
        }
    }
    return nullptr;
}

std::vector<AudioObjectID> RegistryMirror::deviceList() const {
    std::vector<AudioObjectID> list;
    for (const auto& [id, node] : nodes_) {
        if (isDevice(*node) && deviceID(*node) != 0) {
            list.push_back(deviceID(*node));
        }
    }
    return list;
}

std::vector<AudioObjectID> RegistryMirror::processList() const {
    std::vector<AudioObjectID> list;
    for (const auto& [pid, object] : processObjects_) {
        list.push_back(object);
    }
    std::sort(list.begin(), list.end());
    return list;
}

AudioObjectID RegistryMirror::defaultDevice(bool output) const {
    const std::string& name = output ? defaultSinkName_ : defaultSourceName_;
    for (const auto& [id, node] : nodes_) {
        if (node->name == name && isDevice(*node) && (node->mediaClass == "Audio/Sink") == output) {
            return deviceID(*node);
        }
    }
    return 0;
}

std::vector<const RegistryMirror::Node*> RegistryMirror::outputStreams() const {
    std::vector<const Node*> list;
    for (const auto& [id, node] : nodes_) {
        if (isOutputStream(*node)) {
            list.push_back(node.get());
        }
    }
    return list;
}

std::int32_t RegistryMirror::pidOf(const Node& node) const {
    if (node.clientID < 0) {
        return 0;
    }
    auto client = clients_.find(std::uint32_t(node.clientID));
    return client == clients_.end() ? 0 : client->second->pid;
}

std::optional<std::int32_t> RegistryMirror::pidOfProcessObject(AudioObjectID object) const {
    for (const auto& [pid, process] : processObjects_) {
        if (process == object) {
            return pid;
        }
    }
    return std::nullopt;
}

std::optional<std::string> RegistryMirror::bundleOf(std::int32_t pid) {
    if (!bundleOfProcess_) {
        return std::nullopt;
    }
    auto it = bundleCache_.find(pid);
    if (it == bundleCache_.end()) {
        it = bundleCache_.emplace(pid, bundleOfProcess_(pid)).first;
    }
    return it->second;
}

bool RegistryMirror::processRunsOutput(std::int32_t pid) const {
    for (const auto& [id, node] : nodes_) {
        if (isOutputStream(*node) && node->running && pidOf(*node) == pid) {
            return true;
        }
    }
    return false;
}

std::vector<const RegistryMirror::Port*> RegistryMirror::portsOf(std::uint32_t nodeID, bool output,
                                                                 bool withMonitors) const {
    std::vector<const Port*> list;
    for (const auto& [id, port] : ports_) {
        if (port.nodeID == nodeID && port.output == output && (withMonitors || !port.monitor)) {
            list.push_back(&port);
        }
    }
    return list;
}

std::uint32_t RegistryMirror::deviceChannels(const Node& node, bool output) const {
    // A sink takes its channels on input ports; a source gives them on output ports (which a
    // virtual source made from a null sink flags as monitors).
    const auto count = std::uint32_t(portsOf(node.id, !output, !output).size());
    return count > 0 ? count : 2;
}

void RegistryMirror::updateProcessObjects() {
    std::set<std::int32_t> pids;
    for (const auto& [id, client] : clients_) {
        if (client->pid > 0) {
            pids.insert(client->pid);
        }
    }
    std::erase_if(processObjects_, [&](const auto& entry) { return !pids.contains(entry.first); });
    std::erase_if(bundleCache_, [&](const auto& entry) { return !pids.contains(entry.first); });
    for (std::int32_t pid : pids) {
        if (!processObjects_.contains(pid)) {
            processObjects_[pid] = nextProcessObject_++;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Changes and listeners

void RegistryMirror::graphChanged() {
    connection_.wake();
    if (!connection_.isSettled()) {
        return;
    }
    for (const auto& [id, node] : nodes_) {
        if (isDevice(*node) && !node->name.empty() && !deviceIDs_.contains(node->name)) {
            deviceIDs_[node->name] = nextDevice_++;
        }
    }
    relink_();
    announce();
}

void RegistryMirror::announce() {
    updateProcessObjects();
    auto devices = deviceList();
    if (devices != lastDevices_) {
        lastDevices_ = std::move(devices);
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
    }
    auto processes = processList();
    if (processes != lastProcesses_) {
        lastProcesses_ = std::move(processes);
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList);
    }
    if (const auto output = defaultDevice(true); output != lastDefaultOutput_) {
        lastDefaultOutput_ = output;
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
    }
    if (const auto input = defaultDevice(false); input != lastDefaultInput_) {
        lastDefaultInput_ = input;
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultInputDevice);
    }
    std::map<AudioObjectID, bool> running;
    for (const auto& [pid, object] : processObjects_) {
        running[object] = processRunsOutput(pid);
        auto last = lastRunning_.find(object);
        if (last != lastRunning_.end() && last->second != running[object]) {
            notify(object, kAudioProcessPropertyIsRunningOutput);
        }
    }
    lastRunning_ = std::move(running);
}

void RegistryMirror::addListener(AudioObjectID object, AudioObjectPropertySelector selector,
                                 std::shared_ptr<SerialQueue> queue,
                                 AudioObjectPropertyListener block) {
    listeners_.push_back(Listener{object, selector, std::move(queue), std::move(block),
                                  std::make_shared<std::atomic<bool>>(true)});
}

void RegistryMirror::removeListener(AudioObjectID object, AudioObjectPropertySelector selector,
                                    const std::shared_ptr<SerialQueue>& queue,
                                    const AudioObjectPropertyListener& block) {
    std::erase_if(listeners_, [&](const Listener& entry) {
        const bool match = entry.object == object && entry.selector == selector &&
                           entry.queue == queue && entry.block == block;
        if (match) {
            entry.active->store(false);
        }
        return match;
    });
}

void RegistryMirror::notify(AudioObjectID object, AudioObjectPropertySelector selector) {
    for (const auto& listener : listeners_) {
        if (listener.object != object || listener.selector != selector) {
            continue;
        }
        // The queue's own lock is a leaf: it is never held while another is taken.
        listener.queue->async([block = listener.block, active = listener.active, object, selector] {
            if (active->load()) {
                const AudioObjectPropertyAddress address{selector, kAudioObjectPropertyScopeGlobal,
                                                         kAudioObjectPropertyElementMain};
                (*block)(1, &address);
            }
            (void)object;
        });
    }
}

// ---------------------------------------------------------------------------------------------
// Property answers

std::optional<PropertyAnswer> RegistryMirror::answer(AudioObjectID object,
                                                     const AudioObjectPropertyAddress& address,
                                                     std::uint32_t qualifierSize,
                                                     const void* qualifier) const {
    PropertyAnswer result;
    const auto selector = address.mSelector;
    if (object == kAudioObjectSystemObject) {
        switch (selector) {
            case kAudioHardwarePropertyDevices:
                result.array(deviceList());
                return result;
            case kAudioHardwarePropertyProcessObjectList:
                result.array(processList());
                return result;
            case kAudioHardwarePropertyDefaultOutputDevice:
                result.value(defaultDevice(true));
                return result;
            case kAudioHardwarePropertyDefaultInputDevice:
                result.value(defaultDevice(false));
                return result;
            case kAudioHardwarePropertyTranslatePIDToProcessObject: {
                if (qualifierSize != sizeof(std::int32_t) || qualifier == nullptr) {
                    result.status = kAudioHardwareBadPropertySizeError;
                    return result;
                }
                std::int32_t pid = 0;
                std::memcpy(&pid, qualifier, sizeof pid);
                auto it = processObjects_.find(pid);
                result.value(it == processObjects_.end() ? AudioObjectID(0) : it->second);
                return result;
            }
            default:
                result.status = kAudioHardwareUnknownPropertyError;
                return result;
        }
    }
    if (const Node* node = deviceNode(object)) {
        const bool sink = node->mediaClass == "Audio/Sink" || node->mediaClass == "Audio/Duplex";
        const bool source = !sink || node->mediaClass == "Audio/Duplex";
        const double rate = node->rate > 0 ? node->rate : kGraphRate;
        switch (selector) {
            case kAudioDevicePropertyDeviceUID:
                result.text = node->name;
                return result;
            case kAudioObjectPropertyName:
                result.text = node->description.empty() ? node->name : node->description;
                return result;
            case kAudioDevicePropertyNominalSampleRate:
                result.value(rate);
                return result;
            case kAudioDevicePropertyStreamFormat:
                if (address.mScope == kAudioObjectPropertyScopeOutput && sink) {
                    result.value(interleavedFloat(rate, deviceChannels(*node, true)));
                } else if (address.mScope == kAudioObjectPropertyScopeInput && source) {
                    result.value(interleavedFloat(rate, deviceChannels(*node, false)));
                } else {
                    result.status = kAudioHardwareUnknownPropertyError;
                }
                return result;
            case kAudioDevicePropertyStreams: {
                std::vector<AudioObjectID> streams;
                const bool input = address.mScope == kAudioObjectPropertyScopeInput;
                if ((input && source) || (!input && sink)) {
                    for (const Port* port : portsOf(node->id, input, input)) {
                        streams.push_back(kStreamBase + port->id);
                    }
                }
                result.array(streams);
                return result;
            }
            default:
                result.status = kAudioHardwareUnknownPropertyError;
                return result;
        }
    }
    for (const auto& [pid, process] : processObjects_) {
        if (process != object) {
            continue;
        }
        if (selector == kAudioProcessPropertyPID) {
            result.value(pid);
        } else if (selector == kAudioProcessPropertyIsRunningOutput) {
            result.value(std::uint32_t(processRunsOutput(pid) ? 1 : 0));
        } else {
            result.status = kAudioHardwareUnknownPropertyError;
        }
        return result;
    }
    return std::nullopt;
}

}  // namespace bw::pipewire
