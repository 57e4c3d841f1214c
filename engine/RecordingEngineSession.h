#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/FailureCallback.h"
#include "engine/LevelStore.h"
#include "engine/RecordingEngineConfiguration.h"
#include "engine/RecordingSource.h"
#include "platform/base/Error.h"
#include "platform/base/Expected.h"

namespace bw {

/// One recording as the application state sees it. The only implementation is `RecordingEngine`;
/// tests of the application give their own.
///
/// Thread: the members are called from the application's main thread; `start` and `stop` run their
/// work elsewhere and call their completion on the engine's own queue (the caller hops back).
class RecordingEngineSession {
public:
    using StartCompletion = std::function<void(Expected<void, ErrorRef> result)>;
    using StopCompletion = std::function<void(std::filesystem::path fileURL)>;

    virtual ~RecordingEngineSession() = default;

    /// Peaks per source id and "master", drained by the level task.
    virtual LevelStore& levels() = 0;

    /// Source id → "name: reason" for each source whose capture failed to start. Read after the
    /// start has completed.
    virtual std::map<std::string, std::string> sourceFailures() const = 0;

    /// Sources that started but never delivered a buffer, in order. Read after the stop.
    virtual std::vector<RecordingSource> sourcesWithoutAudio() const = 0;

    /// "name: reason" for each source whose own file could not be made or lost audio, in the order
    /// they happened; the recording itself goes on. Grows during the recording; any thread.
    virtual std::vector<std::string> sourceFileFailures() const = 0;

    /// Receives the failures of a running recording. Set once, before `start`.
    virtual void setErrorHandler(FailureCallback handler) = 0;

    /// Starts the recording. The completion gets success, a `RecordingEngineError`, or the audio
    /// graph's own error when it cannot start.
    virtual void start(StartCompletion completion) = 0;

    /// Stops the recording; the completion gets the file's location once the file, and every
    /// source's own file, is complete.
    virtual void stop(StopCompletion completion) = 0;

    /// Changes one source's fader; queued, returns at once. Unknown ids are ignored.
    virtual void setVolume(float volume, const std::string& sourceID) = 0;
};

/// Makes the session of one recording.
using RecordingEngineFactory =
    std::function<std::shared_ptr<RecordingEngineSession>(const RecordingEngineConfiguration&)>;

}  // namespace bw
