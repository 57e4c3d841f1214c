#include "interface/OnboardingView.h"

#include <QCloseEvent>
#include <QGraphicsOpacityEffect>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QProgressBar>
#include <QPushButton>
#include <QShowEvent>
#include <QStackedWidget>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

#include "app/OnboardingController.h"
#include "interface/ArmIndicator.h"
#include "interface/ConsoleSurface.h"
#include "interface/RecordButton.h"
#include "interface/SegmentedMeter.h"
#include "interface/SymbolView.h"
#include "interface/Theme.h"

namespace bw {

namespace {

using Status = SystemAudioPermission::Status;

constexpr Spring kStepSpring{0.35, 0.8, 0.0};
constexpr int kIllustrationWidth = 44;
constexpr double kRecordKeyScale = 0.62;

QString rgba(const QColor& color) {
    return QStringLiteral("rgba(%1, %2, %3, %4)")
        .arg(color.red())
        .arg(color.green())
        .arg(color.blue())
        .arg(color.alpha());
}

void setTextColor(QWidget* widget, const QColor& color) {
    QPalette palette = widget->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        palette.setColor(group, QPalette::WindowText, color);
    }
    widget->setPalette(palette);
}

QLabel* text(const QString& content, const QFont& font, bool secondary, QWidget* parent,
             Qt::Alignment alignment = Qt::AlignHCenter) {
    auto* label = new QLabel(content, parent);
    label->setFont(font);
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    label->setAlignment(alignment | Qt::AlignTop);
    if (secondary) {
        setTextColor(label, Theme::secondary(Theme::consolePalette()));
    }
    return label;
}

// The bordered buttons of the navigation row, in the console's colours.
QPushButton* navigationButton(const QString& title, QWidget* parent) {
    auto* button = new QPushButton(title, parent);
    const QColor label = Theme::primary(Theme::consolePalette());
    button->setStyleSheet(
        QStringLiteral("QPushButton { color: %1; background: %2; border: 1px solid %3;"
                       " border-radius: 7px; padding: 6px 18px; font-size: 13px; }"
                       "QPushButton:hover { background: %4; }"
                       "QPushButton:pressed { background: %5; }"
                       "QPushButton:disabled { color: %6; }")
            .arg(rgba(label), rgba(Theme::withOpacity(Qt::white, 0.08)),
                 rgba(Theme::withOpacity(Qt::white, 0.14)),
                 rgba(Theme::withOpacity(Qt::white, 0.13)),
                 rgba(Theme::withOpacity(Qt::white, 0.04)), rgba(Theme::withOpacity(label, 0.35))));
    button->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    return button;
}

// A filled amber button: the step's main action.
QPushButton* prominentButton(const QString& title, const QFont& font, int horizontalPadding,
                             int verticalPadding, QWidget* parent) {
    auto* button = new QPushButton(title, parent);
    button->setFont(font);
    const QColor amber = Theme::consoleAmber();
    button->setStyleSheet(QStringLiteral("QPushButton { color: %1; background: %2; border: none;"
                                         " border-radius: 8px; padding: %3px %4px; }"
                                         "QPushButton:hover { background: %5; }"
                                         "QPushButton:pressed { background: %6; }")
                              .arg(rgba(QColor(34, 24, 8)), rgba(amber))
                              .arg(verticalPadding + 2)
                              .arg(horizontalPadding)
                              .arg(rgba(amber.lighter(108)), rgba(amber.darker(115))));
    button->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    return button;
}

// The row of step dots: the current one amber, the others faint white.
class StepDots : public QWidget {
public:
    static constexpr int side = 7;
    static constexpr int spacing = 7;

    StepDots(int count, QWidget* parent) : QWidget(parent), count_(count) {
        setFixedSize(count * side + (count - 1) * spacing, side);
    }

    void setCurrent(int current) {
        current_ = current;
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        for (int i = 0; i < count_; ++i) {
            painter.setBrush(i == current_ ? Theme::consoleAmber()
                                           : Theme::withOpacity(Qt::white, 0.18));
            painter.drawEllipse(QRectF(i * (side + spacing), 0, side, side));
        }
    }

private:
    int count_;
    int current_ = 0;
};

// The record key as an illustration: a real key, ready and enabled, drawn at 0.62 of its size.
// It takes no clicks; its picture is taken once per screen scale, never while painting (a grab
// inside a paint would nest two painters on the window).
class ScaledRecordKey : public QWidget {
public:
    explicit ScaledRecordKey(ConsoleClock* clock, QWidget* parent) : QWidget(parent) {
        key_.setClock(clock);
        key_.setKeyEnabled(true);
        key_.setRecording(false);
        key_.resize(key_.sizeHint());
        const QSizeF scaled = QSizeF(key_.size()) * kRecordKeyScale;
        setFixedSize(kIllustrationWidth, static_cast<int>(std::ceil(scaled.height())));
        setAttribute(Qt::WA_TransparentForMouseEvents);
    }

protected:
    void showEvent(QShowEvent* event) override {
        takePicture();
        QWidget::showEvent(event);
    }

    void paintEvent(QPaintEvent*) override {
        if (picture_.devicePixelRatio() != devicePixelRatioF()) {
            // Moved to a screen of another scale: a sharp picture a moment later.
            QTimer::singleShot(0, this, [this] {
                takePicture();
                update();
            });
        }
        QPainter painter(this);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        const QSizeF scaled = QSizeF(key_.size()) * kRecordKeyScale;
        painter.drawPixmap(QRectF(QPointF((width() - scaled.width()) / 2, 0), scaled), picture_,
                           QRectF(picture_.rect()));
    }

private:
    void takePicture() {
        if (picture_.isNull() || picture_.devicePixelRatio() != devicePixelRatioF()) {
            // The key alone, without its window background: without a parent its glow has no
            // panel to light.
            picture_ = QPixmap(key_.size() * devicePixelRatioF());
            picture_.setDevicePixelRatio(devicePixelRatioF());
            picture_.fill(Qt::transparent);
            key_.render(&picture_, QPoint(), QRegion(), QWidget::DrawChildren);
        }
    }

    RecordButton key_;
    QPixmap picture_;
};

// One row of the second step: an illustration in a 44-point column beside a title and a text.
QWidget* explainedRow(QWidget* illustration, const QString& title, const QString& body,
                      QWidget* parent) {
    auto* row = new QWidget(parent);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(16);
    auto* frame = new QWidget(row);
    frame->setFixedWidth(kIllustrationWidth);
    auto* frameLayout = new QVBoxLayout(frame);
    frameLayout->setContentsMargins(0, 2, 0, 0);
    illustration->setParent(frame);
    frameLayout->addWidget(illustration, 0, Qt::AlignHCenter | Qt::AlignTop);
    frameLayout->addStretch(1);
    layout->addWidget(frame);
    auto* column = new QVBoxLayout;
    column->setSpacing(4);
    column->addWidget(text(title, Theme::headlineFont(), false, row, Qt::AlignLeft));
    column->addWidget(text(body, Theme::bodyFont(), true, row, Qt::AlignLeft));
    column->addStretch(1);
    layout->addLayout(column, 1);
    return row;
}

QVBoxLayout* centredColumn(QWidget* page, int spacing, int horizontalPadding) {
    auto* column = new QVBoxLayout(page);
    column->setContentsMargins(horizontalPadding, 0, horizontalPadding, 0);
    column->setSpacing(spacing);
    return column;
}

}  // namespace

OnboardingView::OnboardingView(OnboardingController& controller, ConsoleClock* clock,
                               QWidget* parent)
    : QWidget(parent),
      controller_(controller),
      clock_(clock != nullptr ? clock : ConsoleClock::system()) {
    setFixedSize(fixedWidth, fixedHeight);
    setPalette(Theme::consolePalette());
    setAutoFillBackground(true);

    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* surface = new ConsoleSurface(this);
    outer->addWidget(surface);

    auto* column = new QVBoxLayout(surface);
    column->setContentsMargins(28, 28, 28, 28);
    column->setSpacing(0);
    pages_ = new QStackedWidget(surface);
    pages_->addWidget(buildWelcomePage());
    pages_->addWidget(buildHowItWorksPage());
    pages_->addWidget(buildPermissionPage());
    pages_->addWidget(buildReadyPage());
    pageOpacity_ = new QGraphicsOpacityEffect(pages_);
    pageOpacity_->setEnabled(false);
    pages_->setGraphicsEffect(pageOpacity_);
    column->addWidget(pages_, 1);
    column->addWidget(buildNavigation());

    connect(&controller_, &OnboardingController::permissionStatusChanged, this,
            &OnboardingView::updatePermission);
    connect(clock_, &ConsoleClock::frame, this, &OnboardingView::advanceFade);
    updatePermission();
    updateNavigation();
}

OnboardingView::~OnboardingView() {
    controller_.setPermissionStepShown(false);
    if (shown_) {
        controller_.markCompleted();
    }
}

QWidget* OnboardingView::buildWelcomePage() {
    auto* page = new QWidget;
    auto* column = centredColumn(page, 18, 12);
    column->addStretch(1);
    column->addWidget(new SymbolView("waveform.circle.fill", Theme::consoleAmber(), 72, page), 0,
                      Qt::AlignHCenter);
    QFont name = Theme::title3Font(QFont::DemiBold);
    name.setLetterSpacing(QFont::AbsoluteSpacing, 3);
    name.setCapitalization(QFont::AllUppercase);
    column->addWidget(text(QStringLiteral("Brightwave Record"), name, true, page));
    column->addWidget(text(tr("Record any audio on your computer"),
                           Theme::largeTitleFont(QFont::DemiBold), false, page));
    column->addWidget(text(
        tr("Capture everything you hear, a single app, or a microphone — mixed into one file."),
        Theme::title3Font(), true, page));
    column->addStretch(1);
    return page;
}

QWidget* OnboardingView::buildHowItWorksPage() {
    auto* page = new QWidget;
    auto* column = centredColumn(page, 28, 8);
    column->addStretch(1);
    column->addWidget(
        text(tr("How it works"), Theme::largeTitleFont(QFont::DemiBold), false, page));

    auto* lamp = new ArmIndicator;
    lamp->setClock(clock_);
    lamp->setArmed(true);
    lamp->setRecording(false);
    column->addWidget(explainedRow(lamp, tr("Tick what you want to record"),
                                   tr("Choose System Audio or one or more apps, then add any "
                                      "microphones you want mixed in."),
                                   page));
    column->addWidget(explainedRow(new ScaledRecordKey(clock_, nullptr), tr("Press Record"),
                                   tr("One button starts and stops. While recording, a timer in "
                                      "the system tray lets you stop from anywhere."),
                                   page));
    demoMeter_ = new SegmentedMeter;
    demoMeter_->setClock(clock_);
    demoMeter_->setFixedWidth(kIllustrationWidth);
    column->addWidget(explainedRow(demoMeter_, tr("Watch your levels"),
                                   tr("The meter shows what's being captured. Your file is saved "
                                      "automatically when you stop."),
                                   page));
    column->addStretch(1);
    return page;
}

QWidget* OnboardingView::buildPermissionPage() {
    auto* page = new QWidget;
    auto* column = centredColumn(page, 18, 12);
    column->addStretch(1);
    permissionSymbol_ =
        new SymbolView("speaker.wave.2.circle.fill", Theme::consoleAmber(), 64, page);
    column->addWidget(permissionSymbol_, 0, Qt::AlignHCenter);
    column->addWidget(
        text(tr("Allow audio recording"), Theme::largeTitleFont(QFont::DemiBold), false, page));
    permissionText_ = text(QString(), Theme::title3Font(), true, page);
    column->addWidget(permissionText_);

    allow_ = prominentButton(tr("Allow Access"), Theme::title3Font(QFont::DemiBold), 24, 6, page);
    allow_->setDefault(true);
    connect(allow_, &QPushButton::clicked, this, [this] { controller_.requestPermission(); });
    column->addWidget(allow_, 0, Qt::AlignHCenter);

    requesting_ = new QProgressBar(page);
    requesting_->setRange(0, 0);
    requesting_->setTextVisible(false);
    requesting_->setFixedSize(96, 6);
    requesting_->setAccessibleName(tr("Waiting for permission"));
    requesting_->setStyleSheet(
        QStringLiteral("QProgressBar { background: %1; border: none; border-radius: 3px; }"
                       "QProgressBar::chunk { background: %2; border-radius: 3px; }")
            .arg(rgba(Theme::withOpacity(Qt::white, 0.12)), rgba(Theme::consoleAmber())));
    column->addWidget(requesting_, 0, Qt::AlignHCenter);

    openSettingsButton_ =
        prominentButton(tr("Open Sound Settings"), Theme::bodyFont(), 14, 3, page);
    connect(openSettingsButton_, &QPushButton::clicked, this,
            [this] { controller_.openSoundSettings(); });
    column->addWidget(openSettingsButton_, 0, Qt::AlignHCenter);
    column->addStretch(1);
    return page;
}

QWidget* OnboardingView::buildReadyPage() {
    auto* page = new QWidget;
    auto* column = centredColumn(page, 18, 12);
    column->addStretch(1);
    column->addWidget(new SymbolView("record.circle", Theme::signalRed(), 72, page), 0,
                      Qt::AlignHCenter);
    column->addWidget(
        text(tr("You're ready to record"), Theme::largeTitleFont(QFont::DemiBold), false, page));
    readyText_ = text(QString(), Theme::title3Font(), true, page);
    column->addWidget(readyText_);
    start_ = prominentButton(tr("Start Using Brightwave Record"),
                             Theme::title3Font(QFont::DemiBold), 24, 6, page);
    start_->setDefault(true);
    connect(start_, &QPushButton::clicked, this, [this] { window()->close(); });
    column->addWidget(start_, 0, Qt::AlignHCenter);
    column->addStretch(1);
    return page;
}

QWidget* OnboardingView::buildNavigation() {
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    back_ = navigationButton(tr("Back"), row);
    // Hidden, Back and the forward button still hold their place, so the dots never move.
    QSizePolicy keepPlace = back_->sizePolicy();
    keepPlace.setRetainSizeWhenHidden(true);
    back_->setSizePolicy(keepPlace);
    connect(back_, &QPushButton::clicked, this, [this] { setStep(step_ - 1); });
    layout->addWidget(back_);
    layout->addStretch(1);
    auto* dots = new StepDots(stepCount, row);
    dots_ = dots;
    layout->addWidget(dots_, 0, Qt::AlignVCenter);
    layout->addStretch(1);
    forward_ = navigationButton(tr("Continue"), row);
    forward_->setSizePolicy(keepPlace);
    connect(forward_, &QPushButton::clicked, this, [this] { setStep(step_ + 1); });
    layout->addWidget(forward_);
    // One width for both buttons and all their labels keeps the dots centred and still.
    int width = 0;
    for (const QString& label : {tr("Back"), tr("Skip"), tr("Continue")}) {
        forward_->setText(label);
        width = std::max(width, forward_->sizeHint().width());
    }
    back_->setFixedWidth(width);
    forward_->setFixedWidth(width);
    return row;
}

QWidget* OnboardingView::currentPage() const {
    return pages_->currentWidget();
}

void OnboardingView::setStep(int step) {
    step = std::clamp(step, 0, stepCount - 1);
    if (step == step_) {
        return;
    }
    step_ = step;
    pages_->setCurrentIndex(step_);
    // The new page fades in on the step's spring.
    if (!fade_.isMoving()) {
        lastFadeFrame_ = clock_->now();
    }
    fade_.jumpTo(0.0);
    fade_.animateTo(1.0, kStepSpring);
    pageOpacity_->setOpacity(0.0);
    pageOpacity_->setEnabled(true);
    clock_->requestFrame();

    updateNavigation();
    updatePermissionStepShown();
    startDemoMeter();
    emit stepChanged(step_);
}

void OnboardingView::advanceFade() {
    if (!fade_.isMoving()) {
        return;
    }
    const auto now = clock_->now();
    const double seconds = std::chrono::duration<double>(now - lastFadeFrame_).count();
    lastFadeFrame_ = now;
    if (fade_.step(seconds)) {
        pageOpacity_->setOpacity(std::clamp(fade_.value(), 0.0, 1.0));
        clock_->requestFrame();
    } else {
        pageOpacity_->setEnabled(false);
    }
}

void OnboardingView::updateNavigation() {
    back_->setVisible(step_ > 0);
    back_->setEnabled(step_ > 0);
    const bool last = step_ == stepCount - 1;
    forward_->setVisible(!last);
    forward_->setEnabled(!last);
    const bool mayAskLater =
        step_ == permissionStep && controller_.permissionStatus() == Status::unknown;
    forward_->setText(mayAskLater ? tr("Skip") : tr("Continue"));
    static_cast<StepDots*>(dots_)->setCurrent(step_);
    dots_->setAccessibleName(tr("Step %1 of %2").arg(step_ + 1).arg(stepCount));
}

void OnboardingView::updatePermission() {
    const Status status = controller_.permissionStatus();
    if (status == Status::granted) {
        permissionSymbol_->setSymbol("checkmark.circle.fill", Theme::green());
    } else {
        permissionSymbol_->setSymbol("speaker.wave.2.circle.fill", Theme::consoleAmber());
    }
    switch (status) {
        case Status::unknown:
            permissionText_->setText(
                tr("Brightwave Record records through your desktop’s audio service. Let it check "
                   "that it may — nothing is recorded until you press Record."));
            break;
        case Status::requesting:
            permissionText_->setText(tr("If your desktop asks for permission, click Allow."));
            break;
        case Status::granted:
            permissionText_->setText(
                tr("You're all set. Brightwave Record can record system audio."));
            break;
        case Status::denied:
            permissionText_->setText(
                tr("No problem — Brightwave Record couldn’t reach the audio service. Check that "
                   "PipeWire is running (in a sandbox, that the app may use audio). This screen "
                   "will update by itself."));
            break;
    }
    allow_->setVisible(status == Status::unknown);
    requesting_->setVisible(status == Status::requesting);
    openSettingsButton_->setVisible(status == Status::denied);
    readyText_->setText(status == Status::granted
                            ? tr("Tick a source, press Record, and Brightwave Record takes care of "
                                 "the rest.")
                            : tr("Tick a source and press Record. If your desktop still needs "
                                 "permission, it will ask then."));
    updateNavigation();
}

void OnboardingView::updatePermissionStepShown() {
    controller_.setPermissionStepShown(step_ == permissionStep && isVisible());
}

float OnboardingView::demoMeterLevel(double seconds) {
    return static_cast<float>(0.08 + 0.6 * 0.5 * (std::sin(2.4 * seconds) + 1.0));
}

void OnboardingView::setReduceMotion(bool reduce) {
    reduceMotion_ = reduce;
    startDemoMeter();
}

void OnboardingView::startDemoMeter() {
    if (reduceMotion_) {
        demoMeter_->setLevel(0.4f);
        return;
    }
    if (demoTicking_ || step_ != 1 || !isVisible()) {
        return;
    }
    demoTicking_ = true;
    const auto now = clock_->now();
    demoMeter_->setLevel(demoMeterLevel(std::chrono::duration<double>(now).count()));
    clock_->callAt(now + demoMeterInterval, this, [this] {
        demoTicking_ = false;
        startDemoMeter();
    });
}

void OnboardingView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    shown_ = true;
    updatePermissionStepShown();
    startDemoMeter();
}

void OnboardingView::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    controller_.setPermissionStepShown(false);
    // A minimised window comes back; only a hide of the program's own counts as leaving.
    if (!event->spontaneous()) {
        controller_.markCompleted();
    }
}

void OnboardingView::closeEvent(QCloseEvent* event) {
    controller_.markCompleted();
    QWidget::closeEvent(event);
}

void OnboardingView::keyPressEvent(QKeyEvent* event) {
    const bool enter = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
    if (enter && step_ == permissionStep && allow_->isVisible()) {
        allow_->click();
    } else if (enter && step_ == stepCount - 1) {
        start_->click();
    } else {
        QWidget::keyPressEvent(event);
    }
}

}  // namespace bw
