#include "app/AppIconCache.h"

#include <QImageReader>
#include <QPointer>

#include "app/IconThemeLookup.h"
#include "app/OffMainThread.h"
#include "app/PlatformServices.h"

namespace bw {

AppIconCache::AppIconCache(Loader loader, QObject* parent)
    : QObject(parent), loader_(std::move(loader)) {}

AppIconCache& AppIconCache::shared() {
    static auto* cache = [] {
        auto workspace = PlatformServices::shared().workspace();
        auto lookup = std::make_shared<const IconThemeLookup>(IconThemeLookup::forDesktop());
        return new AppIconCache([workspace, lookup](std::int32_t pid) -> std::optional<QImage> {
            const auto application = workspace->runningApplication(pid);
            if (!application || application->iconName.empty()) {
                return std::nullopt;
            }
            return lookup->load(QString::fromStdString(application->iconName));
        });
    }();
    return *cache;
}

QCoro::Task<std::optional<QImage>> AppIconCache::icon(QString key, std::int32_t pid) {
    if (auto hit = cache_.find(key); hit != cache_.end()) {
        co_return hit->second;
    }
    if (auto loading = loadingTasks_.find(key); loading != loadingTasks_.end()) {
        const auto running = loading->second;
        co_return co_await running;
    }
    SharedResult<std::optional<QImage>> loading;
    loadingTasks_.emplace(key, loading);
    QPointer<AppIconCache> self(this);
    auto load = [loader = loader_, pid] { return loader(pid); };
    auto image = co_await runOffMainThread(std::move(load));
    if (!self) {
        loading.set(image);
        co_return image;
    }
    loadingTasks_.erase(key);
    if (image) {
        if (cache_.size() >= maximumCount && !insertionOrder_.empty()) {
            cache_.erase(insertionOrder_.front());
            insertionOrder_.pop_front();
        }
        if (cache_.emplace(key, *image).second) {
            insertionOrder_.push_back(key);
        }
    }
    loading.set(image);
    co_return image;
}

}  // namespace bw
