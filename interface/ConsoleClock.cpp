#include "interface/ConsoleClock.h"

#include <QTimer>
#include <QWidget>
#include <QWindow>
#include <algorithm>

namespace bw {

namespace {

class SystemConsoleClock final : public ConsoleClock {
public:
    SystemConsoleClock() {
        frameTimer_.setSingleShot(true);
        frameTimer_.setTimerType(Qt::PreciseTimer);
        frameTimer_.setInterval(16);
        connect(&frameTimer_, &QTimer::timeout, this, &ConsoleClock::frame);
    }

    Duration now() const override {
        return std::chrono::duration_cast<Duration>(
            std::chrono::steady_clock::now().time_since_epoch());
    }

    void requestFrame() override {
        if (!frameTimer_.isActive()) {
            frameTimer_.start();
        }
    }

    void callAt(Duration deadline, QObject* context, std::function<void()> action) override {
        const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(deadline - now());
        const int ms = static_cast<int>(std::max<std::int64_t>(remaining.count(), 0));
        QTimer::singleShot(ms, Qt::PreciseTimer, context,
                           [this, deadline, context, action = std::move(action)]() mutable {
                               // A timer may fire a little early; the contract is "not before".
                               if (now() < deadline) {
                                   callAt(deadline, context, std::move(action));
                                   return;
                               }
                               action();
                           });
    }

private:
    QTimer frameTimer_;
};

}  // namespace

bool ConsoleClock::isSeen(const QWidget* widget) {
    if (!widget->isVisible()) {
        return false;
    }
    const QWindow* window = widget->window()->windowHandle();
    return window != nullptr && window->isExposed();
}

ConsoleClock* ConsoleClock::system() {
    static auto* clock = new SystemConsoleClock;
    return clock;
}

}  // namespace bw
