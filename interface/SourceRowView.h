#pragma once

#include <qcoro/qcorotask.h>
#include <QImage>
#include <QPointer>
#include <QWidget>
#include <optional>

#include "engine/RecordingSource.h"
#include "interface/ConsoleClock.h"
#include "interface/SpringAnimation.h"

class QAbstractButton;
class QLabel;

namespace bw {

class AppIconCache;
class AppState;
class ArmIndicator;
class AudioLevelTracker;
class ChannelFader;

/// One line of the source list: lamp, icon and name form one tick box on the left; a ticked
/// row shows its fader and percentage on the right. It keeps its own copy of the volume for
/// display (read from `AppState` when made) and forwards every tick and fader move to
/// `AppState`.
///
/// Motion, on its `ConsoleClock`: a change of selection moves the fill and the volume area with
/// the tick's spring (the area fades in scaled from 0.9, anchored at its right edge, and back);
/// hovering eases the hover fill and the placeholder in and out over 0.12 s. With
/// `reduceMotion` every change is instant. While the area moves, it is drawn from a picture of
/// itself and its controls wait hidden until it settles. GUI thread only.
class SourceRowView : public QWidget {
    Q_OBJECT

public:
    static constexpr int faderWidth = 170;
    static constexpr int faderHeight = 14;
    static constexpr int percentageWidth = 38;

    /// `state`, `icons` and `levels` must outlive the row.
    SourceRowView(AppState& state, AppIconCache& icons, AudioLevelTracker& levels,
                  RecordingSource source, QWidget* parent = nullptr);

    /// The clock of the row's motion and of its lamp and fader; must outlive the row. By default
    /// the system one.
    void setClock(ConsoleClock* clock);
    void setReduceMotion(bool reduce);

    const RecordingSource& source() const { return source_; }
    /// A new value of the same source (a rename reloads the icon); the volume stays.
    void setSource(RecordingSource source);

    bool isSelected() const;
    bool isHovering() const { return hovering_; }
    float displayedVolume() const { return displayedVolume_; }
    const std::optional<QImage>& appIcon() const { return appIcon_; }
    /// The symbol shown in place of an application icon; empty while an icon shows.
    QString iconSymbol() const;
    /// The key of the icon load: id "|" name for an application, empty otherwise.
    QString iconKey() const;
    /// The row's fill now (transparent when none), as far as its motion has come.
    QColor fillColor() const;
    /// How far the volume area has come in: 0 gone, 1 there (the spring may overshoot).
    double volumeAreaProgress() const { return selection_.value(); }
    /// The volume area's opacity and scale now (scaled about its right edge).
    double volumeAreaOpacity() const;
    double volumeAreaScale() const;
    /// How far hovering has eased in: 0…1.
    double hoverProgress() const;
    /// The placeholder's opacity now.
    double placeholderOpacity() const;
    /// `displayedVolume` as the percentage text: rounded, then "%".
    static QString percentageText(float volume);

    QAbstractButton* tickArea() const { return tickArea_; }
    ArmIndicator* lamp() const { return lamp_; }
    ChannelFader* fader() const { return fader_; }
    QLabel* nameLabel() const { return name_; }
    QLabel* percentageLabel() const { return percentage_; }
    QLabel* playingBadge() const { return badge_; }
    QWidget* volumeArea() const { return volumeArea_; }
    QWidget* placeholder() const { return placeholder_; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    void setHovering(bool hovering);
    void advanceMotion();
    void settleVolumeArea();
    void setDisplayedVolume(float volume);
    void updateFromState();
    void updateIcon();
    void loadIcon();
    static QCoro::Task<void> fetchIcon(QPointer<SourceRowView> row, AppIconCache* icons,
                                       QString key, std::int32_t pid, quint64 generation);

    AppState& state_;
    AppIconCache& icons_;
    AudioLevelTracker& levels_;
    RecordingSource source_;
    bool hovering_ = false;
    float displayedVolume_ = 1.0f;
    std::optional<QImage> appIcon_;
    QString loadedKey_;
    quint64 iconGeneration_ = 0;
    QMetaObject::Connection levelConnection_;
    ConsoleClock* clock_ = nullptr;
    bool reduceMotion_ = false;
    SpringAnimation selection_;
    ConsoleClock::Duration lastFrame_{};
    double hoverFrom_ = 0.0;
    double hoverTo_ = 0.0;
    ConsoleClock::Duration hoverStart_{};

    QAbstractButton* tickArea_;
    ArmIndicator* lamp_;
    QLabel* icon_;
    QLabel* name_;
    QLabel* badge_;
    QWidget* slot_;  // where the volume area and the placeholder take turns
    QWidget* volumeArea_;
    ChannelFader* fader_;
    QLabel* percentage_;
    QWidget* placeholder_;
};

}  // namespace bw
