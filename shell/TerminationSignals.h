#pragma once

#include <QObject>

class QSocketNotifier;

namespace bw {

/// Turns SIGINT, SIGTERM and SIGHUP into a `received` signal on the GUI thread, so that a
/// Ctrl+C in a terminal or a logout quits the way the menu does, finishing a recording's file
/// first. One instance per process; it restores the default handlers when destroyed.
class TerminationSignals : public QObject {
    Q_OBJECT

public:
    explicit TerminationSignals(QObject* parent = nullptr);
    ~TerminationSignals() override;

signals:
    void received(int signalNumber);

private:
    void drain();

    QSocketNotifier* notifier_ = nullptr;
};

}  // namespace bw
