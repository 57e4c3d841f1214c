#include "engine/CaptureClock.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace bw {

namespace {

// The most one pass renders: half of what the mix's tap holds, so a burst can't overrun it
// before its thread has had a turn.
constexpr FrameCount kMostPerPass = 16384;

}  // namespace

FrameCount CaptureClock::framesReady(std::span<const SourceState> sources, FrameCount lagLimit) {
    FrameCount lead = 0;
    FrameCount least = std::numeric_limits<FrameCount>::max();
    for (const auto& source : sources) {
        lead = std::max(lead, source.queued);
        if (!source.quiet) {
            least = std::min(least, source.queued);
        }
    }
    if (least == std::numeric_limits<FrameCount>::max()) {
        least = lead;
    }
    return std::max(least, lead > lagLimit ? lead - lagLimit : 0);
}

CaptureClock::CaptureClock(AudioEngine& engine,
                           std::vector<std::shared_ptr<AudioPlayerNode>> players,
                           std::vector<double> sourceRates, double mixRate)
    : engine_(engine), mixRate_(mixRate), lagLimit_(FrameCount(mixRate * kLagLimitSeconds)) {
    for (std::size_t i = 0; i < players.size(); ++i) {
        auto source = std::make_unique<Source>();
        source->player = std::move(players[i]);
        const double rate = i < sourceRates.size() && sourceRates[i] > 0 ? sourceRates[i] : mixRate;
        source->toMix = mixRate / rate;
        sources_.push_back(std::move(source));
    }
    states_.resize(sources_.size());
}

CaptureClock::~CaptureClock() {
    stop();
}

std::int64_t CaptureClock::nowNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void CaptureClock::start() {
    const std::int64_t now = nowNanos();
    lastProgress_.store(now);
    // A source gets `kQuietAfter` from the start to deliver before the others go on without it,
    // so sources that start together are mixed from their first buffers on.
    for (auto& source : sources_) {
        source->lastDelivery.store(now);
        source->quietAfter.store(std::chrono::nanoseconds(kQuietAfter).count());
    }
    idle_ = std::thread([this] { runIdle(); });
}

// Realtime: two atomic stores and the render hand-over.
void CaptureClock::sourceDelivered(std::size_t index, FrameCount frames) {
    if (index >= sources_.size()) {
        return;
    }
    Source& source = *sources_[index];
    const auto length = std::int64_t(double(frames) / mixRate_ * source.toMix * 1e9);
    source.quietAfter.store(
        std::max<std::int64_t>(2 * length, std::chrono::nanoseconds(kQuietAfter).count()));
    source.lastDelivery.store(nowNanos());
    request();
}

// Realtime: whoever finds nobody rendering renders; the others leave `again_` set so that the
// renderer takes one more pass before it lets go.
void CaptureClock::request() {
    again_.store(true);
    while (again_.load() && !rendering_.exchange(true)) {
        again_.store(false);
        renderReady();
        rendering_.store(false);
    }
}

// Realtime: one renderer at a time (the `rendering_` flag).
void CaptureClock::renderReady() {
    if (stopped_.load()) {
        return;
    }
    const bool draining = draining_.load();
    const std::int64_t now = nowNanos();
    bool anyFlowing = false;
    for (std::size_t i = 0; i < sources_.size(); ++i) {
        const Source& source = *sources_[i];
        const FrameCount queued = source.player->queuedFrames();
        // Draining rounds up, so that the last frames of a converted source are rendered too.
        const double exact = double(queued) * source.toMix;
        const FrameCount mixFrames = FrameCount(draining ? std::ceil(exact) : exact);
        const std::int64_t last = source.lastDelivery.load();
        const bool quiet = mixFrames == 0 && (last == 0 || now - last > source.quietAfter.load());
        states_[i] = SourceState{mixFrames, quiet};
        anyFlowing = anyFlowing || !quiet;
    }
    FrameCount frames = framesReady(states_, draining ? 0 : lagLimit_);
    if (idleDue_.exchange(false) && !anyFlowing && !draining) {
        const double quietSeconds = double(now - lastProgress_.load()) * 1e-9;
        frames = std::max(frames, FrameCount(std::max(0.0, quietSeconds) * mixRate_));
    }
    if (draining && frames == 0 && padMultiple_ > 0) {
        frames = FrameCount((padMultiple_ - rendered_.load() % padMultiple_) % padMultiple_);
    }
    frames = std::min(frames, kMostPerPass);
    if (frames > 0 && engine_.renderManually(frames)) {
        rendered_.fetch_add(frames);
        lastProgress_.store(now);
    }
}

void CaptureClock::drain(FrameCount multiple) {
    padMultiple_ = multiple;
    draining_.store(true);
    // Each pass renders at most `kMostPerPass`; the tap's thread needs its turns in between.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < deadline) {
        request();
        bool empty = multiple == 0 || rendered_.load() % multiple == 0;
        for (const auto& source : sources_) {
            empty = empty && source->player->queuedFrames() == 0;
        }
        if (empty || stopped_.load()) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void CaptureClock::stop() {
    {
        std::lock_guard lock(idleMutex_);
        idleEnding_ = true;
    }
    idleWake_.notify_all();
    if (idle_.joinable()) {
        idle_.join();
    }
    stopped_.store(true);
    while (rendering_.load()) {
        std::this_thread::yield();  // a pass that began before the flag
    }
}

void CaptureClock::runIdle() {
    std::unique_lock lock(idleMutex_);
    while (!idleEnding_) {
        idleWake_.wait_for(lock, kIdleStep);
        if (idleEnding_) {
            break;
        }
        lock.unlock();
        const auto since = std::chrono::nanoseconds(nowNanos() - lastProgress_.load());
        if (since >= kIdleStep) {
            idleDue_.store(true);
            request();
        }
        lock.lock();
    }
}

}  // namespace bw
