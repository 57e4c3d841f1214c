#pragma once

#include <pipewire/pipewire.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace bw::pipewire {

/// The connection to the server: the thread loop, its context, the core and the registry proxy,
/// and the way back when the server goes away. A missing or lost server is looked for once a
/// second; a new connection is "settled" once its first state has arrived (two round trips), and
/// only then shown; a server away for 5 s is given up, and its devices go.
///
/// Owner: the hardware layer, one per PipeWireHardware. Thread: construction, `open` and
/// destruction on the owner's thread with no lock held; everything else with the loop lock held
/// (the loop's own callbacks hold it). The observer is called on the loop thread, or from `open`
/// with the lock held; it must not wait for long.
class PipeWireConnection {
public:
    /// What the rest of the layer does when the connection turns. Every call holds the loop lock.
    class Observer {
    public:
        virtual ~Observer() = default;
        /// A new core and registry are here: attach to them and make again what was made before.
        virtual void connectionMade() = 0;
        /// The new connection's first state has arrived: the graph may be shown.
        virtual void connectionSettled() = 0;
        /// The server went away. The old core stays until `connectionClosing`.
        virtual void connectionLost() = 0;
        /// The old core is about to go: let go of everything made on it.
        virtual void connectionClosing() = 0;
        /// The server has stayed away longer than the outage limit.
        virtual void outageOutlasted() = 0;
    };

    /// Starts PipeWire's thread loop; connects in `open`. `observer` is called until `close`.
    explicit PipeWireConnection(Observer& observer);
    /// Stops the loop and frees it; `close` has run before.
    ~PipeWireConnection();
    PipeWireConnection(const PipeWireConnection&) = delete;
    PipeWireConnection& operator=(const PipeWireConnection&) = delete;

    /// Connects and waits (up to 3 s a round trip) for the server's first state, or arms the
    /// retry when there is no server. Takes the loop lock itself.
    void open();
    /// Waits for what was sent to reach the server, when it is there.
    void flush();
    /// Lets go of the registry proxy, the core and the retry timer, after the observer's parts.
    void close();

    /// Null when PipeWire couldn't make a loop: then nothing is ever connected. Any thread.
    pw_thread_loop* loop() const { return loop_; }
    pw_core* core() const { return core_; }
    pw_registry* registry() const { return registry_; }
    bool isConnected() const { return connected_; }
    bool isSettled() const { return settled_; }

    /// Waits until `condition` holds, with the lock let go in between; false when the server
    /// goes or 3 s pass first.
    bool waitFor(const std::function<bool()>& condition);
    /// Wakes those waiting in `waitFor` to look again.
    void wake();
    /// A fresh name for a node of ours, "brightwave-<role>-<pid>-<n>": the prefix keeps our own
    /// nodes out of the device list and out of taps.
    std::string nodeName(const std::string& role);

private:
    static const pw_core_events& coreEvents();
    static void onCoreDone(void* data, std::uint32_t id, int seq);
    static void onCoreError(void* data, std::uint32_t id, int seq, int res, const char* message);
    static void onRetry(void* data, std::uint64_t expirations);
    bool connect();
    void roundTrip();
    void serverGone();
    void teardown();
    void disconnect();
    void armRetry(std::chrono::milliseconds delay);

    Observer& observer_;
    pw_thread_loop* loop_ = nullptr;
    pw_context* context_ = nullptr;
    bool started_ = false;
    pw_core* core_ = nullptr;
    spa_hook coreListener_{};
    pw_registry* registry_ = nullptr;
    bool connected_ = false;
    int doneSequence_ = -1;
    // A new connection shows its graph only once its first state has arrived (two round trips),
    // so listeners never see a half-filled mirror of a server that came back.
    bool settled_ = false;
    int settleSequence_ = -1;
    int settleStep_ = 0;
    spa_source* retryTimer_ = nullptr;
    std::optional<std::chrono::steady_clock::time_point> lostAt_;
    bool gaveUp_ = false;  // the outage outlasted the limit: the devices are gone
    const std::int32_t ownPID_;
    int streamCounter_ = 0;
};

}  // namespace bw::pipewire
