#include "app/MainThread.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>
#include <QThread>
#include <atomic>
#include <deque>
#include <mutex>

namespace bw {

namespace {

/// Work waiting for the main thread. The work itself travels under a std::mutex and only a bare
/// wake-up goes through Qt's event queue, so the hand-over is one that ThreadSanitizer can see
/// (Qt's own queue locks are invisible to it).
class Mailbox : public QObject {
    Q_OBJECT

public:
    explicit Mailbox(QThread* mainThread) { moveToThread(mainThread); }

    void push(std::function<void()> work) {
        bool wake = false;
        {
            std::lock_guard guard(lock_);
            wake = queue_.empty();  // otherwise a wake-up is already on its way
            queue_.push_back(std::move(work));
        }
        if (wake) {
            QMetaObject::invokeMethod(this, "drain", Qt::QueuedConnection);
        }
    }

    Q_INVOKABLE void drain() {
        std::deque<std::function<void()>> batch;
        {
            std::lock_guard guard(lock_);
            batch.swap(queue_);
        }
        for (auto& work : batch) {
            work();
        }
    }

private:
    std::mutex lock_;
    std::deque<std::function<void()>> queue_;
};

// Made on the main thread when the application object is made, so that every thread that posts
// later sees a finished object.
std::atomic<Mailbox*> gMailbox{nullptr};

void createMailbox() {
    gMailbox.store(new Mailbox(QCoreApplication::instance()->thread()));  // lives to the end
}

Mailbox* mailbox() { return gMailbox.load(); }

}  // namespace

Q_COREAPP_STARTUP_FUNCTION(createMailbox)

bool MainThread::isCurrent() {
    auto* app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

void MainThread::post(std::function<void()> work) {
    if (auto* box = mailbox()) {
        box->push(std::move(work));
    }
}

}  // namespace bw

#include "MainThread.moc"
