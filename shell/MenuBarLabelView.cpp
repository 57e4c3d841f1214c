#include "shell/MenuBarLabelView.h"

#include "app/RecordingTimer.h"

namespace bw {

MenuBarLabelView::MenuBarLabelView(RecordingTimer& timer, QObject* parent)
    : QObject(parent), timer_(timer) {
    connect(&timer_, &RecordingTimer::elapsedChanged, this, &MenuBarLabelView::refresh);
    refresh();
}

QString MenuBarLabelView::text() const {
    return timer_.compactElapsed();
}

QString MenuBarLabelView::accessibleLabel() const {
    return tr("Brightwave Record, recording, %1").arg(text());
}

void MenuBarLabelView::refresh() {
    const QString now = text();
    if (now == shown_) {
        return;
    }
    shown_ = now;
    emit textChanged(now);
}

}  // namespace bw
