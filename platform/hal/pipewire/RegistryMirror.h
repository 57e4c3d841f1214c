#pragma once

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/hal/PipeWireHardware.h"
#include "platform/hal/pipewire/PipeWireConnection.h"
#include "platform/hal/pipewire/PropertyAnswer.h"

namespace bw::pipewire {

/// The layer's mirror of the server's graph (audio nodes, their ports, clients, the "default"
/// metadata) and what it makes of it: devices with ids by node name that outlive a connection,
/// process objects by pid, the answers to their properties, and the property listeners with what
/// they last heard.
///
/// Owner: the hardware layer. Thread: everything with the loop lock held; registry and proxy
/// events arrive on the loop thread. Listeners run on their own queues, never under the lock. A
/// change of the graph is shown only once the connection has settled: then `relink` runs and
/// listeners hear what changed.
class RegistryMirror {
public:
    struct Node {
        RegistryMirror* owner = nullptr;
        std::uint32_t id = 0;
        std::string name;
        std::string description;
        std::string mediaClass;
        std::string linkGroup;
        std::int32_t clientID = -1;
        std::uint32_t rate = 0;
        bool running = false;
        pw_proxy* proxy = nullptr;
        spa_hook listener{};
    };
    struct Port {
        std::uint32_t id = 0;
        std::uint32_t nodeID = 0;
        bool output = false;
        bool monitor = false;
        std::string channel;
    };

    /// `bundleOfProcess` may be empty; `relink` runs at every shown change, before listeners hear.
    RegistryMirror(PipeWireConnection& connection, PipeWireHardware::BundleResolver bundleOfProcess,
                   std::function<void()> relink);
    RegistryMirror(const RegistryMirror&) = delete;
    RegistryMirror& operator=(const RegistryMirror&) = delete;

    /// Follows the registry of a new connection.
    void attach(pw_registry* registry);
    /// Stops following it; before the registry proxy goes.
    void detach();
    /// Forgets the graph and lets go of the proxies bound for it (not the device ids, nor what
    /// listeners last heard).
    void clear();

    /// The graph changed: waiters look again, and once settled, links follow and listeners hear.
    void graphChanged();
    /// Tells listeners what changed since they last heard.
    void announce();

    void addListener(AudioObjectID object, AudioObjectPropertySelector selector,
                     std::shared_ptr<SerialQueue> queue, AudioObjectPropertyListener block);
    void removeListener(AudioObjectID object, AudioObjectPropertySelector selector,
                        const std::shared_ptr<SerialQueue>& queue,
                        const AudioObjectPropertyListener& block);
    /// Queues a call of every listener of that property; calls none here.
    void notify(AudioObjectID object, AudioObjectPropertySelector selector);

    /// The answer for the system object, a device or a process object; nothing for other objects.
    std::optional<PropertyAnswer> answer(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address,
                                         std::uint32_t qualifierSize, const void* qualifier) const;

    const Node* deviceNode(AudioObjectID device) const;
    std::uint32_t deviceChannels(const Node& node, bool output) const;
    bool hasNode(std::uint32_t id) const { return nodes_.contains(id); }
    /// The audio output streams of every program, ours included, in id order.
    std::vector<const Node*> outputStreams() const;
    /// The process of a node's client; 0 when unknown.
    std::int32_t pidOf(const Node& node) const;
    /// The process a process object stands for.
    std::optional<std::int32_t> pidOfProcessObject(AudioObjectID object) const;
    /// The application a process belongs to, asked of the resolver once per process.
    std::optional<std::string> bundleOf(std::int32_t pid);
    /// A node's ports in one direction, monitors left out unless asked for.
    std::vector<const Port*> portsOf(std::uint32_t nodeID, bool output,
                                     bool withMonitors = false) const;
    const Port& port(std::uint32_t id) const { return ports_.at(id); }
    /// The "default" metadata, where streams are moved; null while the server has none.
    pw_metadata* metadata() const { return metadata_; }

private:
    struct Client {
        RegistryMirror* owner = nullptr;
        std::uint32_t id = 0;
        std::int32_t pid = 0;
        pw_proxy* proxy = nullptr;
        spa_hook listener{};
    };
    struct Listener {
        AudioObjectID object;
        AudioObjectPropertySelector selector;
        std::shared_ptr<SerialQueue> queue;
        AudioObjectPropertyListener block;
        std::shared_ptr<std::atomic<bool>> active;
    };

    static const pw_registry_events& registryEvents();
    static const pw_node_events& nodeEvents();
    static const pw_client_events& clientEvents();
    static const pw_metadata_events& metadataEvents();
    static void onGlobal(void* data, std::uint32_t id, std::uint32_t permissions, const char* type,
                         std::uint32_t version, const spa_dict* props);
    static void onGlobalRemove(void* data, std::uint32_t id);
    static void onNodeInfo(void* data, const pw_node_info* info);
    static void onClientInfo(void* data, const pw_client_info* info);
    static int onMetadataProperty(void* data, std::uint32_t subject, const char* key,
                                  const char* type, const char* value);

    bool isDevice(const Node& node) const;
    AudioObjectID deviceID(const Node& node) const;
    std::vector<AudioObjectID> deviceList() const;
    std::vector<AudioObjectID> processList() const;
    AudioObjectID defaultDevice(bool output) const;
    bool processRunsOutput(std::int32_t pid) const;
    void updateProcessObjects();

    PipeWireConnection& connection_;
    const PipeWireHardware::BundleResolver bundleOfProcess_;
    const std::function<void()> relink_;
    pw_registry* registry_ = nullptr;
    spa_hook registryListener_{};
    pw_metadata* metadata_ = nullptr;
    std::uint32_t metadataID_ = 0;
    spa_hook metadataListener_{};

    std::map<std::uint32_t, std::unique_ptr<Node>> nodes_;
    std::map<std::uint32_t, Port> ports_;
    std::map<std::uint32_t, std::unique_ptr<Client>> clients_;
    std::string defaultSinkName_;
    std::string defaultSourceName_;
    std::map<std::int32_t, AudioObjectID> processObjects_;  // pid → object, while it has clients
    AudioObjectID nextProcessObject_;
    // Device objects by node name, kept across reconnections so a device keeps its id.
    std::map<std::string, AudioObjectID> deviceIDs_;
    AudioObjectID nextDevice_;
    // The application of each process, asked once per process: the resolver reads /proc and the
    // desktop entries, too slow to repeat at every graph event.
    std::map<std::int32_t, std::optional<std::string>> bundleCache_;
    std::vector<Listener> listeners_;

    // What listeners last saw, to announce only real changes.
    std::vector<AudioObjectID> lastDevices_;
    std::vector<AudioObjectID> lastProcesses_;
    AudioObjectID lastDefaultOutput_ = 0;
    AudioObjectID lastDefaultInput_ = 0;
    std::map<AudioObjectID, bool> lastRunning_;
};

}  // namespace bw::pipewire
