#include "app/shell/MenuBarExtra.h"

#include <QCursor>
#include <QGuiApplication>
#include <QPushButton>
#include <QScreen>
#include <QSystemTrayIcon>
#include <algorithm>

#include "app/AppState.h"
#include "app/shell/MenuBarLabelView.h"
#include "app/shell/RecordingMenuBarView.h"
#include "interface/SymbolImages.h"
#include "interface/Theme.h"

namespace bw {

MenuBarExtra::MenuBarExtra(AppState& state, RecordingTimer& timer, AudioLevelTracker& levels,
                           OpenWindow openWindow, QObject* parent)
    : QObject(parent),
      state_(state),
      timer_(timer),
      levels_(levels),
      openWindow_(std::move(openWindow)) {
    connect(&state_, &AppState::isRecordingChanged, this, &MenuBarExtra::sync);
    sync();
}

MenuBarExtra::~MenuBarExtra() {
    closePanel();
}

void MenuBarExtra::sync() {
    if (state_.isRecording() && !isInserted()) {
        insert();
    } else if (!state_.isRecording() && isInserted()) {
        remove();
    }
}

void MenuBarExtra::insert() {
    label_ = std::make_unique<MenuBarLabelView>(timer_);
    trayIcon_ = std::make_unique<QSystemTrayIcon>(
        SymbolImages::icon(QStringLiteral("record.circle.fill"), Theme::signalRed()));
    connect(label_.get(), &MenuBarLabelView::textChanged, this, &MenuBarExtra::updateToolTip);
    connect(trayIcon_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason != QSystemTrayIcon::Trigger && reason != QSystemTrayIcon::Context) {
                    return;
                }
                if (panel_) {
                    closePanel();
                    return;
                }
                const QRect at = trayIcon_->geometry();
                openPanel(at.isValid() ? at.bottomLeft() : QCursor::pos());
            });
    updateToolTip();
    trayIcon_->show();
    emit insertedChanged(true);
}

void MenuBarExtra::remove() {
    closePanel();
    trayIcon_.reset();
    label_.reset();
    emit insertedChanged(false);
}

void MenuBarExtra::updateToolTip() {
    if (trayIcon_ && label_) {
        trayIcon_->setToolTip(label_->accessibleLabel());
    }
}

void MenuBarExtra::openPanel(const QPoint& anchor) {
    if (!isInserted()) {
        return;
    }
    closePanel();
    panel_ = new RecordingMenuBarView(state_, timer_, levels_, openWindow_);
    panel_->setWindowFlag(Qt::Popup);
    panel_->setAttribute(Qt::WA_DeleteOnClose);
    connect(panel_, &RecordingMenuBarView::finished, this, &MenuBarExtra::closePanel);
    panel_->adjustSize();

    // Keep the panel on the screen of the click, below it where there is room, else above.
    QRect frame(anchor, panel_->size());
    if (const QScreen* screen = QGuiApplication::screenAt(anchor)) {
        const QRect room = screen->availableGeometry();
        if (frame.bottom() > room.bottom()) {
            frame.moveBottom(anchor.y());
        }
        frame.moveLeft(std::clamp(frame.left(), room.left(), room.right() - frame.width()));
        frame.moveTop(std::max(frame.top(), room.top()));
    }
    panel_->move(frame.topLeft());
    panel_->show();
    panel_->activateWindow();
    panel_->stopButton()->setFocus();
}

RecordingMenuBarView* MenuBarExtra::panel() const {
    return panel_.data();
}

void MenuBarExtra::closePanel() {
    if (panel_) {
        panel_->close();
        panel_ = nullptr;
    }
}

}  // namespace bw
