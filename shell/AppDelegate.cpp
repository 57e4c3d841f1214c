#include "shell/AppDelegate.h"

#include <qcoro/qcorotask.h>

#include "app/AppState.h"

namespace bw {

namespace {

QCoro::Task<void> finishThenReply(AppState& state, AppDelegate::ReplyToTerminate reply) {
    co_await state.stopForTermination();
    reply(true);
}

}  // namespace

bool AppDelegate::applicationShouldTerminateAfterLastWindowClosed(const AppState& state) const {
    return !(state.isRecording() || state.isStartingRecording());
}

AppDelegate::TerminateReply AppDelegate::applicationShouldTerminate(AppState& state,
                                                                    ReplyToTerminate reply) const {
    if (!state.isBusy()) {
        return TerminateReply::terminateNow;
    }
    finishThenReply(state, std::move(reply));
    return TerminateReply::terminateLater;
}

}  // namespace bw
