#include "interface/GrainTextureCache.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <cmath>
#include <cstdint>
#include <future>
#include <limits>

#include "interface/GrainPixels.h"

namespace bw {

namespace {
constexpr std::size_t kMaxEntries = 16;

std::optional<int> pixelsFor(double points, double scale) {
    const double pixels = std::ceil(points * scale);
    if (!std::isfinite(pixels) || pixels > std::numeric_limits<int>::max()) {
        return std::nullopt;
    }
    return std::max(static_cast<int>(pixels), 1);
}
}  // namespace

GrainTextureCache::GrainTextureCache()
    : wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      wakeNotifier_(new QSocketNotifier(wakeFd_, QSocketNotifier::Read)) {
    QObject::connect(wakeNotifier_, &QSocketNotifier::activated, [this] {
        std::uint64_t wakes = 0;
        if (::read(wakeFd_, &wakes, sizeof wakes) < 0) {
            // Nothing to reset: a spurious wake finds no replies either.
        }
        deliverFinished();
    });
    worker_ = std::thread([this] { run(); });
}

GrainTextureCache::~GrainTextureCache() {
    shutDown();
    delete wakeNotifier_;
    if (wakeFd_ >= 0) {
        ::close(wakeFd_);
    }
}

GrainTextureCache& GrainTextureCache::shared() {
    static GrainTextureCache* cache = [] {
        auto* created = new GrainTextureCache;
        // Stop the worker while Qt still stands; the object itself stays for late callers.
        qAddPostRoutine([] { shared().shutDown(); });
        return created;
    }();
    return *cache;
}

void GrainTextureCache::shutDown() {
    {
        std::lock_guard guard(lock_);
        stopping_ = true;
        jobs_.clear();
    }
    wake_.notify_all();
    if (worker_.joinable()) {
        worker_.join();
    }
}

std::optional<GrainTextureKey> GrainTextureCache::keyFor(double width, double height,
                                                         double scale) {
    if (!std::isfinite(width) || !std::isfinite(height) || !std::isfinite(scale)) {
        return std::nullopt;
    }
    const auto w = pixelsFor(width, scale);
    const auto h = pixelsFor(height, scale);
    if (!w || !h) {
        return std::nullopt;
    }
    return GrainTextureKey{*w, *h};
}

std::optional<QImage> GrainTextureCache::makeImage(int widthPixels, int heightPixels) {
    auto pixels = GrainPixels::make(widthPixels, heightPixels);
    if (!pixels) {
        return std::nullopt;
    }
    // The image takes over the bytes as they are, without a copy; it frees them with its last
    // reference, on whichever thread that is.
    auto* bytes = new std::vector<std::uint8_t>(std::move(pixels->bytes));
    QImage image(
        bytes->data(), widthPixels, heightPixels, qsizetype(widthPixels) * 4,
        QImage::Format_RGBA8888,
        [](void* info) { delete static_cast<std::vector<std::uint8_t>*>(info); }, bytes);
    if (image.isNull()) {
        delete bytes;
        return std::nullopt;
    }
    return image;
}

std::optional<QImage> GrainTextureCache::image(double width, double height, double scale) {
    const auto key = keyFor(width, height, scale);
    if (!key) {
        return std::nullopt;
    }
    if (const auto found = images_.find(*key); found != images_.end()) {
        return found->second;
    }
    auto made = makeImage(key->widthPixels, key->heightPixels);
    if (!made) {
        return std::nullopt;
    }
    // A full map starts afresh rather than evicting one entry.
    if (images_.size() >= kMaxEntries) {
        images_.clear();
    }
    images_.emplace(*key, *made);
    return made;
}

void GrainTextureCache::request(double width, double height, double scale, Reply reply) {
    enqueue([this, width, height, scale, reply = std::move(reply)]() mutable {
        auto result = image(width, height, scale);
        {
            std::lock_guard guard(lock_);
            finished_.emplace_back(std::move(reply), std::move(result));
        }
        const std::uint64_t one = 1;
        if (::write(wakeFd_, &one, sizeof one) < 0) {
            // Only a counter near overflow refuses, and then a wake is pending anyway.
        }
    });
}

std::optional<QImage> GrainTextureCache::imageBlocking(double width, double height, double scale) {
    std::promise<std::optional<QImage>> answer;
    auto future = answer.get_future();
    if (!enqueue([&] { answer.set_value(image(width, height, scale)); })) {
        return std::nullopt;
    }
    return future.get();
}

std::vector<GrainTextureKey> GrainTextureCache::keysBlocking() {
    std::promise<std::vector<GrainTextureKey>> answer;
    auto future = answer.get_future();
    const bool queued = enqueue([&] {
        std::vector<GrainTextureKey> keys;
        for (const auto& entry : images_) {
            keys.push_back(entry.first);
        }
        answer.set_value(std::move(keys));
    });
    return queued ? future.get() : std::vector<GrainTextureKey>{};
}

bool GrainTextureCache::enqueue(std::function<void()> job) {
    {
        std::lock_guard guard(lock_);
        if (stopping_) {
            return false;
        }
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
    return true;
}

void GrainTextureCache::run() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock guard(lock_);
            wake_.wait(guard, [this] { return stopping_ || !jobs_.empty(); });
            if (stopping_) {
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
    }
}

void GrainTextureCache::deliverFinished() {
    std::deque<std::pair<Reply, std::optional<QImage>>> ready;
    {
        std::lock_guard guard(lock_);
        ready.swap(finished_);
    }
    for (auto& [reply, image] : ready) {
        reply(std::move(image));
    }
}

}  // namespace bw
