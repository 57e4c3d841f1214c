#pragma once

#include <qcoro/qcorotask.h>
#include <QSettings>
#include <QUrl>
#include <functional>
#include <memory>
#include <vector>

#include "app/AudioLevelTracker.h"
#include "app/Clock.h"
#include "app/FileViewer.h"
#include "app/RecordingTimer.h"
#include "capture/AudioInputDeviceEnumerator.h"
#include "capture/AudioProcessEnumerator.h"
#include "engine/RecordingEngineSession.h"

namespace bw {

/// Everything `AppState` asks the outside world for. `AppState::shared` gets the real ones;
/// tests give fakes.
struct AppStateDependencies {
    /// The running applications in display order; runs off the main thread, possibly twice at
    /// once. Never fails: a failed read only shortens the list.
    std::function<std::vector<AudioProcessEnumerator::ProcessInfo>()> listProcesses;
    /// The input devices in display order; as `listProcesses`.
    std::function<std::vector<AudioInputDeviceEnumerator::InputDevice>()> listInputDevices;
    /// Calls `changed`, on any thread, whenever the audio server's applications or devices may
    /// have changed (a server that comes back included), until the returned token is dropped.
    /// Empty: the lists follow the periodic refresh only.
    std::function<std::shared_ptr<void>(std::function<void()> changed)> watchSources;
    /// Asks for microphone access; the task resumes on the main thread with the answer.
    std::function<QCoro::Task<bool>()> microphonePermissionRequester;
    /// Makes the engine of one recording; called on the main thread.
    RecordingEngineFactory recordingEngineFactory;
    /// The store of the preferences.
    std::shared_ptr<QSettings> defaults;
    /// Dates and sleeps.
    std::shared_ptr<Clock> clock;
    /// The folder used while the preference names none; any thread.
    std::function<QUrl()> defaultRecordingsFolder;
    /// The desktop's file manager.
    std::shared_ptr<FileViewer> fileViewer;
    /// Where levels and the elapsed time go; null means the process-wide instances.
    AudioLevelTracker* levelTracker = nullptr;
    RecordingTimer* recordingTimer = nullptr;

    /// The real ones: PipeWire and the desktop's workspace, the user's settings of organization
    /// "tallowfields", application "BrightwaveRecord", the system clock, the music folder.
    static AppStateDependencies system();
};

}  // namespace bw
