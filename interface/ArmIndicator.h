#pragma once

#include <QWidget>

#include "interface/ConsoleClock.h"
#include "interface/SpringAnimation.h"

namespace bw {

/// The track-arm lamp of a source row, 14 × 14: an empty ring when the source isn't ticked; a
/// lit lamp in the accent colour when it is, turning signal red while recording.
///
/// Arming springs the lamp in from almost nothing (and out again); a change of recording alone
/// only recolours it. Decoration: hidden from assistive technology, the row speaks. Motion runs
/// on the widget's `ConsoleClock`. GUI thread only.
class ArmIndicator : public QWidget {
    Q_OBJECT
    Q_PROPERTY(bool armed READ isArmed WRITE setArmed)
    Q_PROPERTY(bool recording READ isRecording WRITE setRecording)
public:
    static constexpr int side = 14;

    explicit ArmIndicator(QWidget* parent = nullptr);

    /// The clock of the lamp's spring; must outlive the widget. By default the system one.
    void setClock(ConsoleClock* clock);

    bool isArmed() const { return armed_; }
    bool isRecording() const { return recording_; }
    /// How far the lamp is lit: 0 out, 1 in, overshooting with the spring.
    double lampProgress() const { return lamp_.value(); }
    /// The lamp's colour now: signal red while recording, else the accent colour.
    QColor lampColor() const;

    QSize sizeHint() const override { return QSize(side, side); }

public slots:
    void setArmed(bool armed);
    void setRecording(bool recording);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void advance();

    ConsoleClock* clock_ = nullptr;
    bool armed_ = false;
    bool recording_ = false;
    SpringAnimation lamp_{0.0, 0.001};
    ConsoleClock::Duration lastFrame_{};
};

}  // namespace bw
