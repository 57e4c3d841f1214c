#include "capture/SystemAudioPermission.h"

#include <qcoro/qcorofuture.h>
#include <QFuture>
#include <QPointer>
#include <QPromise>

#include "platform/dispatch/WorkPool.h"

namespace bw {

SystemAudioPermission::SystemAudioPermission(std::shared_ptr<SystemAudioTapProbe> probe,
                                             QSettings* defaults, QObject* parent)
    : QObject(parent), probe_(std::move(probe)), defaults_(defaults) {}

bool SystemAudioPermission::attemptedBefore() const {
    return defaults_->value(kAttemptedKey, false).toBool();
}

void SystemAudioPermission::setStatus(Status status) {
    status_ = status;
    emit statusChanged();
}

QCoro::Task<void> SystemAudioPermission::request() {
    setStatus(Status::requesting);
    co_await recheck();
}

QCoro::Task<void> SystemAudioPermission::recheck() {
    QPointer<SystemAudioPermission> self(this);
    const Status result = co_await attempt(probe_);
    if (!self) {
        co_return;  // the window went away while the probe ran
    }
    setStatus(result);
    defaults_->setValue(kAttemptedKey, true);
    defaults_->sync();  // on disk now, however the program ends
}

QCoro::Task<SystemAudioPermission::Status> SystemAudioPermission::attempt(
    std::shared_ptr<SystemAudioTapProbe> probe) {
    auto promise = std::make_shared<QPromise<Status>>();
    QFuture<Status> future = promise->future();
    promise->start();
    WorkPool::shared().async([probe, promise] {
        const bool made = probe && probe->makeTap().hasValue();
        promise->addResult(made ? Status::granted : Status::denied);
        promise->finish();
    });
    co_return co_await future;
}

}  // namespace bw
