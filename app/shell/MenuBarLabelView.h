#pragma once

#include <QWidget>

namespace bw {

class RecordingTimer;

/// The tray item's label: the record symbol and the compact elapsed time, 4 apart, centred. It
/// also owns the item's single accessible name, "Brightwave Record, recording, " and the time,
/// which the tray uses as its tooltip. Redrawn at every tick of `timer`, which must outlive it.
/// GUI thread only.
class MenuBarLabelView : public QWidget {
    Q_OBJECT

public:
    explicit MenuBarLabelView(RecordingTimer& timer, QWidget* parent = nullptr);

    /// The time as shown: `compactElapsed`.
    QString text() const;
    /// "Brightwave Record, recording, " followed by the time.
    QString accessibleLabel() const;

    QSize sizeHint() const override;

signals:
    /// The shown time changed (not every tick does change it).
    void textChanged(const QString& text);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void refresh();

    RecordingTimer& timer_;
    QString shown_;
};

}  // namespace bw
