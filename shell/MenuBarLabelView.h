#pragma once

#include <QObject>
#include <QString>

namespace bw {

class RecordingTimer;

/// The tray item's words: the compact elapsed time it shows as its label, and its single
/// accessible name, "Brightwave Record, recording, " and the time, which hosts also use as title
/// and tooltip. The host draws them; nothing is painted here. Follows every tick of `timer`, which
/// must outlive it. GUI thread only.
class MenuBarLabelView : public QObject {
    Q_OBJECT

public:
    explicit MenuBarLabelView(RecordingTimer& timer, QObject* parent = nullptr);

    /// The time as shown: `compactElapsed`.
    QString text() const;
    /// "Brightwave Record, recording, " followed by the time.
    QString accessibleLabel() const;

signals:
    /// The shown time changed (not every tick does change it).
    void textChanged(const QString& text);

private:
    void refresh();

    RecordingTimer& timer_;
    QString shown_;
};

}  // namespace bw
