#include "shell/MenuBarExtra.h"

#include <QCursor>
#include <QGuiApplication>
#include <QPushButton>
#include <QScreen>
#include <algorithm>

#include "app/AppState.h"
#include "shell/MenuBarLabelView.h"
#include "shell/RecordingMenuBarView.h"
#include "shell/StatusNotifierItem.h"
#include "interface/SymbolImages.h"
#include "interface/Theme.h"

namespace bw {

MenuBarExtra::MenuBarExtra(AppState& state, RecordingTimer& timer, AudioLevelTracker& levels,
                           OpenWindow openWindow, QDBusConnection bus, QObject* parent)
    : QObject(parent),
      state_(state),
      timer_(timer),
      levels_(levels),
      openWindow_(std::move(openWindow)),
      bus_(std::move(bus)) {
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
    item_ = std::make_unique<StatusNotifierItem>(QStringLiteral("com.tallowfields.BrightwaveRecord"),
                                                 bus_);
    // "media-record" is in every freedesktop icon theme; the drawing serves hosts without one.
    item_->setIcon(QStringLiteral("media-record"),
                   SymbolImages::pixmap(QStringLiteral("record.circle.fill"), QSize(48, 48),
                                        Theme::signalRed(), 1.0)
                       .toImage());
    connect(label_.get(), &MenuBarLabelView::textChanged, this, &MenuBarExtra::updateTime);
    const auto togglePanel = [this](const QPoint& at) {
        if (panel_) {
            closePanel();
            return;
        }
        openPanel(at.isNull() ? QCursor::pos() : at);
    };
    connect(item_.get(), &StatusNotifierItem::activated, this, togglePanel);
    connect(item_.get(), &StatusNotifierItem::contextRequested, this, togglePanel);
    updateTime();
    emit insertedChanged(true);
}

void MenuBarExtra::remove() {
    closePanel();
    item_.reset();
    label_.reset();
    emit insertedChanged(false);
}

void MenuBarExtra::updateTime() {
    if (!item_ || !label_) {
        return;
    }
    const QString time = label_->text();
    const QString named = label_->accessibleLabel();
    item_->setTitle(named);
    item_->setToolTip(named, QString());
    // The guide is the widest text of the same shape, so the label keeps its width.
    QString guide = time;
    for (QChar& c : guide) {
        if (c.isDigit()) {
            c = QLatin1Char('0');
        }
    }
    item_->setLabel(time, guide);
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
