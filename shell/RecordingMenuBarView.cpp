#include "shell/RecordingMenuBarView.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QShortcut>
#include <QVBoxLayout>

#include "app/AppState.h"
#include "app/RecordingTimer.h"
#include "shell/MenuBarLevelMeter.h"
#include "interface/SymbolImages.h"
#include "interface/Theme.h"

namespace bw {

namespace {

/// The header's 9-point lamp.
class RecordingLamp : public QWidget {
public:
    explicit RecordingLamp(QWidget* parent) : QWidget(parent) { setFixedSize(9, 9); }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(Theme::signalRed());
        painter.drawEllipse(rect());
    }
};

QFont sizedFont(const QFont& base, int pixels, QFont::Weight weight) {
    QFont font = base;
    font.setPixelSize(pixels);
    font.setWeight(weight);
    return font;
}

}  // namespace

RecordingMenuBarView::RecordingMenuBarView(AppState& state, RecordingTimer& timer,
                                           AudioLevelTracker& levels, OpenWindow openWindow,
                                           QWidget* parent)
    : QFrame(parent),
      state_(state),
      timer_(timer),
      openWindow_(std::move(openWindow)),
      time_(new QLabel(this)),
      meter_(new MenuBarLevelMeter(levels, this)),
      openButton_(new QPushButton(tr("Open Brightwave Record"), this)),
      stopButton_(new QPushButton(tr("Stop"), this)) {
    setObjectName(QStringLiteral("recordingPanel"));
    setPalette(Theme::consolePalette());
    setAutoFillBackground(true);
    setFrameShape(QFrame::StyledPanel);
    setFixedWidth(kWidth);

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(kMargin, kMargin, kMargin, kMargin);
    column->setSpacing(kRowSpacing);

    auto* header = new QHBoxLayout;
    header->setSpacing(8);
    header->addWidget(new RecordingLamp(this), 0, Qt::AlignVCenter);
    auto* title = new QLabel(tr("Recording"), this);
    title->setFont(sizedFont(font(), 13, QFont::DemiBold));
    header->addWidget(title);
    header->addStretch(1);
    time_->setFont(sizedFont(font(), 15, QFont::Medium));
    header->addWidget(time_);
    column->addLayout(header);

    column->addWidget(meter_);

    auto* actions = new QHBoxLayout;
    openButton_->setFlat(true);
    openButton_->setAutoDefault(false);
    openButton_->setFont(sizedFont(font(), 11, QFont::Normal));
    actions->addWidget(openButton_);
    actions->addStretch(1);
    stopButton_->setIcon(SymbolImages::icon(QStringLiteral("stop.fill"), Qt::white));
    stopButton_->setFont(sizedFont(font(), 11, QFont::DemiBold));
    stopButton_->setDefault(true);
    stopButton_->setStyleSheet(
        QStringLiteral("QPushButton { background: %1; color: white; border: none;"
                       " border-radius: 5px; padding: 3px 10px; }"
                       "QPushButton:pressed { background: %2; }")
            .arg(Theme::signalRed().name(), Theme::signalRed().darker(125).name()));
    actions->addWidget(stopButton_);
    column->addLayout(actions);

    // Return is the panel's default action wherever the focus is.
    for (const auto key : {Qt::Key_Return, Qt::Key_Enter}) {
        auto* shortcut = new QShortcut(QKeySequence(key), this);
        shortcut->setContext(Qt::WidgetWithChildrenShortcut);
        connect(shortcut, &QShortcut::activated, stopButton_, &QPushButton::click);
    }

    connect(openButton_, &QPushButton::clicked, this, &RecordingMenuBarView::openMainWindow);
    connect(stopButton_, &QPushButton::clicked, this, &RecordingMenuBarView::stop);
    auto showTime = [this] { time_->setText(timer_.compactElapsed()); };
    connect(&timer_, &RecordingTimer::elapsedChanged, this, showTime);
    showTime();
}

void RecordingMenuBarView::openMainWindow() {
    if (openWindow_) {
        openWindow_(QStringLiteral("main"));
    }
    emit finished();
}

void RecordingMenuBarView::stop() {
    state_.stopRecording();
    emit finished();
}

}  // namespace bw
