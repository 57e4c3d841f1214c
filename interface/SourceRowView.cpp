#include "interface/SourceRowView.h"

#include <QAbstractButton>
#include <QEnterEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QSignalBlocker>
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

// Stands in for the fader while hovering, so the row doesn't change width.
class FaderPlaceholder : public QWidget {
public:
    explicit FaderPlaceholder(QWidget* parent) : QWidget(parent) {
        setFixedSize(SourceRowView::faderWidth + 44, SourceRowView::faderHeight);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const QRectF capsule(0, (height() - 8) / 2.0, SourceRowView::faderWidth, 8);
        painter.setPen(Qt::NoPen);
        painter.setBrush(Theme::withOpacity(Theme::primary(palette()), 0.06));
        painter.drawRoundedRect(capsule, 4, 4);
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

    volumeArea_ = new QWidget(this);
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

    placeholder_ = new FaderPlaceholder(this);
    ConsoleAccessibility::hide(placeholder_);

    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(8, 4, 8, 4);
    layout->setSpacing(12);
    layout->addWidget(tickArea_, 1);
    layout->addWidget(volumeArea_, 0, Qt::AlignVCenter);
    layout->addWidget(placeholder_, 0, Qt::AlignVCenter);

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
    setSource(source_);
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
    if (isSelected()) {
        return Theme::withOpacity(Theme::accent(), 0.08);
    }
    if (hovering_ && !state_.isRecording()) {
        return Theme::withOpacity(Theme::primary(palette()), 0.04);
    }
    return Qt::transparent;
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
    volumeArea_->setVisible(selected);
    placeholder_->setVisible(!selected && hovering_ && !state_.isRecording());
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
