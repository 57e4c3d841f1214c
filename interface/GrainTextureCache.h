#pragma once

#include <QImage>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>

#include "interface/GrainTextureKey.h"

class QSocketNotifier;

namespace bw {

/// Grain textures by pixel size, made and kept on one worker thread of their own.
///
/// Every lookup, every texture and the map itself live on the worker, one call at a time: a
/// full-window texture is never drawn on the GUI thread, and two surfaces asking for one size at
/// once get one texture made once. The map holds at most 16 sizes; asking for a 17th empties it
/// first. Images are RGBA8888 with straight alpha, exactly the bytes of `GrainPixels`.
///
/// Threads: construct, request and destroy on the GUI thread (the thread with the event loop
/// that runs the replies); the blocking calls also from other threads, never from a reply. The
/// destructor waits for a texture under way, drops the requests not yet begun and never runs
/// their replies.
class GrainTextureCache {
public:
    using Reply = std::function<void(std::optional<QImage>)>;

    GrainTextureCache();
    ~GrainTextureCache();
    GrainTextureCache(const GrainTextureCache&) = delete;
    GrainTextureCache& operator=(const GrainTextureCache&) = delete;

    /// The one cache of the program, created on first use on the GUI thread. Its worker stops
    /// when the application object is destroyed; later requests are dropped.
    static GrainTextureCache& shared();

    /// The pixel size for a size in points at a scale: the ceiling of each side times the
    /// scale, at least 1. Nothing when a number isn't finite or a side doesn't fit an `int`.
    static std::optional<GrainTextureKey> keyFor(double width, double height, double scale);

    /// The texture of a pixel size, made on the calling thread and not cached; nothing when the
    /// pixels can't be made.
    static std::optional<QImage> makeImage(int widthPixels, int heightPixels);

    /// Asks for the texture of a size in points at a scale. Returns at once; `reply` later runs
    /// on the GUI thread with the texture, or nothing when a number isn't finite or the texture
    /// can't be made (nothing is stored then). A reply that captures a widget must guard it.
    /// Should the system refuse the cache its wake-up descriptor, replies never come and panels
    /// simply stay without grain.
    void request(double width, double height, double scale, Reply reply);

    /// `request`, waiting for the answer: blocks the caller while the worker finishes what is
    /// queued before it. For tests and tools, not for the GUI thread of a running window.
    /// Nothing once the worker has stopped.
    std::optional<QImage> imageBlocking(double width, double height, double scale);

    /// The sizes now held, in no order. Blocks like `imageBlocking`.
    std::vector<GrainTextureKey> keysBlocking();

    /// Stops the worker after the texture under way; requests after this are dropped.
    void shutDown();

private:
    // Worker thread only.
    std::optional<QImage> image(double width, double height, double scale);
    void run();

    /// False (and the job dropped) once the worker has stopped.
    bool enqueue(std::function<void()> job);
    void deliverFinished();

    std::mutex lock_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;                        // under lock_
    std::deque<std::pair<Reply, std::optional<QImage>>> finished_;  // under lock_
    bool stopping_ = false;                                         // under lock_

    std::unordered_map<GrainTextureKey, QImage> images_;  // worker thread only
    // The worker wakes the GUI thread through this eventfd; the replies themselves pass through
    // lock_, so no Qt object crosses threads.
    int wakeFd_;
    QSocketNotifier* wakeNotifier_;  // GUI thread
    std::thread worker_;
};

}  // namespace bw
