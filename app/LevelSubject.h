#pragma once

#include <QObject>

namespace bw {

/// The level stream of one id: hands each level to whoever is connected at that moment and
/// keeps nothing, so a late subscriber sees only the next value.
///
/// Owner: `AudioLevelTracker`, for its own life. Thread: the main thread.
class LevelSubject : public QObject {
    Q_OBJECT

public:
    using QObject::QObject;

    /// Emits `level` to the current subscribers.
    void send(float level) { emit sent(level); }

signals:
    void sent(float level);
};

}  // namespace bw
