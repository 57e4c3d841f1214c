#pragma once

#include <QObject>
#include <map>
#include <memory>
#include <string>

#include "app/LevelSubject.h"

namespace bw {

/// Carries the levels of a recording from the level step to the meters, one stream per id
/// (source ids and "master"), outside the observable fields of `AppState`, so a level reaches
/// only the views that asked for its id.
///
/// Thread: the main thread only. A stream, once asked for, lives as long as the tracker.
class AudioLevelTracker : public QObject {
    Q_OBJECT

public:
    using Levels = std::map<std::string, float>;

    using QObject::QObject;

    /// The process-wide instance, made at first use.
    static AudioLevelTracker& shared();

    /// The stream of `id`, made on first request; every caller of one id gets the same stream.
    LevelSubject* publisher(const std::string& id);

    /// The levels of the last step, in whole: the input of the next decay step.
    const Levels& levelValues() const { return levelValues_; }

    /// Replaces `levelValues` and sends each level to the stream of its id, where one exists;
    /// an id nobody asked for makes no stream.
    void update(Levels levels);

    /// Empties `levelValues` and sends 0 to every stream, so all meters fall at once.
    void reset();

private:
    Levels levelValues_;
    std::map<std::string, std::unique_ptr<LevelSubject>> subjects_;
};

}  // namespace bw
