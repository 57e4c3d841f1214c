#include "interface/ManualConsoleClock.h"

#include <algorithm>

namespace bw {

ManualConsoleClock::ManualConsoleClock(QObject* parent) : ConsoleClock(parent) {}

void ManualConsoleClock::callAt(Duration deadline, QObject* context, std::function<void()> action) {
    deadlines_.emplace(deadline, Entry{QPointer<QObject>(context), std::move(action)});
}

void ManualConsoleClock::advance(Duration by, Duration frameStep) {
    const Duration end = now_ + std::max(by, Duration::zero());
    frameStep = std::max(frameStep, Duration(1));
    fireDue();
    while (now_ < end) {
        Duration next = std::min(now_ + frameStep, end);
        if (!deadlines_.empty()) {
            next = std::min(next, deadlines_.begin()->first);
        }
        now_ = std::max(next, now_ + Duration(1));
        fireDue();
        if (framePending_) {
            framePending_ = false;
            emit frame();
        }
    }
}

void ManualConsoleClock::fireDue() {
    while (!deadlines_.empty() && deadlines_.begin()->first <= now_) {
        Entry entry = std::move(deadlines_.begin()->second);
        deadlines_.erase(deadlines_.begin());
        if (entry.context) {
            entry.action();
        }
    }
}

}  // namespace bw
