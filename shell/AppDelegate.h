#pragma once

#include <functional>

namespace bw {

class AppState;

/// What closing the last window and quitting mean while a recording runs. It decides only; the
/// application object asks it and carries the answer out.
///
/// Thread: the main thread. Both methods answer at once and never block.
class AppDelegate {
public:
    enum class TerminateReply { terminateNow, terminateLater };
    /// Called with true once a deferred quit may go ahead.
    using ReplyToTerminate = std::function<void(bool shouldTerminate)>;

    /// No while a recording runs or starts, so the tray item stays the way back to it; yes
    /// otherwise, the stopping state included (the quit then waits in
    /// `applicationShouldTerminate`).
    bool applicationShouldTerminateAfterLastWindowClosed(const AppState& state) const;

    /// Idle: now. Otherwise later: a task waits for `stopForTermination`, which finishes the
    /// file however long that takes, and then calls `reply` with true whatever the stop reported.
    /// Asks the user nothing.
    TerminateReply applicationShouldTerminate(AppState& state, ReplyToTerminate reply) const;
};

}  // namespace bw
