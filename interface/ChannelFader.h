#pragma once

#include <QSizeF>
#include <QString>
#include <QWidget>

#include "interface/ConsoleClock.h"
#include "interface/SpringAnimation.h"

class QPainter;

namespace bw {

/// A source's volume control: a drawn track with a white knob, linear gain 0…1.5, a hairline at
/// unity two thirds along, and a detent that snaps the knob to exactly 1.0 when a move asks for a
/// value within 0.05 of it. The source's live level glows in the track behind the knob.
///
/// The caller owns the value: a user's move (drag, click, accessibility step) emits
/// `valueEdited` with the new value at every change, even an unchanged one; `setValue` from the
/// caller moves the knob and leaves the detent alone. The live level comes through `setLevel`
/// while no source id is set, through `setSourceLevel` (the source's level stream) while one is.
/// Entering the detent emits `detentTicked`, where a desktop with haptics would tick.
///
/// The contents rect is the control's frame (170 × 14 in a source row); the margins of 6 around
/// it take presses too and hold the knob's and mark's overhang. Motion runs on the widget's
/// `ConsoleClock`. A disabled fader ignores the pointer and is drawn at half strength; its
/// accessibility steps still work. GUI thread only.
class ChannelFader : public QWidget {
    Q_OBJECT
    Q_PROPERTY(float value READ value WRITE setValue NOTIFY valueChanged)
    Q_PROPERTY(QString sourceID READ sourceID WRITE setSourceID)
    Q_PROPERTY(QString accessibleValue READ accessibleValue)
    Q_PROPERTY(int accessiblePercent READ accessiblePercent)
public:
    static constexpr float maxValue = 1.5f;
    static constexpr float unity = 1.0f;
    static constexpr float detentWidth = 0.05f;
    static constexpr float accessibilityStep = 0.1f;
    static constexpr int hitMargin = 6;

    explicit ChannelFader(QWidget* parent = nullptr);

    /// The clock of the knob's motion; must outlive the widget. By default the system one.
    void setClock(ConsoleClock* clock);

    float value() const { return value_; }
    QString sourceID() const { return sourceID_; }
    bool inDetent() const { return inDetent_; }
    /// The level the track shows.
    float currentLevel() const { return currentLevel_; }
    /// The measured frame of the control: the last contents size with both sides above 0
    /// (170 × 14 before any).
    QSizeF faderSize() const;

    /// The value as spoken: `accessiblePercent`, then " percent".
    QString accessibleValue() const;
    /// value / unity × 100 cut to a whole number: the value assistive technology reads.
    int accessiblePercent() const;

    /// The control's frame in widget coordinates.
    QRectF trackRect() const;
    /// Where the knob is drawn now, along the track (0 at its left end): follows the value,
    /// springing into the detent.
    double knobX() const;
    /// Where unity stands along the track.
    double unityX() const;
    /// Width of the level glow along the track: unityX × min(level, 1), at least 0.
    double levelWidth() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

public slots:
    /// Sets the value from outside: the knob moves at once, the detent stays as it is.
    void setValue(float value);
    /// Chooses whose level the track shows; empty for the one given through `setLevel`.
    void setSourceID(const QString& sourceID);
    /// The level to show while no source id is set; ignored while one is.
    void setLevel(float level);
    /// A value from the level stream of the source; ignored while no source id is set.
    void setSourceLevel(float level);
    /// One accessibility step up: min(value + 0.1, 1.5), through the detent rule.
    void increment();
    /// One accessibility step down: max(value − 0.1, 0), through the detent rule.
    void decrement();
    /// A value set by assistive technology, clamped to 0…1.5, through the detent rule as the
    /// steps go. Ignored while disabled.
    void editTo(float value);

signals:
    /// The user moved the fader to `value`.
    void valueEdited(float value);
    /// The value changed, by the user or the caller.
    void valueChanged(float value);
    /// The value entered the unity detent (the stand-in for a haptic tick).
    void detentTicked();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void dragTo(double x);
    void apply(float candidate, const Spring* animation);
    void store(float value);
    void advanceKnob();
    void paintControl(QPainter& painter) const;

    ConsoleClock* clock_;
    float value_ = 1.0f;
    QString sourceID_;
    float level_ = 0.0f;
    bool inDetent_ = false;
    float currentLevel_ = 0.0f;
    mutable QSizeF faderSize_{170.0, 14.0};
    SpringAnimation knob_{1.0, 0.0005};
    ConsoleClock::Duration lastFrame_{};
};

}  // namespace bw
