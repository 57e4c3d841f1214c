#include "interface/SourceRowView.h"

#include <QAbstractButton>
#include <QEnterEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QSignalBlocker>
#include <algorithm>
#include <cmath>

#include "app/AppIconCache.h"
#include "app/AppState.h"
#include "app/AudioLevelTracker.h"
#include "app/LevelSubject.h"
#include "interface/ArmIndicator.h"
#include "interface/ChannelFader.h"
#include "interface/ConsoleAccessibility.h"
#include "interface/SymbolImages.h"
#include "interface/Theme.h"

namespace bw {
namespace {

constexpr int kIconSide = 20;

// The whole rectangle takes the click; the children only draw.
class TickArea : public QAbstractButton {
public:
    using QAbstractButton::QAbstractButton;

protected:
    void paintEvent(QPaintEvent*) override {}
    bool hitButton(const QPoint& pos) const override { return rect().contains(pos); }
};

constexpr int kSlotWidth = SourceRowView::faderWidth + 6 + SourceRowView::percentageWidth;

// Stands in for the fader while hovering, so the row doesn't change width.
class FaderPlaceholder : public QWidget {
public:
    explicit FaderPlaceholder(QWidget* parent) : QWidget(parent) {
        setFixedSize(kSlotWidth, SourceRowView::faderHeight);
    }

    double opacity = 0.0;

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setOpacity(opacity);
        painter.setRenderHint(QPainter::Antialiasing);
        const QRectF capsule(0, (height() - 8) / 2.0, SourceRowView::faderWidth, 8);
        painter.setPen(Qt::NoPen);
        painter.setBrush(Theme::withOpacity(Theme::primary(palette()), 0.06));
        painter.drawRoundedRect(capsule, 4, 4);
    }
};

// The fader and its percentage; while it comes or goes, a picture of them, faded and scaled
// about the right edge, so the live controls needn't be transformed.
class VolumeArea : public QWidget {
public:
    using QWidget::QWidget;

    QPixmap picture;
    bool drawn = false;
    double opacity = 1.0;
    double scale = 1.0;

protected:
    void paintEvent(QPaintEvent*) override {
        if (!drawn || picture.isNull()) {
            return;
        }
        QPainter painter(this);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.setOpacity(std::clamp(opacity, 0.0, 1.0));
        painter.translate(width(), height() / 2.0);
        painter.scale(scale, scale);
        painter.translate(-width(), -height() / 2.0);
        painter.drawPixmap(0, 0, picture);
    }
};

void setTextColor(QLabel* label, const QColor& color) {
    QPalette palette = label->palette();
    for (auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        palette.setColor(group, QPalette::WindowText, color);
    }
    label->setPalette(palette);
}

}  // namespace

SourceRowView::SourceRowView(AppState& state, AppIconCache& icons, AudioLevelTracker& levels,
                             RecordingSource source, QWidget* parent)
    : QWidget(parent),
      state_(state),
      icons_(icons),
      levels_(levels),
      source_(std::move(source)),
      displayedVolume_(state.volume(source_.id)) {
    setAttribute(Qt::WA_Hover);
    ConsoleAccessibility::install();

    tickArea_ = new TickArea(this);
    tickArea_->setCheckable(true);
    tickArea_->setFocusPolicy(Qt::StrongFocus);
    lamp_ = new ArmIndicator(tickArea_);
    icon_ = new QLabel(tickArea_);
    icon_->setFixedSize(kIconSide, kIconSide);
    icon_->setAlignment(Qt::AlignCenter);
    name_ = new QLabel(tickArea_);
    name_->setTextFormat(Qt::PlainText);
    name_->setWordWrap(false);
    badge_ = new QLabel(tickArea_);
    badge_->setToolTip(tr("Playing audio"));
    badge_->setAccessibleName(tr("Playing audio"));
    const int badgeSide = QFontMetrics(Theme::badgeFont()).height();
    badge_->setPixmap(SymbolImages::pixmap("speaker.wave.2.fill", QSize(badgeSide, badgeSide),
                                           Theme::accent(), devicePixelRatioF()));

    auto* tickLayout = new QHBoxLayout(tickArea_);
    tickLayout->setContentsMargins(0, 0, 0, 0);
    tickLayout->setSpacing(10);
    tickLayout->addWidget(lamp_, 0, Qt::AlignVCenter);
    tickLayout->addWidget(icon_, 0, Qt::AlignVCenter);
    tickLayout->addWidget(name_, 0, Qt::AlignVCenter);
    tickLayout->addWidget(badge_, 0, Qt::AlignVCenter);
    tickLayout->addStretch(1);

    slot_ = new QWidget(this);
    volumeArea_ = new VolumeArea(slot_);
    fader_ = new ChannelFader(volumeArea_);
    fader_->setFixedSize(fader_->sizeHint());
    fader_->setToolTip(tr("Volume of this source in the recording"));
    percentage_ = new QLabel(volumeArea_);
    percentage_->setFont(Theme::percentageFont());
    percentage_->setFixedWidth(percentageWidth);
    percentage_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    // The fader speaks the value; the text is for the eye only.
    ConsoleAccessibility::hide(percentage_);
    auto* volumeLayout = new QHBoxLayout(volumeArea_);
    volumeLayout->setContentsMargins(0, 0, 0, 0);
    volumeLayout->setSpacing(6);
    volumeLayout->addWidget(fader_, 0, Qt::AlignVCenter);
    volumeLayout->addWidget(percentage_, 0, Qt::AlignVCenter);

    placeholder_ = new FaderPlaceholder(slot_);
    ConsoleAccessibility::hide(placeholder_);
    // The area and the placeholder share one place, so the row keeps its width as they swap.
    const int slotHeight = std::max(volumeArea_->sizeHint().height(), faderHeight);
    slot_->setFixedSize(kSlotWidth, slotHeight);
    volumeArea_->setGeometry(0, 0, kSlotWidth, slotHeight);
    placeholder_->move(0, (slotHeight - faderHeight) / 2);

    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(8, 4, 8, 4);
    layout->setSpacing(12);
    layout->addWidget(tickArea_, 1);
    layout->addWidget(slot_, 0, Qt::AlignVCenter);

    // `toggled`, not `clicked`: assistive technology's Toggle action toggles without a click.
    connect(tickArea_, &QAbstractButton::toggled, this, [this](bool checked) {
        if (checked != isSelected()) {
            state_.toggleSource(source_);
        }
        updateFromState();
    });
    connect(fader_, &ChannelFader::valueEdited, this, [this](float value) {
        setDisplayedVolume(value);
        state_.setVolume(source_, value);
    });
    connect(&state_, &AppState::selectedSourceIDsChanged, this, [this] { updateFromState(); });
    connect(&state_, &AppState::isBusyChanged, this, [this] { updateFromState(); });

    fader_->setValue(displayedVolume_);
    setDisplayedVolume(displayedVolume_);
    selection_.jumpTo(isSelected() ? 1.0 : 0.0);
    setClock(ConsoleClock::system());
    setSource(source_);
}

void SourceRowView::setClock(ConsoleClock* clock) {
    if (clock_) {
        disconnect(clock_, &ConsoleClock::frame, this, nullptr);
    }
    clock_ = clock;
    connect(clock_, &ConsoleClock::frame, this, &SourceRowView::advanceMotion);
    lamp_->setClock(clock);
    fader_->setClock(clock);
}

void SourceRowView::setReduceMotion(bool reduce) {
    reduceMotion_ = reduce;
    if (reduce) {
        selection_.jumpTo(selection_.target());
        hoverFrom_ = hoverTo_;
        settleVolumeArea();
        update();
    }
}

double SourceRowView::volumeAreaOpacity() const {
    return std::clamp(selection_.value(), 0.0, 1.0);
}

double SourceRowView::volumeAreaScale() const {
    return 0.9 + 0.1 * selection_.value();
}

double SourceRowView::hoverProgress() const {
    if (hoverFrom_ == hoverTo_) {
        return hoverTo_;
    }
    const double t =
        std::chrono::duration<double>(clock_->now() - hoverStart_).count() / Theme::hoverFade;
    return t >= 1.0 ? hoverTo_ : hoverFrom_ + (hoverTo_ - hoverFrom_) * Theme::easeOut(t);
}

double SourceRowView::placeholderOpacity() const {
    if (state_.isRecording()) {
        return 0.0;
    }
    return hoverProgress() * (1.0 - volumeAreaOpacity());
}

void SourceRowView::advanceMotion() {
    const bool hoverMoving = hoverFrom_ != hoverTo_;
    if (!selection_.isMoving() && !hoverMoving) {
        return;
    }
    const auto now = clock_->now();
    bool moving = false;
    if (selection_.isMoving()) {
        const double seconds = std::chrono::duration<double>(now - lastFrame_).count();
        lastFrame_ = now;
        moving = selection_.step(seconds);
    }
    if (hoverMoving) {
        if (hoverProgress() == hoverTo_) {
            hoverFrom_ = hoverTo_;
        } else {
            moving = true;
        }
    }
    settleVolumeArea();
    update();
    if (moving) {
        clock_->requestFrame();
    }
}

void SourceRowView::settleVolumeArea() {
    auto* area = static_cast<VolumeArea*>(volumeArea_);
    const bool moving = selection_.isMoving();
    const bool areaShown = moving || selection_.target() == 1.0;
    if (moving && !area->drawn) {
        fader_->show();
        percentage_->show();
        area->picture = area->grab();
    }
    area->drawn = moving;
    area->opacity = volumeAreaOpacity();
    area->scale = volumeAreaScale();
    fader_->setVisible(!moving);
    percentage_->setVisible(!moving);
    volumeArea_->setVisible(areaShown);
    auto* placeholder = static_cast<FaderPlaceholder*>(placeholder_);
    placeholder->opacity = placeholderOpacity();
    placeholder->setVisible(placeholder->opacity > 0.0);
    slot_->setVisible(areaShown || placeholder->isVisibleTo(slot_));
    if (moving) {
        volumeArea_->update();
    }
    placeholder_->update();
}

void SourceRowView::setSource(RecordingSource source) {
    const bool sameID = source.id == source_.id && levelConnection_;
    source_ = std::move(source);
    name_->setText(QString::fromStdString(source_.name));
    tickArea_->setAccessibleName(tr("Record %1").arg(name_->text()));
    fader_->setAccessibleName(tr("%1 volume").arg(name_->text()));
    const bool isMicrophone = std::holds_alternative<RecordingSource::Microphone>(source_.kind);
    badge_->setVisible(source_.isActive && !isMicrophone);
    if (!sameID) {
        disconnect(levelConnection_);
        fader_->setSourceID(QString::fromStdString(source_.id));
        levelConnection_ = connect(levels_.publisher(source_.id), &LevelSubject::sent, fader_,
                                   &ChannelFader::setSourceLevel);
    }
    if (iconKey() != loadedKey_ || loadedKey_.isEmpty()) {
        loadIcon();
    }
    updateFromState();
}

bool SourceRowView::isSelected() const {
    return state_.selectedSourceIDs().contains(source_.id);
}

QString SourceRowView::iconKey() const {
    if (!std::holds_alternative<RecordingSource::App>(source_.kind)) {
        return {};
    }
    return QString::fromStdString(source_.id) + "|" + QString::fromStdString(source_.name);
}

QString SourceRowView::iconSymbol() const {
    if (std::holds_alternative<RecordingSource::Microphone>(source_.kind)) {
        return "mic.fill";
    }
    if (std::holds_alternative<RecordingSource::SystemAudio>(source_.kind)) {
        return "macbook";
    }
    return appIcon_ ? QString() : QString("app.dashed");
}

QColor SourceRowView::fillColor() const {
    const QColor selectedFill = Theme::withOpacity(Theme::accent(), 0.08);
    const double hover = state_.isRecording() ? 0.0 : hoverProgress();
    const double selected = volumeAreaOpacity();
    if (hover <= 0.0 && selected <= 0.0) {
        return Qt::transparent;
    }
    const QColor hoverFill = hover > 0.0
                                 ? Theme::withOpacity(Theme::primary(palette()), 0.04 * hover)
                                 : Theme::withOpacity(selectedFill, 0.0);
    return Theme::mixed(hoverFill, selectedFill, selected);
}

QString SourceRowView::percentageText(float volume) {
    return QString::number(std::lround(double(volume) * 100.0)) + "%";
}

void SourceRowView::paintEvent(QPaintEvent*) {
    const QColor fill = fillColor();
    if (fill.alpha() == 0) {
        return;
    }
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    painter.drawRoundedRect(QRectF(rect()), 7, 7);
}

void SourceRowView::enterEvent(QEnterEvent* event) {
    QWidget::enterEvent(event);
    setHovering(true);
}

void SourceRowView::leaveEvent(QEvent* event) {
    QWidget::leaveEvent(event);
    setHovering(false);
}

void SourceRowView::setHovering(bool hovering) {
    hovering_ = hovering;
    updateFromState();
}

void SourceRowView::setDisplayedVolume(float volume) {
    displayedVolume_ = volume;
    percentage_->setText(percentageText(volume));
}

void SourceRowView::updateFromState() {
    const bool selected = isSelected();
    tickArea_->setEnabled(!state_.isBusy());
    {
        const QSignalBlocker quiet(tickArea_);
        tickArea_->setChecked(selected);
    }
    lamp_->setArmed(selected);
    lamp_->setRecording(state_.isRecording());
    setTextColor(name_, selected ? Theme::primary(palette()) : Theme::secondary(palette()));
    setTextColor(percentage_, Theme::secondary(palette()));
    const bool animate = !reduceMotion_ && isVisible();
    const double target = selected ? 1.0 : 0.0;
    if (selection_.target() != target || (!animate && selection_.value() != target)) {
        if (animate) {
            if (!selection_.isMoving()) {
                lastFrame_ = clock_->now();
            }
            selection_.animateTo(target, Theme::sourceToggle());
            clock_->requestFrame();
        } else {
            selection_.jumpTo(target);
        }
    }
    const double hoverTarget = hovering_ && !state_.isRecording() ? 1.0 : 0.0;
    if (hoverTo_ != hoverTarget) {
        hoverFrom_ = animate ? hoverProgress() : hoverTarget;
        hoverTo_ = hoverTarget;
        hoverStart_ = clock_->now();
        clock_->requestFrame();
    }
    settleVolumeArea();
    update();
}

void SourceRowView::updateIcon() {
    const QString symbol = iconSymbol();
    const qreal ratio = devicePixelRatioF();
    if (symbol.isEmpty()) {
        QPixmap pixmap = QPixmap::fromImage(appIcon_->scaled(
            QSize(kIconSide, kIconSide) * ratio, Qt::KeepAspectRatio, Qt::SmoothTransformation));
        pixmap.setDevicePixelRatio(ratio);
        icon_->setPixmap(pixmap);
        return;
    }
    const QColor color = symbol == "app.dashed" ? Theme::secondary(palette()) : Theme::accent();
    icon_->setPixmap(SymbolImages::pixmap(symbol, QSize(kIconSide, kIconSide), color, ratio));
}

void SourceRowView::loadIcon() {
    // A newer key makes any load under way stale: its answer is dropped.
    const quint64 generation = ++iconGeneration_;
    loadedKey_ = iconKey();
    const auto* app = std::get_if<RecordingSource::App>(&source_.kind);
    if (app == nullptr) {
        appIcon_.reset();
        updateIcon();
        return;
    }
    updateIcon();
    fetchIcon(QPointer<SourceRowView>(this), &icons_, loadedKey_, app->pid, generation);
}

QCoro::Task<void> SourceRowView::fetchIcon(QPointer<SourceRowView> row, AppIconCache* icons,
                                           QString key, std::int32_t pid, quint64 generation) {
    std::optional<QImage> image = co_await icons->icon(key, pid);
    if (row.isNull() || row->iconGeneration_ != generation) {
        co_return;
    }
    row->appIcon_ = std::move(image);
    row->updateIcon();
}

}  // namespace bw
