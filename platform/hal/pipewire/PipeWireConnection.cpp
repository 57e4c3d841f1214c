#include "platform/hal/pipewire/PipeWireConnection.h"

#include <unistd.h>

#include <cerrno>

#include "platform/hal/pipewire/Constants.h"
#include "platform/hal/pipewire/LoopLock.h"

namespace bw::pipewire {

namespace {

// A lost or missing server is looked for again at this pace.
constexpr auto kReconnectInterval = std::chrono::seconds(1);
// A server away longer than this takes its devices with it; a shorter outage is a gap.
constexpr auto kOutageLimit = std::chrono::seconds(5);

}  // namespace

PipeWireConnection::PipeWireConnection(Observer& observer)
    : observer_(observer), ownPID_(std::int32_t(getpid())) {
    pw_init(nullptr, nullptr);
    loop_ = pw_thread_loop_new("bw-pipewire", nullptr);
    if (loop_ == nullptr) {
        return;
    }
    context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
    started_ = context_ != nullptr && pw_thread_loop_start(loop_) >= 0;
}

PipeWireConnection::~PipeWireConnection() {
    if (loop_ == nullptr) {
        return;
    }
    pw_thread_loop_stop(loop_);
    if (context_ != nullptr) {
        pw_context_destroy(context_);
    }
    pw_thread_loop_destroy(loop_);
}

const pw_core_events& PipeWireConnection::coreEvents() {
    static const pw_core_events events = [] {
        pw_core_events e{};
        e.version = PW_VERSION_CORE_EVENTS;
        e.done = &PipeWireConnection::onCoreDone;
        e.error = &PipeWireConnection::onCoreError;
        return e;
    }();
    return events;
}

void PipeWireConnection::open() {
    if (!started_) {
        return;
    }
    LoopLock lock(loop_);
    retryTimer_ =
        pw_loop_add_timer(pw_thread_loop_get_loop(loop_), &PipeWireConnection::onRetry, this);
    if (!connect()) {
        armRetry(kReconnectInterval);  // no server yet: every operation answers with a status
        return;
    }
    roundTrip();  // the globals that exist now
    roundTrip();  // the info of the proxies bound for them
    settled_ = true;
    settleStep_ = 0;
    observer_.connectionSettled();
}

bool PipeWireConnection::connect() {
    core_ =
        pw_context_connect(context_,
                           pw_properties_new(PW_KEY_APP_NAME, "Brightwave Record", PW_KEY_APP_ID,
                                             "com.tallowfields.BrightwaveRecord", nullptr),
                           0);
    if (core_ == nullptr) {
        return false;
    }
    pw_core_add_listener(core_, &coreListener_, &coreEvents(), this);
    registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
    connected_ = true;
    settled_ = false;
    settleStep_ = 1;
    settleSequence_ = pw_core_sync(core_, PW_ID_CORE, 0);
    // What we had made on the old server is made again; links and moves follow once it settles.
    observer_.connectionMade();
    return true;
}

void PipeWireConnection::flush() {
    if (core_ != nullptr && connected_) {
        roundTrip();  // the metadata writes and destructions reach the server before we go
    }
}

void PipeWireConnection::close() {
    disconnect();
    if (retryTimer_ != nullptr) {
        pw_loop_destroy_source(pw_thread_loop_get_loop(loop_), retryTimer_);
        retryTimer_ = nullptr;
    }
}

void PipeWireConnection::disconnect() {
    if (registry_ != nullptr) {
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
        registry_ = nullptr;
    }
    if (core_ != nullptr) {
        spa_hook_remove(&coreListener_);
        pw_core_disconnect(core_);
        core_ = nullptr;
    }
}

void PipeWireConnection::teardown() {
    observer_.connectionClosing();
    disconnect();
}

void PipeWireConnection::armRetry(std::chrono::milliseconds delay) {
    timespec value{delay.count() / 1000, (delay.count() % 1000) * 1000000};
    if (delay.count() == 0) {
        value.tv_nsec = 1;  // zero would disarm the timer
    }
    pw_loop_update_timer(pw_thread_loop_get_loop(loop_), retryTimer_, &value, nullptr, false);
}

void PipeWireConnection::onRetry(void* data, std::uint64_t) {
    auto* self = static_cast<PipeWireConnection*>(data);
    if (self->core_ != nullptr && !self->connected_) {
        self->teardown();  // what was left of the lost server
    }
    if (self->core_ == nullptr && !self->connect()) {
        if (self->lostAt_ && !self->gaveUp_ &&
            std::chrono::steady_clock::now() - *self->lostAt_ >= kOutageLimit) {
            // Away too long: its devices and processes go, and what depends on them ends.
            self->gaveUp_ = true;
            self->observer_.outageOutlasted();
        }
        self->armRetry(kReconnectInterval);
    }
}

bool PipeWireConnection::waitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kServerTimeout;
    while (!condition()) {
        if (!connected_ || std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        pw_thread_loop_timed_wait(loop_, 1);
    }
    return true;
}

void PipeWireConnection::wake() {
    pw_thread_loop_signal(loop_, false);
}

std::string PipeWireConnection::nodeName(const std::string& role) {
    return "brightwave-" + role + "-" + std::to_string(ownPID_) + "-" +
           std::to_string(++streamCounter_);
}

void PipeWireConnection::roundTrip() {
    const int sequence = pw_core_sync(core_, PW_ID_CORE, 0);
    waitFor([&] { return doneSequence_ >= sequence; });
}

void PipeWireConnection::onCoreDone(void* data, std::uint32_t id, int seq) {
    auto* self = static_cast<PipeWireConnection*>(data);
    if (id != PW_ID_CORE) {
        return;
    }
    self->doneSequence_ = seq;
    if (!self->settled_ && self->settleStep_ > 0 && seq == self->settleSequence_) {
        if (self->settleStep_ == 1) {
            // The globals are here; one more trip brings the info of what we bound for them.
            self->settleStep_ = 2;
            self->settleSequence_ = pw_core_sync(self->core_, PW_ID_CORE, 0);
        } else {
            self->settleStep_ = 0;
            self->settled_ = true;
            self->lostAt_.reset();
            self->gaveUp_ = false;
            self->observer_.connectionSettled();
        }
    }
    pw_thread_loop_signal(self->loop_, false);
}

void PipeWireConnection::onCoreError(void* data, std::uint32_t id, int, int res, const char*) {
    auto* self = static_cast<PipeWireConnection*>(data);
    if (id == PW_ID_CORE && res == -EPIPE) {
        self->serverGone();
    }
}

void PipeWireConnection::serverGone() {
    // Listeners hear nothing yet: a server that is back within the outage limit leaves a gap.
    connected_ = false;
    settled_ = false;
    settleStep_ = 0;
    if (!lostAt_) {
        lostAt_ = std::chrono::steady_clock::now();
    }
    observer_.connectionLost();
    armRetry(std::chrono::milliseconds(0));  // the old connection goes outside its own callback
    pw_thread_loop_signal(loop_, false);
}

}  // namespace bw::pipewire
