#pragma once

#include <qcoro/qcorotask.h>
#include <QImage>
#include <QObject>
#include <QString>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>

#include "app/SharedResult.h"

namespace bw {

/// The icons of application rows, kept so that a row that comes back doesn't load again and
/// so that many rows asking for one icon at once cause one load. At most 128 icons; the oldest
/// insertion goes first, whatever was read since.
///
/// Thread: the main thread; only the loader runs elsewhere, on the work pool.
class AppIconCache : public QObject {
    Q_OBJECT

public:
    static constexpr std::size_t maximumCount = 128;

    /// Finds the icon of the running application with a process id, or nothing. Runs off the
    /// main thread, possibly several at once.
    using Loader = std::function<std::optional<QImage>(std::int32_t pid)>;

    explicit AppIconCache(Loader loader, QObject* parent = nullptr);

    /// The process-wide instance over the desktop's running applications and icon theme. First
    /// use on the main thread of a QGuiApplication (it reads the desktop's theme).
    static AppIconCache& shared();

    /// The icon under `key` (the caller's choice; rows use id "|" name), loaded for `pid` when
    /// the key is new. Calls for a key that is loading wait for that load. A result of nothing
    /// is not kept, so the next call loads again. Never fails.
    QCoro::Task<std::optional<QImage>> icon(QString key, std::int32_t pid);

    std::size_t count() const { return cache_.size(); }
    bool contains(const QString& key) const { return cache_.contains(key); }
    bool isLoading(const QString& key) const { return loadingTasks_.contains(key); }
    /// The keys of the cache, oldest first.
    const std::deque<QString>& insertionOrder() const { return insertionOrder_; }

private:
    Loader loader_;
    std::map<QString, QImage> cache_;
    std::map<QString, SharedResult<std::optional<QImage>>> loadingTasks_;
    std::deque<QString> insertionOrder_;
};

}  // namespace bw
