#pragma once

#include <QColor>
#include <QImage>
#include <QPixmap>
#include <QString>
#include <QWidget>

#include "interface/ConsoleClock.h"

class QPainter;

namespace bw {

class GlowUnderlay;

/// The amber elapsed-time display: one line of timecode digits, lit and glowing while
/// recording, a dim unlit LCD otherwise. Digits that change roll upwards into place where the
/// line can be seen; unseen, they simply change.
///
/// The caller gives both text forms of the elapsed time (long, "0:12:34", shown; compact,
/// "12:34", spoken) and whether a recording runs; before any recording they are the zero texts.
/// The widget is the line of digits; the glow spreads onto the panel around it without taking
/// room (`GlowUnderlay`). A text's glow is blurred once and kept; while digits roll the glows of
/// the old and new text cross-fade. The roll runs on the widget's `ConsoleClock`. GUI thread
/// only.
class TimecodeLCDView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(bool recording READ isRecording WRITE setRecording)
    Q_PROPERTY(QString formattedElapsed READ formattedElapsed WRITE setFormattedElapsed)
    Q_PROPERTY(QString compactElapsed READ compactElapsed WRITE setCompactElapsed)
    Q_PROPERTY(QString accessibleValue READ accessibleValue)
public:
    static constexpr double glowRadius = 6.0;
    static constexpr double glowOpacity = 0.45;
    static constexpr double unlitOpacity = 0.35;

    explicit TimecodeLCDView(QWidget* parent = nullptr);

    /// The clock of the digit roll; must outlive the widget. By default the system one.
    void setClock(ConsoleClock* clock);

    bool isRecording() const { return recording_; }
    QString formattedElapsed() const { return formatted_; }
    QString compactElapsed() const { return compact_; }
    QString accessibleValue() const { return compact_; }

    /// The digits' colour now: `consoleAmber`, at 0.35 opacity while not recording.
    QColor digitColor() const;
    /// Whether the glow is drawn (while recording).
    bool isGlowing() const { return recording_; }
    /// How far the last change has rolled, 0…1 (1 when still).
    double rollProgress() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

public slots:
    void setRecording(bool recording);
    /// The displayed form; a different text rolls its changed digits in.
    void setFormattedElapsed(const QString& text);
    /// The spoken form.
    void setCompactElapsed(const QString& text);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void advance();
    /// Draws the line in `color`, rolling digits where they are.
    void paintDigits(QPainter& painter, const QColor& color) const;
    /// The glow of `text` standing still, from the kept pictures (made when missing).
    const QImage& glowOf(const QString& text);
    void paintGlow(QPainter& painter);

    ConsoleClock* clock_ = nullptr;
    bool recording_ = false;
    QString formatted_;
    QString compact_;
    QString previous_;
    bool rolling_ = false;
    ConsoleClock::Duration rollStart_{};
    GlowUnderlay* underlay_;
    // The glows of the last two texts drawn, with the text and scale they were made for.
    struct Glow {
        QString text;
        qreal ratio = 0;
        QImage image;
    };
    Glow glows_[2];
    // The standing line as last drawn, with what it was drawn from.
    QPixmap line_;
    QString lineText_;
    QColor lineColor_;
};

}  // namespace bw
