#include "app/AppState.h"

#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>

#include "app/MainThreadCompletion.h"
#include "app/OffMainThread.h"
#include "app/OutputNaming.h"
#include "app/SharedResult.h"
#include "engine/RecordingFormat.h"

namespace bw {

namespace {

RecordingFormat formatOf(const QString& raw) {
    return RecordingFormat::fromRawValue(raw.toStdString()).value_or(RecordingFormat::m4a);
}

bool isMicrophone(const RecordingSource& source) {
    return std::holds_alternative<RecordingSource::Microphone>(source.kind);
}

QUrl urlOf(const std::filesystem::path& path) {
    return QUrl::fromLocalFile(QFile::decodeName(path.c_str()));
}

QString describe(const ErrorRef& error) {
    return error ? QString::fromStdString(error->localizedDescription()) : QString();
}

QCoro::Task<Expected<void, ErrorRef>> startEngine(std::shared_ptr<RecordingEngineSession> engine) {
    MainThreadCompletion<Expected<void, ErrorRef>> started;
    engine->start(started.callback());
    co_return co_await started;
}

/// A failed start leaves the empty file that reserved the name; nothing else may be removed.
void removeReservation(const QUrl& file) {
    const QFileInfo info(file.toLocalFile());
    if (info.isFile() && info.size() == 0) {
        QFile::remove(info.filePath());
    }
}

void removeReservation(const std::filesystem::path& file) {
    removeReservation(urlOf(file));
}

/// A boolean preference as stored; anything but a boolean or the text "true" is false.
bool storedFlag(const QVariant& value) {
    if (value.typeId() == QMetaType::Bool) {
        return value.toBool();
    }
    return value.typeId() == QMetaType::QString &&
           value.toString().compare(QLatin1String("true"), Qt::CaseInsensitive) == 0;
}

/// The names a start reserves: the recording's and, by source id, each source's own.
struct ReservedNames {
    QUrl recording;
    std::map<std::string, std::filesystem::path> sources;
};

}  // namespace

AppState::AppState(AppStateDependencies dependencies, QObject* parent)
    : QObject(parent),
      systemSource_(RecordingSource::systemAudio()),
      microphonePermissionRequester_(dependencies.microphonePermissionRequester),
      recordingEngineFactory_(dependencies.recordingEngineFactory),
      dependencies_(std::move(dependencies)),
      defaults_(dependencies_.defaults),
      clock_(dependencies_.clock),
      levelTracker_(dependencies_.levelTracker ? dependencies_.levelTracker
                                               : &AudioLevelTracker::shared()),
      recordingTimer_(dependencies_.recordingTimer ? dependencies_.recordingTimer
                                                   : &RecordingTimer::shared()) {
    passthroughEnabled_ = defaults_->value(kPassthroughEnabledKey, false).toBool();
    recordingFormatRaw_ = defaults_->value(kRecordingFormatKey, QStringLiteral("m4a")).toString();
    recordingsFolderPath_ = defaults_->value(kRecordingsFolderPathKey, QString()).toString();
    saveSourceFiles_ = storedFlag(defaults_->value(kSaveSourceFilesKey));
    if (dependencies_.watchSources) {
        // The relay lives as long as the watch's callback may run; it is deleted on its thread.
        std::shared_ptr<QObject> relay(new QObject, [](QObject* object) { object->deleteLater(); });
        QPointer<AppState> self(this);
        sourceWatch_ = dependencies_.watchSources([relay, self] {
            QMetaObject::invokeMethod(
                relay.get(),
                [self] {
                    if (self) {
                        self->sourcesMayHaveChanged();
                    }
                },
                Qt::QueuedConnection);
        });
    }
}

AppState::~AppState() {
    sourceWatch_.reset();
    if (sourceRefreshTimerTask_) {
        sourceRefreshTimerTask_->cancel();
    }
    if (watchRefreshTask_) {
        watchRefreshTask_->cancel();
    }
    if (levelTimerTask_) {
        levelTimerTask_->cancel();
    }
    if (selectionHintTask_) {
        selectionHintTask_->cancel();
    }
}

AppState& AppState::shared() {
    static auto* state = new AppState(AppStateDependencies::system());  // lives to the end
    return *state;
}

// MARK: Sources and selection

float AppState::volume(const std::string& sourceID) const {
    const auto found = volumes_.find(sourceID);
    return found == volumes_.end() ? 1.0f : found->second;
}

AppState::SourceList AppState::selectedSources() const {
    SourceList selected;
    const auto ticked = [this](const RecordingSource& source) {
        return selectedSourceIDs_.contains(source.id);
    };
    if (ticked(systemSource_)) {
        selected.push_back(systemSource_);
    } else {
        std::copy_if(appSources_.begin(), appSources_.end(), std::back_inserter(selected), ticked);
    }
    std::copy_if(micSources_.begin(), micSources_.end(), std::back_inserter(selected), ticked);
    return selected;
}

QCoro::Task<void> AppState::refreshSources() {
    QPointer<AppState> self(this);
    // Both listings start before the first wait.
    auto processesTask = runOffMainThread(dependencies_.listProcesses);
    auto devicesTask = runOffMainThread(dependencies_.listInputDevices);
    const auto processes = co_await processesTask;
    const auto devices = co_await devicesTask;
    if (!self) {
        co_return;
    }

    SourceList apps;
    std::set<std::string> seen;
    for (const auto& process : processes) {
        auto source = RecordingSource::application(process.pid, process.bundleID, process.name,
                                                   process.isPlayingAudio);
        if (seen.insert(source.id).second) {
            apps.push_back(std::move(source));
        }
    }
    SourceList mics;
    for (const auto& device : devices) {
        mics.push_back(RecordingSource::microphone(device.uid, device.name));
    }

    // Tested after the listings: a recording may have begun while they ran.
    if (isBusy()) {
        co_return;
    }
    setAppSources(std::move(apps));
    setMicSources(std::move(mics));

    SourceIDSet valid{systemSource_.id};
    for (const auto& source : appSources_) {
        valid.insert(source.id);
    }
    for (const auto& source : micSources_) {
        valid.insert(source.id);
    }
    SourceIDSet kept;
    std::set_intersection(selectedSourceIDs_.begin(), selectedSourceIDs_.end(), valid.begin(),
                          valid.end(), std::inserter(kept, kept.end()));
    setSelectedSourceIDs(std::move(kept));
}

void AppState::startSourceRefreshTimer() {
    if (sourceRefreshTimerTask_) {
        return;
    }
    sourceRefreshTimerTask_ = TaskHandle::start(
        [this](CancellationToken token) { return refreshPeriodically(std::move(token)); });
}

void AppState::stopSourceRefreshTimer() {
    if (sourceRefreshTimerTask_) {
        sourceRefreshTimerTask_->cancel();
        sourceRefreshTimerTask_.reset();
    }
}

QCoro::Task<void> AppState::refreshPeriodically(CancellationToken cancellation) {
    auto clock = clock_;
    QPointer<AppState> self(this);
    for (;;) {
        if (cancellation->isCancelled()) {
            co_return;
        }
        if (!co_await clock->sleep(kSourceRefreshInterval, cancellation)) {
            co_return;
        }
        if (cancellation->isCancelled() || !self) {
            co_return;
        }
        co_await refreshSources();
    }
}

void AppState::sourcesMayHaveChanged() {
    if (!sourceRefreshTimerTask_ || (watchRefreshTask_ && !watchRefreshTask_->isFinished())) {
        return;
    }
    watchRefreshTask_ = TaskHandle::start(
        [this](CancellationToken token) { return refreshSoon(std::move(token)); });
}

QCoro::Task<void> AppState::refreshSoon(CancellationToken cancellation) {
    auto clock = clock_;
    QPointer<AppState> self(this);
    if (!co_await clock->sleep(kSourceWatchSettle, cancellation) || !self) {
        co_return;
    }
    co_await refreshSources();
}

void AppState::toggleSource(const RecordingSource& source) {
    if (isBusy()) {
        return;
    }
    SourceIDSet ids = selectedSourceIDs_;
    if (ids.erase(source.id) > 0) {
        setSelectedSourceIDs(std::move(ids));
        return;
    }
    ids.insert(source.id);
    if (std::holds_alternative<RecordingSource::App>(source.kind)) {
        ids.erase(systemSource_.id);
    } else if (std::holds_alternative<RecordingSource::SystemAudio>(source.kind)) {
        for (const auto& app : appSources_) {
            ids.erase(app.id);
        }
    }
    setSelectedSourceIDs(std::move(ids));
}

void AppState::setVolume(const RecordingSource& source, float volume) {
    const float stored = std::isfinite(volume) ? std::clamp(volume, 0.0f, 1.5f) : 1.0f;
    volumes_[source.id] = stored;
    if (engine_) {
        engine_->setVolume(stored, source.id);
    }
}

void AppState::flashSelectionHint() {
    if (selectionHintTask_) {
        selectionHintTask_->cancel();
    }
    setShowSelectionHint(true);
    selectionHintTask_ = TaskHandle::start(
        [this](CancellationToken token) { return hideSelectionHintLater(std::move(token)); });
}

namespace {

QCoro::Task<void> deliver(SharedResult<bool> answer, std::function<QCoro::Task<bool>()> requester) {
    const bool granted = co_await requester();
    answer.set(granted);
}

QCoro::Task<void> refuseAfter(SharedResult<bool> answer, std::shared_ptr<Clock> clock,
                              std::chrono::milliseconds duration, CancellationToken cancellation) {
    const bool slept = co_await clock->sleep(duration, cancellation);
    if (slept) {
        answer.set(false);
    }
}

}  // namespace

QCoro::Task<bool> AppState::askForMicrophone() {
    // A desktop dialog that never answers must not leave the start hanging: silence is a no.
    SharedResult<bool> answer;
    TaskHandle asking =
        TaskHandle::start([answer, requester = microphonePermissionRequester_](CancellationToken) {
            return deliver(answer, requester);
        });
    TaskHandle limit = TaskHandle::start([answer, clock = clock_](CancellationToken token) {
        return refuseAfter(answer, clock, kMicrophoneAnswerLimit, std::move(token));
    });
    const bool granted = co_await answer;
    limit.cancel();
    co_return granted;
}

QCoro::Task<void> AppState::hideSelectionHintLater(CancellationToken cancellation) {
    QPointer<AppState> self(this);
    auto clock = clock_;
    co_await clock->sleep(kSelectionHintDuration, cancellation);
    if (cancellation->isCancelled() || !self) {
        co_return;
    }
    setShowSelectionHint(false);
}

// MARK: Recording flow

void AppState::toggleRecording() {
    if (isRecording_) {
        MainThread::post([self = QPointer<AppState>(this)] {
            if (self) {
                self->stopRecording();
            }
        });
        return;
    }
    if (isStartingRecording_ || isStoppingRecording_) {
        return;
    }
    MainThread::post([self = QPointer<AppState>(this)] {
        if (self) {
            self->startRecording();
        }
    });
}

QCoro::Task<void> AppState::startRecording() {
    QPointer<AppState> self(this);
    if (isBusy() || selectedSources().empty()) {
        co_return;
    }
    setIsStartingRecording(true);
    setErrorMessage(std::nullopt);
    sessionFailureMessage_.reset();
    setSavedMessage(std::nullopt);
    setSourceWarnings({});

    const auto wanted = selectedSources();
    if (std::any_of(wanted.begin(), wanted.end(), isMicrophone)) {
        const bool granted = co_await askForMicrophone();
        if (!self) {
            co_return;
        }
        if (!granted) {
            setErrorMessage(
                tr("Microphone access was denied. Allow it in your desktop’s privacy settings, "
                   "under Microphone."));
            setIsStartingRecording(false);
            co_return;
        }
    }

    // The user may have stopped ticking, or another flow may have moved on, during the question.
    if (isRecording_ || isStoppingRecording_ || selectedSources().empty()) {
        setIsStartingRecording(false);
        co_return;
    }

    RecordingEngineConfiguration configuration;
    configuration.sources = selectedSources();
    const QUrl folder = recordingsFolderURL();
    configuration.format = formatOf(recordingFormatRaw_);
    const QString extension = QString::fromStdString(configuration.format.rawValue());

    const QDateTime date = clock_->now();
    std::vector<RecordingSource> ownFiles;  // the sources that also get a file of their own
    if (saveSourceFiles_) {
        ownFiles = configuration.sources;
    }
    auto naming = [folder, date, extension, ownFiles] {
        ReservedNames names;
        names.recording = OutputNaming::makeOutputURL(folder, date, extension);
        names.sources = OutputNaming::makeSourceFileURLs(names.recording, ownFiles);
        return names;
    };
    const ReservedNames names = co_await runOffMainThread(std::move(naming));
    if (!self) {
        co_return;
    }
    const QUrl outputURL = names.recording;
    const auto releaseNames = [&names] {
        removeReservation(names.recording);
        for (const auto& [id, file] : names.sources) {
            removeReservation(file);
        }
    };

    configuration.volumes = volumes_;
    configuration.passthroughEnabled = passthroughEnabled_;
    configuration.fileURL = QFile::encodeName(outputURL.toLocalFile()).toStdString();
    configuration.sourceFileURLs = names.sources;

    std::shared_ptr<RecordingEngineSession> engine = recordingEngineFactory_(configuration);
    if (!engine) {
        releaseNames();
        setIsStartingRecording(false);
        co_return;
    }
    // Any thread, any time from the start on: only schedule the handling on the main thread.
    auto weakSelf = std::make_shared<QPointer<AppState>>(this);
    engine->setErrorHandler([weakSelf](const std::string& message) {
        MainThread::post([weakSelf, message] {
            if (AppState* state = weakSelf->data()) {
                state->handleEngineFailure(QString::fromStdString(message));
            }
        });
    });

    const auto started = co_await startEngine(engine);
    if (!self) {
        co_return;
    }
    if (!started) {
        releaseNames();
        setErrorMessage(describe(started.error()));
        setIsStartingRecording(false);
        co_return;
    }

    engine_ = engine;
    sourceFileFailuresShown_ = 0;
    QStringList warnings;
    const auto failures = engine->sourceFailures();
    for (const auto& [id, failure] : failures) {
        warnings.append(QString::fromStdString(failure));
        // A source that didn't start has no file of its own.
        if (const auto own = names.sources.find(id); own != names.sources.end()) {
            removeReservation(own->second);
        }
    }
    setSourceWarnings(std::move(warnings));
    showSourceFileFailures(*engine);
    setIsRecording(true);
    recordingStartDate_ = clock_->now();
    startLevelUpdates();

    // A failure reported while start() ran could only leave its message: stop now.
    if (sessionFailureMessage_) {
        co_await stopRecording();
        if (!self) {
            co_return;
        }
    }
    setIsStartingRecording(false);
}

QCoro::Task<void> AppState::finishEngineStop(std::shared_ptr<RecordingEngineSession> engine,
                                             SharedResult<QUrl> stopped) {
    MainThreadCompletion<std::filesystem::path> finished;
    engine->stop(finished.callback());
    const std::filesystem::path file = co_await finished;
    stopped.set(urlOf(file));
}

QCoro::Task<void> AppState::stopRecording() {
    QPointer<AppState> self(this);
    if (stoppingTask_) {
        const SharedResult<QUrl> running = *stoppingTask_;
        co_await running;
        co_return;
    }
    if (!isRecording_ || !engine_) {
        co_return;
    }
    setIsRecording(false);
    setIsStoppingRecording(true);
    stopLevelUpdates();
    levelTracker_->reset();

    const auto engine = engine_;
    const SharedResult<QUrl> stopped;
    stoppingTask_ = stopped;
    finishEngineStop(engine, stopped);  // runs on by itself; `stopped` carries its end
    const QUrl file = co_await stopped;
    if (!self) {
        co_return;
    }

    engine_.reset();
    stoppingTask_.reset();
    setIsStoppingRecording(false);
    setLastRecordingURL(file);

    if (!sessionFailureMessage_) {
        const QUrl folder = file.adjusted(QUrl::RemoveFilename | QUrl::StripTrailingSlash);
        setSavedMessage(tr("Recording saved to %1").arg(OutputNaming::displayPath(folder)));
        for (const auto& silent : engine->sourcesWithoutAudio()) {
            QStringList warnings = sourceWarnings_;
            warnings.append(tr("No audio was received from %1 during this recording.")
                                .arg(QString::fromStdString(silent.name)));
            setSourceWarnings(std::move(warnings));
        }
    }
    // Whatever became of the mix, the user learns which sources' own files are incomplete.
    showSourceFileFailures(*engine);
    // The lists were frozen during the recording.
    co_await refreshSources();
}

QCoro::Task<void> AppState::stopForTermination() {
    QPointer<AppState> self(this);
    auto clock = clock_;
    while (self && self->isStartingRecording_) {
        co_await clock->sleep(kTerminationPollInterval, nullptr);
    }
    if (!self) {
        co_return;
    }
    co_await stopRecording();
}

QCoro::Task<void> AppState::handleEngineFailure(QString message) {
    sessionFailureMessage_ = message;
    setErrorMessage(message);
    setSavedMessage(std::nullopt);
    if (isRecording_) {
        co_await stopRecording();
    }
}

void AppState::startLevelUpdates() {
    if (recordingStartDate_) {
        recordingTimer_->start(*recordingStartDate_);
    }
    if (levelTimerTask_) {
        levelTimerTask_->cancel();
    }
    levelTimerTask_ =
        TaskHandle::start([this](CancellationToken token) { return stepLevels(std::move(token)); });
}

void AppState::stopLevelUpdates() {
    recordingTimer_->stop();
    if (levelTimerTask_) {
        levelTimerTask_->cancel();
        levelTimerTask_.reset();
    }
    recordingStartDate_.reset();
}

QCoro::Task<void> AppState::stepLevels(CancellationToken cancellation) {
    auto clock = clock_;
    while (!cancellation->isCancelled()) {
        pollLevels();
        if (!co_await clock->sleep(kLevelStepInterval, cancellation)) {
            co_return;
        }
    }
}

void AppState::pollLevels() {
    if (!engine_) {
        return;
    }
    const auto peaks = engine_->levels().drain();
    AudioLevelTracker::Levels levels;
    for (const auto& [id, previous] : levelTracker_->levelValues()) {
        const float decayed = previous * kLevelDecay;
        levels[id] = decayed < kLevelFloor ? 0.0f : decayed;
    }
    for (const auto& [id, peak] : peaks) {
        float& level = levels[id];  // 0 for an id new in this step
        level = std::max(level, peak);
    }
    levelTracker_->update(std::move(levels));
}

// MARK: Messages

void AppState::dismissErrorMessage() {
    setErrorMessage(std::nullopt);
}

void AppState::dismissSavedMessage() {
    setSavedMessage(std::nullopt);
}

void AppState::dismissSourceWarning(const QString& warning) {
    QStringList warnings = sourceWarnings_;
    warnings.removeAll(warning);
    setSourceWarnings(std::move(warnings));
}

// MARK: Preferences and the recordings folder

void AppState::writeDefault(const char* key, const QVariant& value) {
    defaults_->setValue(QString::fromLatin1(key), value);
    defaults_->sync();  // on disk now, however the program ends
}

void AppState::setPassthroughEnabled(bool enabled) {
    passthroughEnabled_ = enabled;
    writeDefault(kPassthroughEnabledKey, enabled);
    emit passthroughEnabledChanged();
}

void AppState::setRecordingFormatRaw(const QString& raw) {
    recordingFormatRaw_ = raw;
    writeDefault(kRecordingFormatKey, raw);
    emit recordingFormatRawChanged();
}

void AppState::setRecordingsFolderPath(const QString& path) {
    recordingsFolderPath_ = path;
    writeDefault(kRecordingsFolderPathKey, path);
    emit recordingsFolderPathChanged();
}

void AppState::setSaveSourceFiles(bool enabled) {
    saveSourceFiles_ = enabled;
    writeDefault(kSaveSourceFilesKey, enabled);
    emit saveSourceFilesChanged();
}

bool AppState::hasCompletedOnboarding() const {
    return defaults_->value(kHasCompletedOnboardingKey, false).toBool();
}

void AppState::markOnboardingCompleted() {
    writeDefault(kHasCompletedOnboardingKey, true);
}

QUrl AppState::recordingsFolderURL() const {
    if (!recordingsFolderPath_.isEmpty()) {
        return QUrl::fromLocalFile(recordingsFolderPath_);
    }
    return dependencies_.defaultRecordingsFolder ? dependencies_.defaultRecordingsFolder()
                                                 : OutputNaming::defaultRecordingsFolder();
}

QCoro::Task<void> AppState::openRecordingsFolder(QUrl folder) {
    QPointer<AppState> self(this);
    auto creation = [folder]() -> OptionalText {
        std::error_code error;
        std::filesystem::create_directories(QFile::encodeName(folder.toLocalFile()).toStdString(),
                                            error);
        if (error) {
            return QString::fromStdString(error.message());
        }
        return std::nullopt;
    };
    const auto failure = co_await runOffMainThread(std::move(creation));
    if (!self) {
        co_return;
    }
    if (failure) {
        setErrorMessage(tr("The recordings folder could not be created: %1").arg(*failure));
        co_return;
    }
    if (!dependencies_.fileViewer || !dependencies_.fileViewer->openFolder(folder)) {
        setErrorMessage(tr("The recordings folder could not be opened."));
    }
}

void AppState::revealLastRecording() {
    if (lastRecordingURL_ && dependencies_.fileViewer) {
        dependencies_.fileViewer->selectFile(*lastRecordingURL_);
    }
}

// MARK: Observable fields

void AppState::setAppSources(SourceList sources) {
    appSources_ = std::move(sources);
    emit appSourcesChanged();
}

void AppState::setMicSources(SourceList sources) {
    micSources_ = std::move(sources);
    emit micSourcesChanged();
}

void AppState::setSelectedSourceIDs(SourceIDSet ids) {
    selectedSourceIDs_ = std::move(ids);
    emit selectedSourceIDsChanged();
}

void AppState::setIsRecording(bool value) {
    isRecording_ = value;
    emit isRecordingChanged();
    emit isBusyChanged();
}

void AppState::setIsStartingRecording(bool value) {
    isStartingRecording_ = value;
    emit isStartingRecordingChanged();
    emit isBusyChanged();
}

void AppState::setIsStoppingRecording(bool value) {
    isStoppingRecording_ = value;
    emit isStoppingRecordingChanged();
    emit isBusyChanged();
}

void AppState::setErrorMessage(OptionalText message) {
    errorMessage_ = std::move(message);
    emit errorMessageChanged();
}

void AppState::setSourceWarnings(QStringList warnings) {
    sourceWarnings_ = std::move(warnings);
    emit sourceWarningsChanged();
}

void AppState::setLastRecordingURL(OptionalURL url) {
    lastRecordingURL_ = std::move(url);
    emit lastRecordingURLChanged();
}

void AppState::setSavedMessage(OptionalText message) {
    savedMessage_ = std::move(message);
    emit savedMessageChanged();
}

void AppState::setShowSelectionHint(bool value) {
    showSelectionHint_ = value;
    emit showSelectionHintChanged();
}

void AppState::showSourceFileFailures(const RecordingEngineSession& engine) {
    const auto failures = engine.sourceFileFailures();
    if (failures.size() <= sourceFileFailuresShown_) {
        return;
    }
    QStringList warnings = sourceWarnings_;
    for (std::size_t i = sourceFileFailuresShown_; i < failures.size(); ++i) {
        warnings.append(QString::fromStdString(failures[i]));
    }
    sourceFileFailuresShown_ = failures.size();
    setSourceWarnings(std::move(warnings));
}

}  // namespace bw
