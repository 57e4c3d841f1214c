#pragma once

#include <qcoro/qcorotask.h>
#include <QDateTime>
#include <QObject>
#include <QSettings>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app/AppStateDependencies.h"
#include "app/SharedResult.h"
#include "app/TaskHandle.h"
#include "engine/RecordingSource.h"

namespace bw {

/// The controller of the program: what can be recorded and what the user ticked, the volumes,
/// the way from a press on the record button to a saved file and back, the messages the user
/// reads, and the preferences. Every view reads and calls this one object; it alone talks to
/// the engine.
///
/// Thread: the main thread only, all of it; only the listings, the file naming and the folder
/// creation run off it, and the engine's work runs on its own queue. Every change signal fires
/// at every assignment of its field, also one that leaves the value equal. Flows interleave
/// only where they await: the permission, the file name, the engine's start and stop, the
/// listings. At most one engine exists at a time.
class AppState : public QObject {
    Q_OBJECT

public:
    using SourceList = std::vector<RecordingSource>;
    using SourceIDSet = std::set<std::string>;
    using VolumeMap = std::map<std::string, float>;
    using OptionalText = std::optional<QString>;
    using OptionalURL = std::optional<QUrl>;

private:
    Q_PROPERTY(SourceList appSources READ appSources NOTIFY appSourcesChanged)
    Q_PROPERTY(SourceList micSources READ micSources NOTIFY micSourcesChanged)
    Q_PROPERTY(SourceIDSet selectedSourceIDs READ selectedSourceIDs NOTIFY selectedSourceIDsChanged)
    Q_PROPERTY(bool isRecording READ isRecording NOTIFY isRecordingChanged)
    Q_PROPERTY(bool isStartingRecording READ isStartingRecording NOTIFY isStartingRecordingChanged)
    Q_PROPERTY(bool isStoppingRecording READ isStoppingRecording NOTIFY isStoppingRecordingChanged)
    Q_PROPERTY(bool isBusy READ isBusy NOTIFY isBusyChanged)
    Q_PROPERTY(OptionalText errorMessage READ errorMessage NOTIFY errorMessageChanged)
    Q_PROPERTY(QStringList sourceWarnings READ sourceWarnings NOTIFY sourceWarningsChanged)
    Q_PROPERTY(OptionalURL lastRecordingURL READ lastRecordingURL NOTIFY lastRecordingURLChanged)
    Q_PROPERTY(OptionalText savedMessage READ savedMessage NOTIFY savedMessageChanged)
    Q_PROPERTY(bool showSelectionHint READ showSelectionHint NOTIFY showSelectionHintChanged)
    Q_PROPERTY(bool passthroughEnabled READ passthroughEnabled WRITE setPassthroughEnabled NOTIFY
                   passthroughEnabledChanged)
    Q_PROPERTY(QString recordingFormatRaw READ recordingFormatRaw WRITE setRecordingFormatRaw NOTIFY
                   recordingFormatRawChanged)
    Q_PROPERTY(QString recordingsFolderPath READ recordingsFolderPath WRITE setRecordingsFolderPath
                   NOTIFY recordingsFolderPathChanged)
    Q_PROPERTY(bool saveSourceFiles READ saveSourceFiles WRITE setSaveSourceFiles NOTIFY
                   saveSourceFilesChanged)

public:
    // The preference keys. The onboarding's is written by the walkthrough; the system audio
    // permission's attempt is kept under SystemAudioPermission::kAttemptedKey.
    static constexpr const char* kPassthroughEnabledKey = "passthroughEnabled";
    static constexpr const char* kRecordingFormatKey = "recordingFormat";
    static constexpr const char* kRecordingsFolderPathKey = "recordingsFolderPath";
    static constexpr const char* kHasCompletedOnboardingKey = "hasCompletedOnboarding";
    static constexpr const char* kSaveSourceFilesKey = "saveSourceFiles";

    static constexpr auto kSourceRefreshInterval = std::chrono::seconds(5);
    /// After the audio server announces a change, the lists are read again this much later, so
    /// that a burst of changes costs one refresh.
    static constexpr auto kSourceWatchSettle = std::chrono::milliseconds(250);
    static constexpr auto kSelectionHintDuration = std::chrono::seconds(3);
    /// How long a start waits for the desktop's answer on the microphone; silence is a no.
    static constexpr auto kMicrophoneAnswerLimit = std::chrono::seconds(10);
    static constexpr auto kLevelStepInterval = std::chrono::milliseconds(100);
    static constexpr auto kTerminationPollInterval = std::chrono::milliseconds(10);
    /// A meter falls by this factor per level step, and to 0 below the floor.
    static constexpr float kLevelDecay = 0.72f;
    static constexpr float kLevelFloor = 0.005f;

    /// Reads the four preferences of its own from `dependencies.defaults`.
    explicit AppState(AppStateDependencies dependencies, QObject* parent = nullptr);
    /// Cancels the periodic refresh, the level step and the selection hint's timer.
    ~AppState() override;

    /// The process-wide instance on the real audio system, made at first use (main thread).
    static AppState& shared();

    // Sources and selection.

    const SourceList& appSources() const { return appSources_; }
    const SourceList& micSources() const { return micSources_; }
    const RecordingSource& systemSource() const { return systemSource_; }
    const SourceIDSet& selectedSourceIDs() const { return selectedSourceIDs_; }
    const VolumeMap& volumes() const { return volumes_; }
    /// The volume a row shows: the stored one, else 1.0.
    float volume(const std::string& sourceID) const;

    /// The ticked sources in the order they reach the engine: System Audio, then (unless System
    /// Audio is ticked) the applications in list order, then the microphones in list order.
    SourceList selectedSources() const;

    /// Takes fresh listings (both at once, off the main thread) into `appSources` and
    /// `micSources` and drops ticks on sources that have gone. While busy the result is thrown
    /// away: lists and ticks stay frozen during a recording. Refreshes may overlap; the last to
    /// finish wins.
    QCoro::Task<void> refreshSources();

    /// Starts the periodic refresh (5 seconds plus the refresh's own time, the first one 5
    /// seconds from now) unless it runs already.
    void startSourceRefreshTimer();
    /// Cancels the periodic refresh; the next `startSourceRefreshTimer` starts a new one.
    void stopSourceRefreshTimer();
    bool isSourceRefreshTimerRunning() const { return sourceRefreshTimerTask_.has_value(); }

    /// Ticks or unticks a source; does nothing while busy. Ticking an application unticks
    /// System Audio and ticking System Audio unticks every application; microphones combine
    /// with either.
    void toggleSource(const RecordingSource& source);

    /// Stores the fader's volume of a source, clamped to 0…1.5 (1.0 for NaN or an infinity),
    /// and hands it to the running engine at once. Volumes are kept for sources that have gone.
    void setVolume(const RecordingSource& source, float volume);

    /// Shows the hint to tick a source, until 3 seconds after the last call.
    void flashSelectionHint();

    // The recording flow.

    bool isRecording() const { return isRecording_; }
    bool isStartingRecording() const { return isStartingRecording_; }
    bool isStoppingRecording() const { return isStoppingRecording_; }
    /// Starting, recording or stopping.
    bool isBusy() const { return isRecording_ || isStartingRecording_ || isStoppingRecording_; }
    const OptionalText& errorMessage() const { return errorMessage_; }
    const QStringList& sourceWarnings() const { return sourceWarnings_; }
    const OptionalURL& lastRecordingURL() const { return lastRecordingURL_; }
    const OptionalText& savedMessage() const { return savedMessage_; }
    bool showSelectionHint() const { return showSelectionHint_; }
    /// The failure of the current recording; kept when the user dismisses `errorMessage`.
    const OptionalText& sessionFailureMessage() const { return sessionFailureMessage_; }
    const std::optional<QDateTime>& recordingStartDate() const { return recordingStartDate_; }
    bool hasEngine() const { return engine_ != nullptr; }

    /// The record button and the menu command: stops while recording, starts when idle, and
    /// ignores a press while starting or stopping. The flow runs in a task of its own, after
    /// this returns.
    void toggleRecording();

    /// Starts a recording of `selectedSources`: asks for the microphone when one is ticked,
    /// names the file (and, with `saveSourceFiles`, one file per source beside it), makes and
    /// starts the engine. Failures end in `errorMessage`; nothing throws. Does nothing while busy
    /// or with nothing ticked. Names reserved for sources that did not start are freed again.
    QCoro::Task<void> startRecording();

    /// Stops the running recording and waits for the finished file; a call while a stop runs
    /// waits for that one and does nothing more, a call with no recording does nothing. Ends
    /// with the saved message (unless the recording failed), a warning per silent source and a
    /// refresh of the lists. A source's own file that failed is a warning at the start or here,
    /// whichever comes first after the failure.
    QCoro::Task<void> stopRecording();

    /// For the quit: waits (in 10 ms steps) for a start under way, then for the stop.
    QCoro::Task<void> stopForTermination();

    /// A failure the engine reported: shown at once; the recording stops if it runs (a start
    /// under way stops it as soon as the engine has started).
    QCoro::Task<void> handleEngineFailure(QString message);

    /// Starts the timer from `recordingStartDate` and the level step every 100 ms, the first
    /// one at once.
    void startLevelUpdates();
    /// Stops the timer (it keeps showing the last time) and the level step.
    void stopLevelUpdates();
    /// One level step: the peaks since the last step, against the previous levels decayed by
    /// 0.72 (0 below 0.005), the larger of the two per id, all to the level tracker.
    void pollLevels();

    // Messages the user dismisses.

    void dismissErrorMessage();
    void dismissSavedMessage();
    /// Removes every warning equal to `warning`.
    void dismissSourceWarning(const QString& warning);

    // Preferences.

    bool passthroughEnabled() const { return passthroughEnabled_; }
    void setPassthroughEnabled(bool enabled);
    /// The stored format text, kept as found; readers take m4a for anything but "m4a", "wav",
    /// "aiff".
    const QString& recordingFormatRaw() const { return recordingFormatRaw_; }
    void setRecordingFormatRaw(const QString& raw);
    /// An absolute folder path; empty means the default folder.
    const QString& recordingsFolderPath() const { return recordingsFolderPath_; }
    void setRecordingsFolderPath(const QString& path);
    /// Every source of a recording also goes to a file of its own beside the mix. Read at the
    /// start of a recording; stored as a boolean, and anything else reads as false.
    bool saveSourceFiles() const { return saveSourceFiles_; }
    void setSaveSourceFiles(bool enabled);
    /// The onboarding's mark, read from the store at each call.
    bool hasCompletedOnboarding() const;
    void markOnboardingCompleted();
    /// The store itself, for the objects that keep their own keys there.
    QSettings* defaults() const { return defaults_.get(); }
    /// The clock the application's periodic tasks sleep on (the walkthrough's schedule too).
    Clock& clock() const { return *clock_; }

    /// The folder in force: the preference's folder, else the default one. Computed at each read.
    QUrl recordingsFolderURL() const;

    /// Creates `folder` (off the main thread) and opens it in the file manager; a failure of
    /// either ends in `errorMessage`. A success leaves an earlier message alone.
    QCoro::Task<void> openRecordingsFolder(QUrl folder);

    /// Shows the last recording's file in the file manager; nothing before the first recording.
    void revealLastRecording();

signals:
    void appSourcesChanged();
    void micSourcesChanged();
    void selectedSourceIDsChanged();
    void isRecordingChanged();
    void isStartingRecordingChanged();
    void isStoppingRecordingChanged();
    /// Fires with each of the three flags' signals.
    void isBusyChanged();
    void errorMessageChanged();
    void sourceWarningsChanged();
    void lastRecordingURLChanged();
    void savedMessageChanged();
    void showSelectionHintChanged();
    void passthroughEnabledChanged();
    void recordingFormatRawChanged();
    void recordingsFolderPathChanged();
    void saveSourceFilesChanged();

private:
    void setAppSources(SourceList sources);
    void setMicSources(SourceList sources);
    void setSelectedSourceIDs(SourceIDSet ids);
    void setIsRecording(bool value);
    void setIsStartingRecording(bool value);
    void setIsStoppingRecording(bool value);
    void setErrorMessage(OptionalText message);
    void setSourceWarnings(QStringList warnings);
    void setLastRecordingURL(OptionalURL url);
    void setSavedMessage(OptionalText message);
    void setShowSelectionHint(bool value);
    /// Appends the engine's source file failures not shown yet to the warnings.
    void showSourceFileFailures(const RecordingEngineSession& engine);

    QCoro::Task<void> refreshPeriodically(CancellationToken cancellation);
    /// A change announced by the audio server, on the main thread: a refresh soon, while the
    /// periodic one runs (a window shows the lists) and none is already on its way.
    void sourcesMayHaveChanged();
    QCoro::Task<void> refreshSoon(CancellationToken cancellation);
    QCoro::Task<void> hideSelectionHintLater(CancellationToken cancellation);
    /// Stores a preference and puts it on disk at once.
    void writeDefault(const char* key, const QVariant& value);
    /// The microphone requester's answer, or false once `kMicrophoneAnswerLimit` has passed.
    QCoro::Task<bool> askForMicrophone();
    QCoro::Task<void> stepLevels(CancellationToken cancellation);
    static QCoro::Task<void> finishEngineStop(std::shared_ptr<RecordingEngineSession> engine,
                                              SharedResult<QUrl> stopped);

    // Fields in the order of the controller's description.
    SourceList appSources_;
    SourceList micSources_;
    const RecordingSource systemSource_;
    SourceIDSet selectedSourceIDs_;
    VolumeMap volumes_;
    bool isRecording_ = false;
    bool isStartingRecording_ = false;
    bool isStoppingRecording_ = false;
    OptionalText errorMessage_;
    QStringList sourceWarnings_;
    OptionalURL lastRecordingURL_;
    OptionalText savedMessage_;
    bool showSelectionHint_ = false;
    std::optional<TaskHandle> selectionHintTask_;
    bool passthroughEnabled_ = false;
    QString recordingFormatRaw_;
    QString recordingsFolderPath_;
    bool saveSourceFiles_ = false;
    std::shared_ptr<RecordingEngineSession> engine_;
    std::size_t sourceFileFailuresShown_ = 0;  // of the running engine's, already warnings
    std::optional<SharedResult<QUrl>> stoppingTask_;
    OptionalText sessionFailureMessage_;
    std::optional<QDateTime> recordingStartDate_;
    std::optional<TaskHandle> levelTimerTask_;
    std::optional<TaskHandle> sourceRefreshTimerTask_;
    std::optional<TaskHandle> watchRefreshTask_;
    std::shared_ptr<void> sourceWatch_;  // last: it goes first, before what its calls reach
    const std::function<QCoro::Task<bool>()> microphonePermissionRequester_;
    const RecordingEngineFactory recordingEngineFactory_;

    // What the rest of the world lends us.
    AppStateDependencies dependencies_;
    std::shared_ptr<QSettings> defaults_;
    std::shared_ptr<Clock> clock_;
    AudioLevelTracker* levelTracker_;
    RecordingTimer* recordingTimer_;
};

}  // namespace bw
