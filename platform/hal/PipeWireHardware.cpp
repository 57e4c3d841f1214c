#include "platform/hal/PipeWireHardware.h"

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/utils/json.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <semaphore>
#include <set>
#include <thread>
#include <vector>

#include "platform/dispatch/SerialQueue.h"
#include "platform/hal/AudioStreamBasicDescription.h"
#include "platform/hal/AudioStringRef.h"

namespace bw {

namespace {

// Our object ids: one range per kind, so an id says what it names.
constexpr AudioObjectID kDeviceBase = 0x0100000;     // + counter, one per node name
constexpr AudioObjectID kStreamBase = 0x0200000;     // + port id ('stm#' entries)
constexpr AudioObjectID kProcessBase = 0x0300000;    // + counter
constexpr AudioObjectID kTapBase = 0x0400000;        // + counter
constexpr AudioObjectID kAggregateBase = 0x0500000;  // + counter
constexpr AudioObjectID kRangeSize = 0x0100000;

constexpr double kGraphRate = 48000.0;
constexpr auto kServerTimeout = std::chrono::seconds(3);
// A lost or missing server is looked for again at this pace.
constexpr auto kReconnectInterval = std::chrono::seconds(1);
// A server away longer than this takes its devices with it; a shorter outage is a gap.
constexpr auto kOutageLimit = std::chrono::seconds(5);
// The stand-in clock's step while the server is away: 10 ms of silence at the graph's rate.
constexpr std::uint32_t kStandInFrames = 480;

bool inRange(AudioObjectID id, AudioObjectID base) {
    return id >= base && id < base + kRangeSize;
}

AudioStreamBasicDescription interleavedFloat(double rate, std::uint32_t channels) {
    AudioStreamBasicDescription asbd;
    asbd.mSampleRate = rate;
    asbd.mFormatID = kAudioFormatLinearPCM;
    asbd.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    asbd.mBitsPerChannel = 32;
    asbd.mChannelsPerFrame = channels;
    asbd.mBytesPerFrame = 4 * channels;
    asbd.mBytesPerPacket = asbd.mBytesPerFrame;
    asbd.mFramesPerPacket = 1;
    return asbd;
}

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

// A single-producer, single-consumer ring of interleaved samples, realtime-safe on both sides.
class SampleRing {
public:
    explicit SampleRing(std::size_t capacitySamples) : data_(capacitySamples) {}
    // Realtime: copies what fits, returns the number of samples written.
    std::size_t write(const float* samples, std::size_t count) {
        const std::size_t w = write_.load(std::memory_order_relaxed);
        const std::size_t r = read_.load(std::memory_order_acquire);
        const std::size_t n = std::min(count, data_.size() - (w - r));
        for (std::size_t i = 0; i < n; ++i) {
            data_[(w + i) % data_.size()] = samples[i];
        }
        write_.store(w + n, std::memory_order_release);
        return n;
    }
    std::size_t read(float* samples, std::size_t count) {
        const std::size_t r = read_.load(std::memory_order_relaxed);
        const std::size_t w = write_.load(std::memory_order_acquire);
        const std::size_t n = std::min(count, w - r);
        for (std::size_t i = 0; i < n; ++i) {
            samples[i] = data_[(r + i) % data_.size()];
        }
        read_.store(r + n, std::memory_order_release);
        return n;
    }
    std::size_t readable() const {
        return write_.load(std::memory_order_acquire) - read_.load(std::memory_order_acquire);
    }

private:
    std::vector<float> data_;
    std::atomic<std::size_t> write_{0};
    std::atomic<std::size_t> read_{0};
};

}  // namespace

struct PipeWireHardware::Impl {
    // --- The mirror of the server's graph. Guarded by the thread loop's lock, which every
    // callback holds and every other thread takes around its reads and calls. ---

    struct Node {
        Impl* owner = nullptr;
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
    struct Client {
        Impl* owner = nullptr;
        std::uint32_t id = 0;
        std::int32_t pid = 0;
        pw_proxy* proxy = nullptr;
        spa_hook listener{};
    };

    // A pw_stream of ours: an aggregate device's capture, or an IO proc on a sink or source.
    struct Endpoint {
        Impl* owner = nullptr;
        pw_stream* stream = nullptr;
        spa_hook listener{};
        std::string name;  // node name, target and autoconnect: to make it again on a new server
        std::string target;
        bool autoconnect = false;
        bool playback = false;
        std::uint32_t channels = 2;
        double rate = kGraphRate;
        std::unique_ptr<SampleRing> ring;     // capture: realtime thread → pump
        std::counting_semaphore<> signal{0};  // capture: wakes the pump
        std::atomic<bool> consuming{false};   // capture: a started IO proc reads the ring
        std::atomic<bool> rendering{false};   // playback: the IO block may run
        AudioDeviceIOBlock block;             // playback: called on the realtime thread
        std::atomic<std::uint64_t> dropped{0};
        double sampleTime = 0;  // realtime thread, or the stand-in clock
    };

    struct Tap {
        TapDescription description;
    };
    struct Aggregate {
        AggregateDeviceDescription description;
        AudioObjectID tap = 0;
        std::shared_ptr<Endpoint> capture;
        std::map<std::pair<std::uint32_t, std::uint32_t>, pw_proxy*> links;  // (out, in) port
        std::set<std::uint32_t> mutedNodes;
    };
    struct IOProc {
        AudioObjectID device = 0;
        std::shared_ptr<SerialQueue> queue;
        AudioDeviceIOBlock block;
        std::shared_ptr<Endpoint> endpoint;  // the aggregate's capture, or a device's own stream
        bool ownsEndpoint = false;
        std::thread pump;
        std::atomic<bool> pumping{false};
        bool started = false;
    };
    struct Listener {
        AudioObjectID object;
        AudioObjectPropertySelector selector;
        std::shared_ptr<SerialQueue> queue;
        AudioObjectPropertyListener block;
        std::shared_ptr<std::atomic<bool>> active;
    };

    BundleResolver bundleOfProcess;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    spa_hook coreListener{};
    pw_registry* registry = nullptr;
    spa_hook registryListener{};
    pw_metadata* metadata = nullptr;
    std::uint32_t metadataID = 0;
    spa_hook metadataListener{};
    bool connected = false;
    int syncSequence = 0;
    int doneSequence = -1;
    // A new connection shows its graph only once its first state has arrived (two round trips),
    // so listeners never see a half-filled mirror of a server that came back.
    bool settled = false;
    int settleSequence = -1;
    int settleStep = 0;
    spa_source* retryTimer = nullptr;
    std::optional<std::chrono::steady_clock::time_point> lostAt;
    bool gaveUp = false;  // the outage outlasted kOutageLimit: the devices are gone
    // Renders silence through started playback IO procs while the server is away, so that the
    // graph they clock goes on.
    std::thread standInClock;
    std::atomic<bool> standInRunning{false};
    std::atomic<bool> standInBusy{false};
    const std::int32_t ownPID = std::int32_t(getpid());

    std::map<std::uint32_t, std::unique_ptr<Node>> nodes;
    std::map<std::uint32_t, Port> ports;
    std::map<std::uint32_t, std::unique_ptr<Client>> clients;
    std::string defaultSinkName;
    std::string defaultSourceName;
    std::map<std::int32_t, AudioObjectID> processObjects;  // pid → object, while it has clients
    // Device objects by node name, kept across reconnections so a device keeps its id.
    std::map<std::string, AudioObjectID> deviceIDs;
    AudioObjectID nextDevice = kDeviceBase + 1;
    // The application of each process, asked once per process: the resolver reads /proc and the
    // desktop entries, too slow to repeat at every graph event.
    std::map<std::int32_t, std::optional<std::string>> bundleCache;
    AudioObjectID nextProcessObject = kProcessBase + 1;
    std::map<AudioObjectID, Tap> taps;
    AudioObjectID nextTap = kTapBase + 1;
    std::map<AudioObjectID, std::unique_ptr<Aggregate>> aggregates;
    AudioObjectID nextAggregate = kAggregateBase + 1;
    std::map<AudioDeviceIOProcID, std::shared_ptr<IOProc>> procs;
    AudioDeviceIOProcID nextProc = 1;
    std::vector<Listener> listeners;
    pw_proxy* silentSink = nullptr;
    std::string silentSinkName;
    int streamCounter = 0;

    // What listeners last saw, to announce only real changes.
    std::vector<AudioObjectID> lastDevices;
    std::vector<AudioObjectID> lastProcesses;
    AudioObjectID lastDefaultOutput = 0;
    AudioObjectID lastDefaultInput = 0;
    std::map<AudioObjectID, bool> lastRunning;

    struct LoopLock {
        explicit LoopLock(pw_thread_loop* l) : loop(l) { pw_thread_loop_lock(loop); }
        ~LoopLock() { pw_thread_loop_unlock(loop); }
        pw_thread_loop* loop;
    };

    explicit Impl(BundleResolver resolver);
    ~Impl();

    // Setup and server events (loop thread).
    void roundTrip();
    static void onCoreDone(void* data, std::uint32_t id, int seq);
    static void onCoreError(void* data, std::uint32_t id, int seq, int res, const char* message);
    static void onGlobal(void* data, std::uint32_t id, std::uint32_t permissions, const char* type,
                         std::uint32_t version, const spa_dict* props);
    static void onGlobalRemove(void* data, std::uint32_t id);
    static void onNodeInfo(void* data, const pw_node_info* info);
    static void onClientInfo(void* data, const pw_client_info* info);
    static int onMetadataProperty(void* data, std::uint32_t subject, const char* key,
                                  const char* type, const char* value);
    void graphChanged();
    void announce();
    void serverGone();
    bool connect();
    void teardownConnection();
    void armRetry(std::chrono::milliseconds delay);
    static void onRetry(void* data, std::uint64_t expirations);
    void startStandInClock();
    void stopStandInClock();
    std::vector<std::shared_ptr<Endpoint>> endpoints() const;
    // The mirror as objects (loop lock held).
    bool isDevice(const Node& node) const;
    AudioObjectID deviceID(const Node& node) const;
    bool isOutputStream(const Node& node) const;
    const Node* deviceNode(AudioObjectID device) const;
    std::vector<AudioObjectID> deviceList() const;
    std::vector<AudioObjectID> processList() const;
    AudioObjectID defaultDevice(bool output) const;
    std::int32_t pidOfNode(const Node& node) const;
    bool processRunsOutput(std::int32_t pid) const;
    std::uint32_t deviceChannels(const Node& node, bool output) const;
    std::vector<const Port*> portsOf(std::uint32_t nodeID, bool output,
                                     bool withMonitors = false) const;
    void updateProcessObjects();

    // Property answers (loop lock held). A string answer or bytes, else a status.
    struct Answer {
        OSStatus status = 0;
        std::vector<std::uint8_t> bytes;
        std::optional<std::string> text;
        bool isArray = false;
    };
    Answer answer(AudioObjectID object, const AudioObjectPropertyAddress& address,
                  std::uint32_t qualifierSize, const void* qualifier) const;

    // Taps (loop lock held).
    std::set<std::uint32_t> tappedNodes(const TapDescription& description);
    void reconcileLinks();
    void reconcile(Aggregate& aggregate);
    void setTarget(std::uint32_t nodeID, const char* target);
    bool ensureSilentSink();

    // Streams.
    std::shared_ptr<Endpoint> makeEndpoint(bool playback, const std::string& name,
                                           std::uint32_t channels, double rate,
                                           const std::string& target, bool autoconnect);
    bool connectEndpoint(Endpoint& endpoint);
    void destroyEndpoint(const std::shared_ptr<Endpoint>& endpoint);
    static void onProcess(void* data);
    static void pump(const std::shared_ptr<IOProc>& proc);
    void stopProc(const std::shared_ptr<IOProc>& proc);
    bool waitFor(const std::function<bool()>& condition);
    void notify(AudioObjectID object, AudioObjectPropertySelector selector);
};

// ---------------------------------------------------------------------------------------------
// Setup and server events

namespace {

const pw_core_events& coreEvents() {
    static const pw_core_events events = [] {
        pw_core_events e{};
        e.version = PW_VERSION_CORE_EVENTS;
        e.done = &PipeWireHardware::Impl::onCoreDone;
        e.error = &PipeWireHardware::Impl::onCoreError;
        return e;
    }();
    return events;
}

const pw_registry_events& registryEvents() {
    static const pw_registry_events events = [] {
        pw_registry_events e{};
        e.version = PW_VERSION_REGISTRY_EVENTS;
        e.global = &PipeWireHardware::Impl::onGlobal;
        e.global_remove = &PipeWireHardware::Impl::onGlobalRemove;
        return e;
    }();
    return events;
}

const pw_node_events& nodeEvents() {
    static const pw_node_events events = [] {
        pw_node_events e{};
        e.version = PW_VERSION_NODE_EVENTS;
        e.info = &PipeWireHardware::Impl::onNodeInfo;
        return e;
    }();
    return events;
}

const pw_client_events& clientEvents() {
    static const pw_client_events events = [] {
        pw_client_events e{};
        e.version = PW_VERSION_CLIENT_EVENTS;
        e.info = &PipeWireHardware::Impl::onClientInfo;
        return e;
    }();
    return events;
}

const pw_metadata_events& metadataEvents() {
    static const pw_metadata_events events = [] {
        pw_metadata_events e{};
        e.version = PW_VERSION_METADATA_EVENTS;
        e.property = &PipeWireHardware::Impl::onMetadataProperty;
        return e;
    }();
    return events;
}

const pw_stream_events& streamEvents() {
    static const pw_stream_events events = [] {
        pw_stream_events e{};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.process = &PipeWireHardware::Impl::onProcess;
        return e;
    }();
    return events;
}

}  // namespace

PipeWireHardware::Impl::Impl(BundleResolver resolver) : bundleOfProcess(std::move(resolver)) {
    pw_init(nullptr, nullptr);
    silentSinkName =
        "brightwave-silence-" + std::to_string(ownPID) + "-" +
        std::to_string(std::chrono::steady_clock::now().time_since_epoch().count() % 1000000007);
    loop = pw_thread_loop_new("bw-pipewire", nullptr);
    if (loop == nullptr) {
        return;
    }
    context = pw_context_new(pw_thread_loop_get_loop(loop), nullptr, 0);
    if (context == nullptr || pw_thread_loop_start(loop) < 0) {
        return;
    }
    LoopLock lock(loop);
    retryTimer = pw_loop_add_timer(pw_thread_loop_get_loop(loop), &Impl::onRetry, this);
    if (!connect()) {
        armRetry(kReconnectInterval);  // no server yet: every operation answers with a status
        return;
    }
    roundTrip();  // the globals that exist now
    roundTrip();  // the info of the proxies bound for them
    settled = true;
    settleStep = 0;
    graphChanged();
}

bool PipeWireHardware::Impl::connect() {
    core = pw_context_connect(context,
                              pw_properties_new(PW_KEY_APP_NAME, "Brightwave Record", PW_KEY_APP_ID,
                                                "com.tallowfields.BrightwaveRecord", nullptr),
                              0);
    if (core == nullptr) {
        return false;
    }
    pw_core_add_listener(core, &coreListener, &coreEvents(), this);
    registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(registry, &registryListener, &registryEvents(), this);
    connected = true;
    settled = false;
    settleStep = 1;
    settleSequence = pw_core_sync(core, PW_ID_CORE, 0);
    // What we had made on the old server, made again; links and moves follow once it settles.
    stopStandInClock();
    for (const auto& endpoint : endpoints()) {
        connectEndpoint(*endpoint);
    }
    return true;
}

void PipeWireHardware::Impl::teardownConnection() {
    for (const auto& endpoint : endpoints()) {
        destroyEndpoint(endpoint);
    }
    for (auto& [id, aggregate] : aggregates) {
        for (auto& [key, link] : aggregate->links) {
            pw_proxy_destroy(link);
        }
        aggregate->links.clear();
        aggregate->mutedNodes.clear();  // the moves went with the old server's metadata
    }
    if (silentSink != nullptr) {
        pw_proxy_destroy(silentSink);
        silentSink = nullptr;
    }
    for (auto& [id, node] : nodes) {
        if (node->proxy != nullptr) {
            spa_hook_remove(&node->listener);
            pw_proxy_destroy(node->proxy);
        }
    }
    nodes.clear();
    ports.clear();
    for (auto& [id, client] : clients) {
        if (client->proxy != nullptr) {
            spa_hook_remove(&client->listener);
            pw_proxy_destroy(client->proxy);
        }
    }
    clients.clear();
    if (metadata != nullptr) {
        spa_hook_remove(&metadataListener);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(metadata));
        metadata = nullptr;
        metadataID = 0;
    }
    defaultSinkName.clear();
    defaultSourceName.clear();
    if (registry != nullptr) {
        spa_hook_remove(&registryListener);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
        registry = nullptr;
    }
    if (core != nullptr) {
        spa_hook_remove(&coreListener);
        pw_core_disconnect(core);
        core = nullptr;
    }
}

void PipeWireHardware::Impl::armRetry(std::chrono::milliseconds delay) {
    timespec value{delay.count() / 1000, (delay.count() % 1000) * 1000000};
    if (delay.count() == 0) {
        value.tv_nsec = 1;  // zero would disarm the timer
    }
    pw_loop_update_timer(pw_thread_loop_get_loop(loop), retryTimer, &value, nullptr, false);
}

void PipeWireHardware::Impl::onRetry(void* data, std::uint64_t) {
    auto* self = static_cast<Impl*>(data);
    if (self->core != nullptr && !self->connected) {
        self->teardownConnection();  // what was left of the lost server
    }
    if (self->core == nullptr && !self->connect()) {
        if (self->lostAt && !self->gaveUp &&
            std::chrono::steady_clock::now() - *self->lostAt >= kOutageLimit) {
            // Away too long: its devices and processes go, and what depends on them ends.
            self->gaveUp = true;
            self->stopStandInClock();
            self->announce();
        }
        self->armRetry(kReconnectInterval);
    }
}

std::vector<std::shared_ptr<PipeWireHardware::Impl::Endpoint>> PipeWireHardware::Impl::endpoints()
    const {
    std::vector<std::shared_ptr<Endpoint>> list;
    for (const auto& [id, aggregate] : aggregates) {
        if (aggregate->capture) {
            list.push_back(aggregate->capture);
        }
    }
    for (const auto& [id, proc] : procs) {
        if (proc->ownsEndpoint && proc->endpoint) {
            list.push_back(proc->endpoint);
        }
    }
    return list;
}

void PipeWireHardware::Impl::startStandInClock() {
    std::vector<std::shared_ptr<Endpoint>> playback;
    for (const auto& endpoint : endpoints()) {
        if (endpoint->playback && endpoint->rendering.load()) {
            playback.push_back(endpoint);
        }
    }
    if (playback.empty() || standInClock.joinable()) {
        return;
    }
    standInRunning.store(true);
    standInClock = std::thread([this, playback = std::move(playback)] {
        pthread_setname_np(pthread_self(), "bw-stand-in-clock");
        std::uint32_t widest = 0;
        for (const auto& endpoint : playback) {
            widest = std::max(widest, endpoint->channels);
        }
        std::vector<float> silence(std::size_t(kStandInFrames) * widest);
        auto next = std::chrono::steady_clock::now();
        while (standInRunning.load()) {
            next += std::chrono::microseconds(std::int64_t(kStandInFrames * 1e6 / kGraphRate));
            std::this_thread::sleep_until(next);
            for (const auto& endpoint : playback) {
                // Busy before the check: a stop that clears `rendering` then waits for idle
                // knows no block is running once it returns.
                standInBusy.store(true);
                if (standInRunning.load() && endpoint->rendering.load()) {
                    std::fill(silence.begin(), silence.end(), 0.0f);
                    const std::uint32_t bytes = kStandInFrames * 4 * endpoint->channels;
                    AudioBuffer audio{endpoint->channels, bytes, silence.data()};
                    AudioBufferList list{1, &audio};
                    const AudioTimeStamp now{endpoint->sampleTime, 0};
                    endpoint->block(&now, nullptr, nullptr, &list, &now);
                    endpoint->sampleTime += kStandInFrames;
                }
                standInBusy.store(false);
            }
        }
    });
}

void PipeWireHardware::Impl::stopStandInClock() {
    standInRunning.store(false);
    if (standInClock.joinable()) {
        standInClock.join();
    }
}

PipeWireHardware::Impl::~Impl() {
    if (loop == nullptr) {
        return;
    }
    stopStandInClock();
    std::vector<std::shared_ptr<IOProc>> running;
    {
        LoopLock lock(loop);
        for (auto& [id, proc] : procs) {
            running.push_back(proc);
        }
    }
    for (auto& proc : running) {
        stopProc(proc);
    }
    {
        LoopLock lock(loop);
        for (auto& [id, proc] : procs) {
            if (proc->ownsEndpoint) {
                destroyEndpoint(proc->endpoint);
            }
        }
        procs.clear();
        for (auto& [id, aggregate] : aggregates) {
            for (auto& [key, link] : aggregate->links) {
                pw_proxy_destroy(link);
            }
            for (std::uint32_t node : aggregate->mutedNodes) {
                setTarget(node, nullptr);  // the streams go back to the default output
            }
            destroyEndpoint(aggregate->capture);
        }
        aggregates.clear();
        if (silentSink != nullptr) {
            pw_proxy_destroy(silentSink);
        }
        if (core != nullptr && connected) {
            roundTrip();  // the metadata writes and destructions reach the server before we go
        }
        for (auto& [id, node] : nodes) {
            if (node->proxy != nullptr) {
                spa_hook_remove(&node->listener);
                pw_proxy_destroy(node->proxy);
            }
        }
        nodes.clear();
        for (auto& [id, client] : clients) {
            if (client->proxy != nullptr) {
                spa_hook_remove(&client->listener);
                pw_proxy_destroy(client->proxy);
            }
        }
        clients.clear();
        if (metadata != nullptr) {
            spa_hook_remove(&metadataListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(metadata));
        }
        if (registry != nullptr) {
            spa_hook_remove(&registryListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
        }
        if (core != nullptr) {
            spa_hook_remove(&coreListener);
            pw_core_disconnect(core);
        }
        if (retryTimer != nullptr) {
            pw_loop_destroy_source(pw_thread_loop_get_loop(loop), retryTimer);
        }
    }
    pw_thread_loop_stop(loop);
    if (context != nullptr) {
        pw_context_destroy(context);
    }
    pw_thread_loop_destroy(loop);
}

bool PipeWireHardware::Impl::waitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kServerTimeout;
    while (!condition()) {
        if (!connected || std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        pw_thread_loop_timed_wait(loop, 1);
    }
    return true;
}

void PipeWireHardware::Impl::roundTrip() {
    const int sequence = pw_core_sync(core, PW_ID_CORE, 0);
    waitFor([&] { return doneSequence >= sequence; });
}

void PipeWireHardware::Impl::onCoreDone(void* data, std::uint32_t id, int seq) {
    auto* self = static_cast<Impl*>(data);
    if (id != PW_ID_CORE) {
        return;
    }
    self->doneSequence = seq;
    if (!self->settled && self->settleStep > 0 && seq == self->settleSequence) {
        if (self->settleStep == 1) {
            // The globals are here; one more trip brings the info of what we bound for them.
            self->settleStep = 2;
            self->settleSequence = pw_core_sync(self->core, PW_ID_CORE, 0);
        } else {
            self->settleStep = 0;
            self->settled = true;
            self->lostAt.reset();
            self->gaveUp = false;
            self->graphChanged();
        }
    }
    pw_thread_loop_signal(self->loop, false);
}

void PipeWireHardware::Impl::onCoreError(void* data, std::uint32_t id, int, int res, const char*) {
    auto* self = static_cast<Impl*>(data);
    if (id == PW_ID_CORE && res == -EPIPE) {
        self->serverGone();
    }
}

void PipeWireHardware::Impl::serverGone() {
    // Listeners hear nothing yet: a server that is back within kOutageLimit leaves only a gap.
    connected = false;
    settled = false;
    settleStep = 0;
    if (!lostAt) {
        lostAt = std::chrono::steady_clock::now();
    }
    startStandInClock();
    armRetry(std::chrono::milliseconds(0));  // the old connection goes outside its own callback
    pw_thread_loop_signal(loop, false);
}

void PipeWireHardware::Impl::onGlobal(void* data, std::uint32_t id, std::uint32_t, const char* type,
                                      std::uint32_t, const spa_dict* props) {
    auto* self = static_cast<Impl*>(data);
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
            static_cast<pw_proxy*>(pw_registry_bind(self->registry, id, type, PW_VERSION_NODE, 0));
        if (node->proxy != nullptr) {
            pw_proxy_add_object_listener(node->proxy, &node->listener, &nodeEvents(), node.get());
        }
        self->nodes[id] = std::move(node);
    } else if (strcmp(type, PW_TYPE_INTERFACE_Port) == 0) {
        Port port;
        port.id = id;
        port.nodeID = std::uint32_t(dictInt(props, PW_KEY_NODE_ID, -1));
        port.output = dictValue(props, PW_KEY_PORT_DIRECTION) == "out";
        port.monitor = dictValue(props, PW_KEY_PORT_MONITOR) == "true";
        port.channel = dictValue(props, PW_KEY_AUDIO_CHANNEL);
        self->ports[id] = port;
    } else if (strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
        auto client = std::make_unique<Client>();
        client->owner = self;
        client->id = id;
        client->pid = dictInt(props, PW_KEY_APP_PROCESS_ID, 0);
        client->proxy = static_cast<pw_proxy*>(
            pw_registry_bind(self->registry, id, type, PW_VERSION_CLIENT, 0));
        if (client->proxy != nullptr) {
            pw_proxy_add_object_listener(client->proxy, &client->listener, &clientEvents(),
                                         client.get());
        }
        self->clients[id] = std::move(client);
    } else if (strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0) {
        if (dictValue(props, PW_KEY_METADATA_NAME) != "default" || self->metadata != nullptr) {
            return;
        }
        self->metadata = static_cast<pw_metadata*>(
            pw_registry_bind(self->registry, id, type, PW_VERSION_METADATA, 0));
        self->metadataID = id;
        if (self->metadata != nullptr) {
            pw_metadata_add_listener(self->metadata, &self->metadataListener, &metadataEvents(),
                                     self);
        }
        return;
    } else {
        return;
    }
    self->graphChanged();
}

void PipeWireHardware::Impl::onGlobalRemove(void* data, std::uint32_t id) {
    auto* self = static_cast<Impl*>(data);
    if (auto node = self->nodes.find(id); node != self->nodes.end()) {
        if (node->second->proxy != nullptr) {
            spa_hook_remove(&node->second->listener);
            pw_proxy_destroy(node->second->proxy);
        }
        self->nodes.erase(node);
    } else if (self->ports.erase(id) > 0) {
    } else if (auto client = self->clients.find(id); client != self->clients.end()) {
        if (client->second->proxy != nullptr) {
            spa_hook_remove(&client->second->listener);
            pw_proxy_destroy(client->second->proxy);
        }
        self->clients.erase(client);
    } else if (id == self->metadataID && self->metadata != nullptr) {
        spa_hook_remove(&self->metadataListener);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(self->metadata));
        self->metadata = nullptr;
        self->metadataID = 0;
    } else {
        return;
    }
    self->graphChanged();
}

void PipeWireHardware::Impl::onNodeInfo(void* data, const pw_node_info* info) {
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

void PipeWireHardware::Impl::onClientInfo(void* data, const pw_client_info* info) {
    auto* client = static_cast<Client*>(data);
    if (info->props != nullptr) {
        // Not pipewire.sec.pid: for clients of the pulse layer that is the pulse server's.
        client->pid = dictInt(info->props, PW_KEY_APP_PROCESS_ID, client->pid);
    }
    client->owner->graphChanged();
}

int PipeWireHardware::Impl::onMetadataProperty(void* data, std::uint32_t subject, const char* key,
                                               const char*, const char* value) {
    auto* self = static_cast<Impl*>(data);
    if (subject != PW_ID_CORE) {
        return 0;
    }
    if (key == nullptr) {
        self->defaultSinkName.clear();
        self->defaultSourceName.clear();
    } else if (strcmp(key, "default.audio.sink") == 0) {
        self->defaultSinkName = nameInJson(value);
    } else if (strcmp(key, "default.audio.source") == 0) {
        self->defaultSourceName = nameInJson(value);
    } else {
        return 0;
    }
    self->graphChanged();
    return 0;
}

// ---------------------------------------------------------------------------------------------
// The mirror as audio objects

bool PipeWireHardware::Impl::isDevice(const Node& node) const {
    if (node.name.rfind("brightwave-", 0) == 0) {
        return false;  // our own silent sinks and streams
    }
    return node.mediaClass == "Audio/Sink" || node.mediaClass == "Audio/Source" ||
           node.mediaClass == "Audio/Source/Virtual" || node.mediaClass == "Audio/Duplex";
}

bool PipeWireHardware::Impl::isOutputStream(const Node& node) const {
    return node.mediaClass == "Stream/Output/Audio";
}

AudioObjectID PipeWireHardware::Impl::deviceID(const Node& node) const {
    auto it = deviceIDs.find(node.name);
    return it == deviceIDs.end() ? 0 : it->second;
}

const PipeWireHardware::Impl::Node* PipeWireHardware::Impl::deviceNode(AudioObjectID device) const {
    if (!inRange(device, kDeviceBase)) {
        return nullptr;
    }
    for (const auto& [id, node] : nodes) {
        if (isDevice(*node) && deviceID(*node) == device) {
            return node.get();
        }
    }
    return nullptr;
}

std::vector<AudioObjectID> PipeWireHardware::Impl::deviceList() const {
    std::vector<AudioObjectID> list;
    for (const auto& [id, node] : nodes) {
        if (isDevice(*node) && deviceID(*node) != 0) {
            list.push_back(deviceID(*node));
        }
    }
    return list;
}

std::vector<AudioObjectID> PipeWireHardware::Impl::processList() const {
    std::vector<AudioObjectID> list;
    for (const auto& [pid, object] : processObjects) {
        list.push_back(object);
    }
    std::sort(list.begin(), list.end());
    return list;
}

AudioObjectID PipeWireHardware::Impl::defaultDevice(bool output) const {
    const std::string& name = output ? defaultSinkName : defaultSourceName;
    for (const auto& [id, node] : nodes) {
        if (node->name == name && isDevice(*node) && (node->mediaClass == "Audio/Sink") == output) {
            return deviceID(*node);
        }
    }
    return 0;
}

std::int32_t PipeWireHardware::Impl::pidOfNode(const Node& node) const {
    if (node.clientID < 0) {
        return 0;
    }
    auto client = clients.find(std::uint32_t(node.clientID));
    return client == clients.end() ? 0 : client->second->pid;
}

bool PipeWireHardware::Impl::processRunsOutput(std::int32_t pid) const {
    for (const auto& [id, node] : nodes) {
        if (isOutputStream(*node) && node->running && pidOfNode(*node) == pid) {
            return true;
        }
    }
    return false;
}

std::vector<const PipeWireHardware::Impl::Port*> PipeWireHardware::Impl::portsOf(
    std::uint32_t nodeID, bool output, bool withMonitors) const {
    std::vector<const Port*> list;
    for (const auto& [id, port] : ports) {
        if (port.nodeID == nodeID && port.output == output && (withMonitors || !port.monitor)) {
            list.push_back(&port);
        }
    }
    return list;
}

std::uint32_t PipeWireHardware::Impl::deviceChannels(const Node& node, bool output) const {
    // A sink takes its channels on input ports; a source gives them on output ports (which a
    // virtual source made from a null sink flags as monitors).
    const auto count = std::uint32_t(portsOf(node.id, !output, !output).size());
    return count > 0 ? count : 2;
}

void PipeWireHardware::Impl::updateProcessObjects() {
    std::set<std::int32_t> pids;
    for (const auto& [id, client] : clients) {
        if (client->pid > 0) {
            pids.insert(client->pid);
        }
    }
    std::erase_if(processObjects, [&](const auto& entry) { return !pids.contains(entry.first); });
    std::erase_if(bundleCache, [&](const auto& entry) { return !pids.contains(entry.first); });
    for (std::int32_t pid : pids) {
        if (!processObjects.contains(pid)) {
            processObjects[pid] = nextProcessObject++;
        }
    }
}

void PipeWireHardware::Impl::graphChanged() {
    pw_thread_loop_signal(loop, false);
    if (!settled) {
        return;
    }
    for (const auto& [id, node] : nodes) {
        if (isDevice(*node) && !node->name.empty() && !deviceIDs.contains(node->name)) {
            deviceIDs[node->name] = nextDevice++;
        }
    }
    reconcileLinks();
    announce();
}

void PipeWireHardware::Impl::announce() {
    updateProcessObjects();
    auto devices = deviceList();
    if (devices != lastDevices) {
        lastDevices = std::move(devices);
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
    }
    auto processes = processList();
    if (processes != lastProcesses) {
        lastProcesses = std::move(processes);
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList);
    }
    if (const auto output = defaultDevice(true); output != lastDefaultOutput) {
        lastDefaultOutput = output;
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
    }
    if (const auto input = defaultDevice(false); input != lastDefaultInput) {
        lastDefaultInput = input;
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultInputDevice);
    }
    std::map<AudioObjectID, bool> running;
    for (const auto& [pid, object] : processObjects) {
        running[object] = processRunsOutput(pid);
        auto last = lastRunning.find(object);
        if (last != lastRunning.end() && last->second != running[object]) {
            notify(object, kAudioProcessPropertyIsRunningOutput);
        }
    }
    lastRunning = std::move(running);
}

void PipeWireHardware::Impl::notify(AudioObjectID object, AudioObjectPropertySelector selector) {
    for (const auto& listener : listeners) {
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

PipeWireHardware::Impl::Answer PipeWireHardware::Impl::answer(
    AudioObjectID object, const AudioObjectPropertyAddress& address, std::uint32_t qualifierSize,
    const void* qualifier) const {
    Answer result;
    auto value = [&](const auto& v) {
        const auto* p = reinterpret_cast<const std::uint8_t*>(&v);
        result.bytes.assign(p, p + sizeof v);
    };
    auto array = [&](const std::vector<AudioObjectID>& list) {
        result.isArray = true;
        const auto* p = reinterpret_cast<const std::uint8_t*>(list.data());
        result.bytes.assign(p, p + list.size() * sizeof(AudioObjectID));
    };
    const auto selector = address.mSelector;
    if (object == kAudioObjectSystemObject) {
        switch (selector) {
            case kAudioHardwarePropertyDevices:
                array(deviceList());
                return result;
            case kAudioHardwarePropertyProcessObjectList:
                array(processList());
                return result;
            case kAudioHardwarePropertyDefaultOutputDevice:
                value(defaultDevice(true));
                return result;
            case kAudioHardwarePropertyDefaultInputDevice:
                value(defaultDevice(false));
                return result;
            case kAudioHardwarePropertyTranslatePIDToProcessObject: {
                if (qualifierSize != sizeof(std::int32_t) || qualifier == nullptr) {
                    result.status = kAudioHardwareBadPropertySizeError;
                    return result;
                }
                std::int32_t pid = 0;
                std::memcpy(&pid, qualifier, sizeof pid);
                auto it = processObjects.find(pid);
                value(it == processObjects.end() ? AudioObjectID(0) : it->second);
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
                value(rate);
                return result;
            case kAudioDevicePropertyStreamFormat:
                if (address.mScope == kAudioObjectPropertyScopeOutput && sink) {
                    value(interleavedFloat(rate, deviceChannels(*node, true)));
                } else if (address.mScope == kAudioObjectPropertyScopeInput && source) {
                    value(interleavedFloat(rate, deviceChannels(*node, false)));
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
                array(streams);
                return result;
            }
            default:
                result.status = kAudioHardwareUnknownPropertyError;
                return result;
        }
    }
    if (auto aggregate = aggregates.find(object); aggregate != aggregates.end()) {
        switch (selector) {
            case kAudioDevicePropertyNominalSampleRate:
                value(kGraphRate);
                return result;
            case kAudioDevicePropertyDeviceUID:
                result.text = aggregate->second->description.uid;
                return result;
            case kAudioObjectPropertyName:
                result.text = aggregate->second->description.name;
                return result;
            case kAudioDevicePropertyStreamFormat:
                value(interleavedFloat(kGraphRate, 2));
                return result;
            default:
                result.status = kAudioHardwareUnknownPropertyError;
                return result;
        }
    }
    if (taps.contains(object)) {
        if (selector == kAudioTapPropertyFormat) {
            value(interleavedFloat(kGraphRate, 2));
        } else {
            result.status = kAudioHardwareUnknownPropertyError;
        }
        return result;
    }
    for (const auto& [pid, process] : processObjects) {
        if (process != object) {
            continue;
        }
        if (selector == kAudioProcessPropertyPID) {
            value(pid);
        } else if (selector == kAudioProcessPropertyIsRunningOutput) {
            value(std::uint32_t(processRunsOutput(pid) ? 1 : 0));
        } else {
            result.status = kAudioHardwareUnknownPropertyError;
        }
        return result;
    }
    result.status = kAudioHardwareBadObjectError;
    return result;
}

// ---------------------------------------------------------------------------------------------
// Taps: links from the tapped streams into our capture streams

std::set<std::uint32_t> PipeWireHardware::Impl::tappedNodes(const TapDescription& description) {
    std::set<std::int32_t> listedPIDs;
    for (AudioObjectID object : description.processes) {
        for (const auto& [pid, process] : processObjects) {
            if (process == object) {
                listedPIDs.insert(pid);
            }
        }
    }
    auto bundleOf = [&](std::int32_t pid) -> std::optional<std::string> {
        if (description.bundleIDs.empty() || !bundleOfProcess) {
            return std::nullopt;
        }
        auto it = bundleCache.find(pid);
        if (it == bundleCache.end()) {
            it = bundleCache.emplace(pid, bundleOfProcess(pid)).first;
        }
        return it->second;
    };
    std::set<std::uint32_t> tapped;
    for (const auto& [id, node] : nodes) {
        if (!isOutputStream(*node) || node->name.rfind("brightwave-", 0) == 0) {
            continue;
        }
        const std::int32_t pid = pidOfNode(*node);
        if (pid == ownPID) {
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
                tapped.insert(id);
            }
        } else if (listed) {
            tapped.insert(id);
        }
    }
    return tapped;
}

void PipeWireHardware::Impl::reconcileLinks() {
    if (!connected) {
        return;
    }
    for (auto& [id, aggregate] : aggregates) {
        reconcile(*aggregate);
    }
}

void PipeWireHardware::Impl::reconcile(Aggregate& aggregate) {
    if (!aggregate.capture || aggregate.capture->stream == nullptr) {
        return;
    }
    const std::uint32_t captureNode = pw_stream_get_node_id(aggregate.capture->stream);
    const Port* left = nullptr;
    const Port* right = nullptr;
    for (const Port* port : portsOf(captureNode, false)) {
        if (sideOfChannel(port->channel) == 1) {
            right = port;
        } else if (left == nullptr) {
            left = port;
        }
    }
    std::set<std::pair<std::uint32_t, std::uint32_t>> desired;
    std::set<std::uint32_t> tapped;
    auto tap = taps.find(aggregate.tap);
    if (tap != taps.end() && left != nullptr && right != nullptr) {
        tapped = tappedNodes(tap->second.description);
        for (std::uint32_t node : tapped) {
            const auto outputs = portsOf(node, true);
            for (const Port* port : outputs) {
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
        const Port& output = ports.at(key.first);
        pw_properties* props = pw_properties_new(PW_KEY_OBJECT_LINGER, "false", nullptr);
        pw_properties_setf(props, PW_KEY_LINK_OUTPUT_NODE, "%u", output.nodeID);
        pw_properties_setf(props, PW_KEY_LINK_OUTPUT_PORT, "%u", key.first);
        pw_properties_setf(props, PW_KEY_LINK_INPUT_NODE, "%u", captureNode);
        pw_properties_setf(props, PW_KEY_LINK_INPUT_PORT, "%u", key.second);
        auto* link = static_cast<pw_proxy*>(pw_core_create_object(
            core, "link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, &props->dict, 0));
        pw_properties_free(props);
        if (link != nullptr) {
            aggregate.links[key] = link;
        }
    }
    // Muted when tapped: the tapped streams play into our silent sink instead of the speakers;
    // our links from their ports stay as they are.
    const bool mute = tap != taps.end() &&
                      tap->second.description.muteBehavior != TapDescription::MuteBehavior::unmuted;
    std::set<std::uint32_t> muted = mute ? tapped : std::set<std::uint32_t>{};
    if (!muted.empty() && (metadata == nullptr || !ensureSilentSink())) {
        muted.clear();  // tried again at the next change
    }
    for (std::uint32_t node : aggregate.mutedNodes) {
        if (!muted.contains(node) && nodes.contains(node)) {
            setTarget(node, nullptr);
        }
    }
    for (std::uint32_t node : muted) {
        if (!aggregate.mutedNodes.contains(node)) {
            setTarget(node, silentSinkName.c_str());
        }
    }
    aggregate.mutedNodes = std::move(muted);
}

bool PipeWireHardware::Impl::ensureSilentSink() {
    if (silentSink != nullptr) {
        return true;
    }
    pw_properties* props = pw_properties_new(
        "factory.name", "support.null-audio-sink", PW_KEY_NODE_NAME, silentSinkName.c_str(),
        PW_KEY_NODE_DESCRIPTION, "Brightwave Record (muted while recorded)", PW_KEY_MEDIA_CLASS,
        "Audio/Sink", "audio.position", "FL,FR", PW_KEY_OBJECT_LINGER, "false", PW_KEY_NODE_GROUP,
        "brightwave-recording", "node.virtual", "true",
        // It can clock the streams it silences when nothing else does, but yields to any device.
        PW_KEY_NODE_DRIVER, "true", PW_KEY_PRIORITY_DRIVER, "1", nullptr);
    silentSink = static_cast<pw_proxy*>(pw_core_create_object(
        core, "adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, &props->dict, 0));
    pw_properties_free(props);
    return silentSink != nullptr;
}

void PipeWireHardware::Impl::setTarget(std::uint32_t nodeID, const char* target) {
    if (metadata != nullptr) {
        pw_metadata_set_property(metadata, nodeID, "target.object", target ? "Spa:String" : nullptr,
                                 target);
    }
}

// ---------------------------------------------------------------------------------------------
// Streams and IO procs

std::shared_ptr<PipeWireHardware::Impl::Endpoint> PipeWireHardware::Impl::makeEndpoint(
    bool playback, const std::string& name, std::uint32_t channels, double rate,
    const std::string& target, bool autoconnect) {
    auto endpoint = std::make_shared<Endpoint>();
    endpoint->owner = this;
    endpoint->name = name;
    endpoint->target = target;
    endpoint->autoconnect = autoconnect;
    endpoint->playback = playback;
    endpoint->channels = channels;
    endpoint->rate = rate;
    if (!playback) {
        endpoint->ring =
            std::make_unique<SampleRing>(std::size_t(channels) * std::size_t(rate) * 2);
    }
    if (!connectEndpoint(*endpoint)) {
        return nullptr;
    }
    return endpoint;
}

bool PipeWireHardware::Impl::connectEndpoint(Endpoint& endpoint) {
    const bool playback = endpoint.playback;
    const bool autoconnect = endpoint.autoconnect;
    const std::uint32_t channels = endpoint.channels;
    pw_properties* props = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, playback ? "Playback" : "Capture",
        PW_KEY_MEDIA_ROLE, "Production", PW_KEY_NODE_NAME, endpoint.name.c_str(),
        PW_KEY_NODE_DESCRIPTION, "Brightwave Record", PW_KEY_APP_NAME, "Brightwave Record",
        PW_KEY_NODE_GROUP, "brightwave-recording", nullptr);
    if (!endpoint.target.empty()) {
        pw_properties_set(props, PW_KEY_TARGET_OBJECT, endpoint.target.c_str());
    }
    if (!autoconnect) {
        pw_properties_set(props, PW_KEY_NODE_AUTOCONNECT, "false");
        pw_properties_set(props, PW_KEY_NODE_WANT_DRIVER, "true");
    }
    endpoint.stream = pw_stream_new(core, endpoint.name.c_str(), props);
    if (endpoint.stream == nullptr) {
        return false;
    }
    pw_stream_add_listener(endpoint.stream, &endpoint.listener, &streamEvents(), &endpoint);
    std::uint8_t buffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.channels = channels;
    info.rate = std::uint32_t(endpoint.rate);
    if (channels == 2) {
        info.position[0] = SPA_AUDIO_CHANNEL_FL;
        info.position[1] = SPA_AUDIO_CHANNEL_FR;
    } else if (channels == 1) {
        info.position[0] = SPA_AUDIO_CHANNEL_MONO;
    } else {
        info.flags = SPA_AUDIO_FLAG_UNPOSITIONED;
    }
    const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    const auto flags = pw_stream_flags(PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS |
                                       (autoconnect ? PW_STREAM_FLAG_AUTOCONNECT : 0));
    if (pw_stream_connect(endpoint.stream, playback ? PW_DIRECTION_OUTPUT : PW_DIRECTION_INPUT,
                          PW_ID_ANY, flags, params, 1) < 0) {
        spa_hook_remove(&endpoint.listener);
        pw_stream_destroy(endpoint.stream);
        endpoint.stream = nullptr;
        return false;
    }
    return true;
}

void PipeWireHardware::Impl::destroyEndpoint(const std::shared_ptr<Endpoint>& endpoint) {
    if (endpoint && endpoint->stream != nullptr) {
        spa_hook_remove(&endpoint->listener);
        pw_stream_destroy(endpoint->stream);  // waits for the realtime thread to let go
        endpoint->stream = nullptr;
    }
}

// Realtime: runs on the stream's data thread. Capture copies into a preallocated ring and posts
// a semaphore; playback renders through the IO block (itself realtime-safe) straight into the
// buffer. Nothing here allocates, locks, logs or waits.
void PipeWireHardware::Impl::onProcess(void* data) {
    auto* endpoint = static_cast<Endpoint*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(endpoint->stream);
    if (buffer == nullptr) {
        return;
    }
    spa_data& d = buffer->buffer->datas[0];
    if (d.data != nullptr) {
        const std::uint32_t stride = 4 * endpoint->channels;
        if (endpoint->playback) {
            std::uint32_t frames = d.maxsize / stride;
            if (buffer->requested > 0) {
                frames = std::min<std::uint32_t>(frames, std::uint32_t(buffer->requested));
            }
            auto* out = static_cast<float*>(d.data);
            std::memset(out, 0, std::size_t(frames) * stride);
            if (endpoint->rendering.load(std::memory_order_acquire)) {
                AudioBuffer audio{endpoint->channels, frames * stride, out};
                AudioBufferList list{1, &audio};
                const AudioTimeStamp now{endpoint->sampleTime, 0};
                endpoint->block(&now, nullptr, nullptr, &list, &now);
            }
            endpoint->sampleTime += frames;
            d.chunk->offset = 0;
            d.chunk->stride = std::int32_t(stride);
            d.chunk->size = frames * stride;
        } else if (endpoint->consuming.load(std::memory_order_acquire)) {
            const std::uint32_t offset = std::min(d.chunk->offset, d.maxsize);
            const std::uint32_t size = std::min(d.chunk->size, d.maxsize - offset);
            const auto* in = static_cast<const float*>(SPA_PTROFF(d.data, offset, void));
            const std::size_t samples = size / 4 / endpoint->channels * endpoint->channels;
            const std::size_t written = endpoint->ring->write(in, samples);
            if (written < samples) {
                endpoint->dropped.fetch_add(samples - written, std::memory_order_relaxed);
            }
            endpoint->signal.release();
        }
    }
    pw_stream_queue_buffer(endpoint->stream, buffer);
}

void PipeWireHardware::Impl::pump(const std::shared_ptr<IOProc>& proc) {
    Endpoint& endpoint = *proc->endpoint;
    const std::uint32_t channels = endpoint.channels;
    std::vector<float> block(std::size_t(channels) * 8192);
    double sampleTime = 0;
    std::uint64_t announcedDrops = 0;
    while (proc->pumping.load()) {
        (void)endpoint.signal.try_acquire_for(std::chrono::milliseconds(50));
        if (const auto dropped = endpoint.dropped.load(std::memory_order_relaxed);
            dropped > announcedDrops) {
            // The ring was full: the reader fell behind and audio is missing.
            announcedDrops = dropped;
            LoopLock lock(endpoint.owner->loop);
            endpoint.owner->notify(proc->device, kAudioDeviceProcessorOverload);
        }
        while (proc->pumping.load()) {
            const std::size_t available = endpoint.ring->readable() / channels * channels;
            if (available == 0) {
                break;
            }
            const std::size_t count =
                endpoint.ring->read(block.data(), std::min(available, block.size()));
            AudioBuffer audio{channels, std::uint32_t(count * 4), block.data()};
            AudioBufferList list{1, &audio};
            const AudioTimeStamp now{sampleTime, 0};
            sampleTime += double(count / channels);
            proc->queue->sync([&] {
                if (proc->pumping.load()) {
                    proc->block(&now, &list, &now, nullptr, &now);
                }
            });
        }
    }
}

void PipeWireHardware::Impl::stopProc(const std::shared_ptr<IOProc>& proc) {
    if (proc->endpoint) {
        proc->endpoint->rendering.store(false);
        proc->endpoint->consuming.store(false);
    }
    while (standInBusy.load()) {
        std::this_thread::yield();  // a block the stand-in clock is in the middle of
    }
    if (proc->pumping.exchange(false) && proc->endpoint) {
        proc->endpoint->signal.release();
    }
    if (proc->pump.joinable()) {
        if (proc->queue && proc->queue->isCurrent()) {
            proc->pump.detach();  // it waits for this very queue; it ends once we return
        } else {
            proc->pump.join();
        }
    }
    proc->started = false;
}

// ---------------------------------------------------------------------------------------------
// AudioHardware

PipeWireHardware::PipeWireHardware(BundleResolver bundleOfProcess)
    : impl_(std::make_unique<Impl>(std::move(bundleOfProcess))) {}

PipeWireHardware::~PipeWireHardware() = default;

bool PipeWireHardware::isConnected() const {
    if (impl_->loop == nullptr) {
        return false;
    }
    Impl::LoopLock lock(impl_->loop);
    return impl_->connected;
}

OSStatus PipeWireHardware::getPropertyDataSize(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address,
                                               std::uint32_t qualifierSize, const void* qualifier,
                                               std::uint32_t& outSize) {
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    Impl::LoopLock lock(impl_->loop);
    if (!impl_->connected) {
        return kAudioHardwareNotRunningError;
    }
    const auto result = impl_->answer(object, address, qualifierSize, qualifier);
    if (result.status != 0) {
        return result.status;
    }
    outSize =
        result.text ? std::uint32_t(sizeof(AudioStringRef)) : std::uint32_t(result.bytes.size());
    return 0;
}

OSStatus PipeWireHardware::getPropertyData(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           std::uint32_t qualifierSize, const void* qualifier,
                                           std::uint32_t& ioSize, void* data) {
    Impl::Answer result;
    {
        if (impl_->loop == nullptr) {
            return kAudioHardwareNotRunningError;
        }
        Impl::LoopLock lock(impl_->loop);
        if (!impl_->connected) {
            return kAudioHardwareNotRunningError;
        }
        result = impl_->answer(object, address, qualifierSize, qualifier);
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
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    Impl::LoopLock lock(impl_->loop);
    if (!impl_->connected) {
        return kAudioHardwareNotRunningError;
    }
    auto tap = impl_->taps.find(object);
    if (tap == impl_->taps.end()) {
        return kAudioHardwareBadObjectError;
    }
    if (address.mSelector != kAudioTapPropertyDescription) {
        return kAudioHardwareUnknownPropertyError;
    }
    if (size != sizeof(const TapDescription*) || data == nullptr) {
        return kAudioHardwareBadPropertySizeError;
    }
    const TapDescription* description = nullptr;
    std::memcpy(&description, data, sizeof description);
    if (description == nullptr) {
        return kAudioHardwareIllegalOperationError;
    }
    tap->second.description = *description;
    impl_->reconcileLinks();
    return 0;
}

OSStatus PipeWireHardware::addPropertyListener(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address,
                                               std::shared_ptr<SerialQueue> queue,
                                               AudioObjectPropertyListener listener) {
    if (!queue || !listener) {
        return kAudioHardwareIllegalOperationError;
    }
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    Impl::LoopLock lock(impl_->loop);
    impl_->listeners.push_back(Impl::Listener{object, address.mSelector, std::move(queue),
                                              std::move(listener),
                                              std::make_shared<std::atomic<bool>>(true)});
    return 0;
}

OSStatus PipeWireHardware::removePropertyListener(AudioObjectID object,
                                                  const AudioObjectPropertyAddress& address,
                                                  const std::shared_ptr<SerialQueue>& queue,
                                                  const AudioObjectPropertyListener& listener) {
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    Impl::LoopLock lock(impl_->loop);
    std::erase_if(impl_->listeners, [&](const Impl::Listener& entry) {
        const bool match = entry.object == object && entry.selector == address.mSelector &&
                           entry.queue == queue && entry.block == listener;
        if (match) {
            entry.active->store(false);
        }
        return match;
    });
    return 0;
}

OSStatus PipeWireHardware::createProcessTap(const TapDescription& description,
                                            AudioObjectID& outTap) {
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    Impl::LoopLock lock(impl_->loop);
    if (!impl_->connected) {
        return kAudioHardwareNotRunningError;
    }
    outTap = impl_->nextTap++;
    impl_->taps[outTap] = Impl::Tap{description};
    return 0;
}

OSStatus PipeWireHardware::destroyProcessTap(AudioObjectID tap) {
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    Impl::LoopLock lock(impl_->loop);
    if (impl_->taps.erase(tap) == 0) {
        return kAudioHardwareBadObjectError;
    }
    impl_->reconcileLinks();
    return 0;
}

OSStatus PipeWireHardware::createAggregateDevice(const AggregateDeviceDescription& description,
                                                 AudioObjectID& outDevice) {
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    Impl::LoopLock lock(impl_->loop);
    if (!impl_->connected) {
        return kAudioHardwareNotRunningError;
    }
    AudioObjectID tap = 0;
    for (const auto& [id, entry] : impl_->taps) {
        if (!description.taps.empty() && entry.description.uuidString == description.taps[0].uid) {
            tap = id;
        }
    }
    if (tap == 0) {
        return kAudioHardwareBadObjectError;
    }
    auto aggregate = std::make_unique<Impl::Aggregate>();
    aggregate->description = description;
    aggregate->tap = tap;
    const std::string name = "brightwave-capture-" + std::to_string(impl_->ownPID) + "-" +
                             std::to_string(++impl_->streamCounter);
    aggregate->capture = impl_->makeEndpoint(false, name, 2, kGraphRate, "", false);
    if (!aggregate->capture) {
        return kAudioHardwareUnspecifiedError;
    }
    Impl::Endpoint* capture = aggregate->capture.get();
    // Links need the capture's input ports: wait until the server has shown them.
    const bool ready = impl_->waitFor([&] {
        const std::uint32_t node = pw_stream_get_node_id(capture->stream);
        return node != SPA_ID_INVALID && impl_->portsOf(node, false).size() >= 2;
    });
    if (!ready) {
        impl_->destroyEndpoint(aggregate->capture);
        return impl_->connected ? kAudioHardwareUnspecifiedError : kAudioHardwareNotRunningError;
    }
    outDevice = impl_->nextAggregate++;
    impl_->reconcile(*aggregate);
    impl_->aggregates[outDevice] = std::move(aggregate);
    return 0;
}

OSStatus PipeWireHardware::destroyAggregateDevice(AudioObjectID device) {
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    std::vector<std::shared_ptr<Impl::IOProc>> orphans;
    {
        Impl::LoopLock lock(impl_->loop);
        for (auto it = impl_->procs.begin(); it != impl_->procs.end();) {
            if (it->second->device == device) {
                orphans.push_back(it->second);
                it = impl_->procs.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& proc : orphans) {
        impl_->stopProc(proc);
    }
    Impl::LoopLock lock(impl_->loop);
    auto it = impl_->aggregates.find(device);
    if (it == impl_->aggregates.end()) {
        return kAudioHardwareBadObjectError;
    }
    auto& aggregate = *it->second;
    for (auto& [key, link] : aggregate.links) {
        pw_proxy_destroy(link);
    }
    for (std::uint32_t node : aggregate.mutedNodes) {
        impl_->setTarget(node, nullptr);
    }
    impl_->destroyEndpoint(aggregate.capture);
    impl_->aggregates.erase(it);
    return 0;
}

OSStatus PipeWireHardware::createIOProcID(AudioObjectID device, std::shared_ptr<SerialQueue> queue,
                                          AudioDeviceIOBlock block,
                                          AudioDeviceIOProcID& outProcID) {
    if (!block) {
        return kAudioHardwareIllegalOperationError;
    }
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    Impl::LoopLock lock(impl_->loop);
    if (!impl_->connected) {
        return kAudioHardwareNotRunningError;
    }
    auto proc = std::make_shared<Impl::IOProc>();
    proc->device = device;
    proc->block = std::move(block);
    proc->queue = std::move(queue);
    if (auto aggregate = impl_->aggregates.find(device); aggregate != impl_->aggregates.end()) {
        proc->endpoint = aggregate->second->capture;
    } else if (const Impl::Node* node = impl_->deviceNode(device)) {
        const bool sink = node->mediaClass == "Audio/Sink";
        const std::string name = std::string(sink ? "brightwave-output-" : "brightwave-input-") +
                                 std::to_string(impl_->ownPID) + "-" +
                                 std::to_string(++impl_->streamCounter);
        proc->endpoint =
            impl_->makeEndpoint(sink, name, impl_->deviceChannels(*node, sink),
                                node->rate > 0 ? node->rate : kGraphRate, node->name, true);
        proc->ownsEndpoint = true;
        if (!proc->endpoint) {
            return kAudioHardwareUnspecifiedError;
        }
    } else {
        return kAudioHardwareBadObjectError;
    }
    if (!proc->endpoint->playback && !proc->queue) {
        proc->queue = std::make_shared<SerialQueue>("com.tallowfields.BrightwaveRecord.device-io");
    }
    outProcID = impl_->nextProc++;
    impl_->procs[outProcID] = std::move(proc);
    return 0;
}

OSStatus PipeWireHardware::deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    Impl::LoopLock lock(impl_->loop);
    if (!impl_->connected) {
        return kAudioHardwareNotRunningError;
    }
    auto it = impl_->procs.find(procID);
    if (it == impl_->procs.end() || it->second->device != device) {
        return kAudioHardwareBadObjectError;
    }
    auto proc = it->second;
    if (proc->started) {
        return 0;
    }
    proc->started = true;
    if (proc->endpoint->playback) {
        proc->endpoint->block = proc->block;
        proc->endpoint->rendering.store(true, std::memory_order_release);
    } else {
        proc->pumping.store(true);
        proc->endpoint->consuming.store(true, std::memory_order_release);
        proc->pump = std::thread([proc] {
            pthread_setname_np(pthread_self(), "bw-device-io");
            Impl::pump(proc);
        });
    }
    return 0;
}

OSStatus PipeWireHardware::deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    std::shared_ptr<Impl::IOProc> proc;
    {
        Impl::LoopLock lock(impl_->loop);
        auto it = impl_->procs.find(procID);
        if (it == impl_->procs.end() || it->second->device != device) {
            return kAudioHardwareBadObjectError;
        }
        proc = it->second;
    }
    impl_->stopProc(proc);
    return 0;
}

OSStatus PipeWireHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (impl_->loop == nullptr) {
        return kAudioHardwareNotRunningError;
    }
    std::shared_ptr<Impl::IOProc> proc;
    {
        Impl::LoopLock lock(impl_->loop);
        auto it = impl_->procs.find(procID);
        if (it == impl_->procs.end() || it->second->device != device) {
            return kAudioHardwareBadObjectError;
        }
        proc = it->second;
        impl_->procs.erase(it);
    }
    impl_->stopProc(proc);
    if (proc->ownsEndpoint) {
        Impl::LoopLock lock(impl_->loop);
        impl_->destroyEndpoint(proc->endpoint);
    }
    return 0;
}

}  // namespace bw
