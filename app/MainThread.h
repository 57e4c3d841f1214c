#pragma once

#include <functional>

namespace bw {

/// The application's main (GUI) thread, where all application state lives.
class MainThread {
public:
    /// Whether the caller runs on the main thread (the thread of the application object).
    static bool isCurrent();

    /// Runs `work` later on the main thread, from its event loop, also when called there; work
    /// posted from one thread runs in the order posted. Any thread but a realtime one (locks
    /// briefly, allocates). Without an application object the work is dropped.
    static void post(std::function<void()> work);
};

}  // namespace bw
