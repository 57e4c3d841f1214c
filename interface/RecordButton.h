#pragma once

#include <QAbstractButton>
#include <QColor>
#include <QImage>
#include <QPixmap>
#include <cstdint>
#include <map>

#include "interface/ConsoleClock.h"
#include "interface/SpringAnimation.h"

namespace bw {

class GlowUnderlay;

/// The round red transport key: a 64-point key with a caption under it ("Record" or "Stop"),
/// a glow that breathes with the mix while recording, a pulse ring leaving its edge every 1.5 s,
/// and a glyph that springs from a ring (ready) to a square (stop).
///
/// It draws and reports: a press emits `clicked()` and the caller decides what it means. It is
/// never disabled: `keyEnabled` only sets the strength of the idle glow, so a press on a dim key
/// still arrives (the caller answers it with its hint). `setLevel` takes the master level stream;
/// values count only while recording. With `reduceMotion` the ring is gone, the glow and the
/// glyph's spring stay. The widget is the key-and-caption column, all of it pressable; the glow
/// and the ring light the panel around it without taking room (`GlowUnderlay`). The ring moves
/// about `ringFramesPerSecond` times a second (a level's repaint takes a step along, the ring's
/// own timer fills in between), repaints only the rectangle it sweeps, and stands still while
/// the key can't be seen; the glow repaints only when its drawn size changes. The object name is
/// "recordButton". Motion runs on the widget's `ConsoleClock`. GUI thread only.
class RecordButton : public QAbstractButton {
    Q_OBJECT
    Q_PROPERTY(bool recording READ isRecording WRITE setRecording)
    Q_PROPERTY(bool keyEnabled READ isKeyEnabled WRITE setKeyEnabled)
    Q_PROPERTY(bool reduceMotion READ reduceMotion WRITE setReduceMotion)
public:
    static constexpr double keyDiameter = 64.0;
    static constexpr double captionSpacing = 5.0;
    static constexpr double pressedScale = 0.94;
    static constexpr int ringFramesPerSecond = 20;

    explicit RecordButton(QWidget* parent = nullptr);

    /// The clock of the motion; must outlive the widget. By default the system one.
    void setClock(ConsoleClock* clock);

    bool isRecording() const { return recording_; }
    bool isKeyEnabled() const { return keyEnabled_; }
    bool reduceMotion() const { return reduceMotion_; }
    /// The last master level taken while recording.
    float rawLevel() const { return rawLevel_; }
    /// Whether the pointer holds the key (kept while it drags off, until release).
    bool isPressed() const { return pressed_; }

    /// Blur radius of the glow: 12 + 14 × level while recording, else 9 (enabled) or 5.
    double glowRadius() const;
    /// Opacity of the glow: 0.6 while recording, else 0.45 (enabled) or 0.25.
    double glowOpacity() const;
    /// The glyph between ring (0) and square (1), overshooting with the spring.
    double glyphProgress() const { return glyph_.value(); }
    /// The scale of the whole column now (1, or on its way to 0.94 while pressed).
    double pressScale() const { return press_.value(); }
    /// Whether the pulse ring exists: while recording without reduced motion.
    bool pulseRingVisible() const { return recording_ && !reduceMotion_; }
    /// Whether the ring's repeating animation runs.
    bool isPulsing() const { return pulsing_; }
    /// The ring's scale now: 1 at the start of each swing, easing out to 1.4.
    double pulseScale() const;
    /// The ring's opacity now: 0.7 at the start of each swing, easing out to 0.
    double pulseOpacity() const;

    /// The key's circle in widget coordinates, before the press scale.
    QRectF keyRect() const;
    /// How far the glow and ring may reach beyond the widget in the current state (while
    /// recording: as far as the loudest glow, so the lit margin keeps still while it breathes).
    double overhang() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

public slots:
    void setRecording(bool recording);
    void setKeyEnabled(bool enabled);
    void setReduceMotion(bool reduce);
    /// A value of the master level stream.
    void setLevel(float level);

protected:
    void paintEvent(QPaintEvent* event) override;
    bool hitButton(const QPoint& pos) const override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;

private:
    void updateTexts();
    void updatePulse();
    void setPressed(bool pressed);
    void startMotion();
    void advance();
    double pulsePhase() const;
    /// Moves the ring one step and repaints the band it left and entered; runs while pulsing.
    void stepRing();
    void scheduleRingStep(ConsoleClock::Duration deadline);
    QRectF glowRect(double radius) const;
    void paintUnderlay(QPainter& painter) const;
    void paintKey(QPainter& painter) const;
    /// The ring at full strength for a radius in quarter points, drawn once and kept (one per
    /// size the swing passes through: about 50: 1.5 MB at scale 1, 5 MB at scale 2).
    const QImage& ringImage(long quarterRadius, qreal ratio) const;
    void applyPressScale(QPainter& painter) const;
    void updateOverhang();

    ConsoleClock* clock_ = nullptr;
    bool recording_ = false;
    bool keyEnabled_ = true;
    bool reduceMotion_ = false;
    bool pulsing_ = false;
    bool pressed_ = false;
    bool keyboardFocus_ = false;
    float rawLevel_ = 0.0f;
    SpringAnimation glyph_{0.0, 0.001};
    SpringAnimation press_{1.0, 0.0005};
    ConsoleClock::Duration pulseStart_{};
    ConsoleClock::Duration lastFrame_{};
    std::uint64_t ringGeneration_ = 0;
    // Pulsing while nobody could see it: no steps until the next paint.
    bool ringParked_ = false;
    // The ring as last asked to be drawn: radius in quarter points, opacity in 255ths.
    long drawnRingRadius_ = 0;
    long drawnRingAlpha_ = 0;
    // The glow's blur as last asked to be drawn, in half points.
    long drawnGlow_ = 0;
    GlowUnderlay* underlay_;
    // What the kept picture of the settled key was drawn with.
    struct KeyLooks {
        double glyph = -1;
        double press = 0;
        bool focusRing = false;
        QString caption;
        QColor captionColor;
        qreal ratio = 0;
        QSize size;
        bool operator==(const KeyLooks&) const = default;
    };
    KeyLooks keyLooks_;
    mutable std::map<long, QImage> rings_;
    mutable qreal ringRatio_ = 0;
    QPixmap keyPicture_;
};

}  // namespace bw
