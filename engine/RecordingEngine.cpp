#include "engine/RecordingEngine.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <thread>

#include "engine/GainLaw.h"
#include "engine/RecordingEngineError.h"
#include "platform/av/AudioFile.h"
#include "platform/base/Localization.h"
#include "platform/base/SystemError.h"

namespace bw {

RecordingEngine::RecordingEngine(Configuration configuration,
                                 std::shared_ptr<AudioHardware> hardware,
                                 CaptureFactory captureFactory,
                                 std::shared_ptr<AudioMixerNode> recordMixer)
    : configuration_(std::move(configuration)),
      levels_(std::make_shared<LevelStore>()),
      hardware_(std::move(hardware)),
      captureFactory_(std::move(captureFactory)),
      engine_(std::make_unique<AudioEngine>(hardware_)),
      recordMixer_(std::move(recordMixer)),
      stemFailures_(std::make_shared<StemFailures>()),
      canonicalFormat_(*AudioFormat::standard(48000.0, 2)),
      controlQueue_(std::make_shared<SerialQueue>(kControlQueueLabel)) {}

RecordingEngine::~RecordingEngine() {
    if (configChangeObserver_) {
        engine_->removeConfigurationChangeObserver(*configChangeObserver_);
    }
}

RecordingEngineFactory RecordingEngine::makeFactory(std::shared_ptr<AudioHardware> hardware,
                                                    CaptureFactory captureFactory) {
    return [hardware, captureFactory](const Configuration& configuration) {
        return std::make_shared<RecordingEngine>(configuration, hardware, captureFactory);
    };
}

std::map<std::string, std::string> RecordingEngine::sourceFailures() const {
    return sourceFailures_;
}

std::vector<RecordingSource> RecordingEngine::sourcesWithoutAudio() const {
    std::vector<RecordingSource> silent;
    auto compute = [&] {
        for (const auto& active : activeSources_) {
            if (!active.audioReceived->received()) {
                silent.push_back(active.source);
            }
        }
    };
    if (controlQueue_->isCurrent()) {
        compute();
    } else {
        controlQueue_->sync(compute);
    }
    return silent;
}

std::vector<std::string> RecordingEngine::sourceFileFailures() const {
    std::lock_guard guard(stemFailures_->lock);
    return stemFailures_->texts;
}

void RecordingEngine::StemFailures::add(std::string text) {
    std::lock_guard guard(lock);
    texts.push_back(std::move(text));
}

RecordingEngine::Statistics RecordingEngine::statistics() const {
    Statistics statistics;
    controlQueue_->sync([&] {
        for (const auto& active : activeSources_) {
            statistics.droppedCaptureBuffers += active.scheduler->droppedBuffers();
            if (active.stemWriter) {
                statistics.droppedMixBuffers += active.stemWriter->droppedBuffers();
            }
            if (active.stemMixer) {
                statistics.droppedMixFrames += active.stemMixer->tapDroppedFrames();
            }
        }
        if (lastWriter_) {
            statistics.framesWritten = lastWriter_->framesWritten();
            statistics.droppedMixBuffers += lastWriter_->droppedBuffers();
        }
        statistics.droppedMixFrames += recordMixer_->tapDroppedFrames();
    });
    return statistics;
}

void RecordingEngine::start(StartCompletion completion) {
    controlQueue_->async([self = shared_from_this(), completion = std::move(completion)] {
        auto result = self->runStartSequence();
        if (completion) {
            completion(std::move(result));
        }
    });
}

void RecordingEngine::stop(StopCompletion completion) {
    controlQueue_->async([self = shared_from_this(), completion = std::move(completion)]() mutable {
        self->runStopSequence(std::move(completion));
    });
}

void RecordingEngine::setVolume(float volume, const std::string& sourceID) {
    controlQueue_->async([weak = weak_from_this(), volume, sourceID] {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        for (const auto& active : self->activeSources_) {
            if (active.source.id == sourceID) {
                self->applyGainLaw(active, volume);
                return;
            }
        }
    });
}

Expected<void, ErrorRef> RecordingEngine::runStartSequence() {
    // 1. A capture per source, in order; a failing source only leaves its failure text.
    std::vector<std::pair<RecordingSource, std::shared_ptr<Capture>>> started;
    for (const auto& source : configuration_.sources) {
        auto capture =
            captureFactory_ ? captureFactory_(source, configuration_.passthroughEnabled) : nullptr;
        if (!capture) {
            // A source nothing can capture is reported like one whose capture failed to start.
            sourceFailures_[source.id] =
                source.name + ": " +
                localized("RecordingEngine", "This source could not be opened for recording.");
            continue;
        }
        capture->setFailureHandler(failureCallback());
        auto result = capture->start();
        if (!result) {
            const auto& error = result.error();
            sourceFailures_[source.id] =
                source.name + ": " + (error ? error->localizedDescription() : std::string());
            continue;
        }
        started.emplace_back(source, std::move(capture));
    }
    if (started.empty()) {
        return Unexpected(makeError(RecordingEngineError::noSourcesStarted(sourceFailures_)));
    }

    // 2. The graph: every source through a player and a gain unit into the record mixer.
    engine_->attach(recordMixer_);
    engine_->connect(recordMixer_, engine_->mainMixerNode(), canonicalFormat_);
    if (!configuration_.passthroughEnabled) {
        engine_->enableManualRenderingMode(canonicalFormat_);
    }
    engine_->mainMixerNode()->setOutputVolume(configuration_.passthroughEnabled ? 1.0f : 0.0f);
    for (auto& [source, capture] : started) {
        ActiveSource active;
        active.source = source;
        active.capture = capture;
        active.player = std::make_shared<AudioPlayerNode>();
        active.gainUnit = std::make_shared<AudioUnitEQ>(0);
        engine_->attach(active.player);
        engine_->attach(active.gainUnit);
        const AudioFormat format = capture->format().value_or(canonicalFormat_);
        engine_->connect(active.player, active.gainUnit, format);
        if (configuration_.sourceFileURLs.contains(source.id)) {
            // The stem is the source after its fader, already in the mix's format: what the
            // record mixer would have converted, converted one step earlier.
            active.stemMixer = std::make_shared<AudioMixerNode>();
            engine_->attach(active.stemMixer);
            engine_->connect(active.gainUnit, active.stemMixer, format);
            engine_->connect(active.stemMixer, recordMixer_, canonicalFormat_);
        } else {
            engine_->connect(active.gainUnit, recordMixer_, format);
        }
        active.scheduler = std::make_shared<BoundedBufferScheduler>(active.player);
        active.audioReceived = std::make_shared<AudioReceivedFlag>();
        auto volume = configuration_.volumes.find(source.id);
        applyGainLaw(active, volume != configuration_.volumes.end() ? volume->second : 1.0f);
        activeSources_.push_back(std::move(active));
    }

    // 3. The folder and the file.
    std::error_code folderError;
    const auto folder = configuration_.fileURL.parent_path();
    if (!folder.empty()) {
        std::filesystem::create_directories(folder, folderError);
    }
    if (folderError) {
        silenceAndStopCaptures();
        return Unexpected(makeError(RecordingEngineError::fileCreationFailed(
            makeError(SystemError(localized("RecordingEngine", "Could not create the folder") +
                                      " “" + folder.string() + "”",
                                  folderError)))));
    }
    const AudioSettings settings = configuration_.format.fileSettings(
        canonicalFormat_.sampleRate(), canonicalFormat_.channelCount());
    auto file = AudioFile::createForWriting(configuration_.fileURL, settings);
    if (!file) {
        silenceAndStopCaptures();
        return Unexpected(
            makeError(RecordingEngineError::fileCreationFailed(makeError(AVError(file.error())))));
    }
    fileWriter_ = std::make_shared<QueuedFileWriter>(std::move(file).value(),
                                                     QueuedFileWriter::kMaxPendingBuffers);
    lastWriter_ = fileWriter_;
    openStems(settings);

    // 4. The taps, all before the first render.
    if (!installTaps()) {
        // Without the tap nothing would reach the file: an empty recording is no recording.
        return abandonFile(makeError(RecordingEngineError::mixNotTapped()));
    }

    // 5. Rendering.
    engine_->prepare();
    if (auto startedEngine = engine_->start(); !startedEngine) {
        removeTaps();
        return abandonFile(makeError(AVError(startedEngine.error())));
    }
    for (const auto& active : activeSources_) {
        active.scheduler->clearStopped();
        active.player->play();
    }
    running_ = true;
    if (engine_->isInManualRenderingMode()) {
        std::vector<std::shared_ptr<AudioPlayerNode>> players;
        std::vector<double> rates;
        for (const auto& active : activeSources_) {
            players.push_back(active.player);
            rates.push_back(active.player->outputFormat()->sampleRate());
        }
        captureClock_ = std::make_shared<CaptureClock>(
            *engine_, std::move(players), std::move(rates), canonicalFormat_.sampleRate());
        captureClock_->start();
    }

    // 6. From here on captured audio flows into the graph.
    for (std::size_t i = 0; i < activeSources_.size(); ++i) {
        activeSources_[i].capture->setBufferHandler(makeBufferHandler(activeSources_[i], i));
    }
    configChangeObserver_ = engine_->addConfigurationChangeObserver([weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->controlQueue_->async([weak] {
                if (auto engine = weak.lock()) {
                    engine->restartAfterConfigurationChange();
                }
            });
        }
    });
    return {};
}

void RecordingEngine::restartAfterConfigurationChange() {
    if (!running_) {
        return;
    }
    engine_->prepare();
    if (auto restarted = engine_->start(); !restarted) {
        reportFailure(
            localized("RecordingEngine", "Recording stopped because the audio output changed.") +
            " " + restarted.error().localizedDescription());
        return;
    }
    for (const auto& active : activeSources_) {
        active.scheduler->clearStopped();
        active.player->play();
    }
}

void RecordingEngine::runStopSequence(StopCompletion completion) {
    running_ = false;
    if (configChangeObserver_) {
        engine_->removeConfigurationChangeObserver(*configChangeObserver_);
        configChangeObserver_.reset();
    }
    silenceAndStopCaptures();
    if (captureClock_) {
        // Nothing else renders: what the captures left queued goes to the file now, up to a
        // whole tap buffer so the last one is handed over too.
        captureClock_->drain(kTapBufferSize);
        captureClock_->stop();
    }

    // One budget for all sources: a source still full when it runs out is not waited for. A
    // drained capture clock has rendered everything already.
    const auto deadline = std::chrono::steady_clock::now() +
                          (captureClock_ ? std::chrono::milliseconds(0) : kDrainBudget);
    for (const auto& active : activeSources_) {
        if (std::chrono::steady_clock::now() >= deadline) {
            break;
        }
        while (active.scheduler->pendingBuffers() != 0 &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    // Rendering ends before any tap comes off, so that the mix and every stem end on one frame.
    engine_->stop();
    removeTaps();
    for (const auto& active : activeSources_) {
        active.scheduler->stopAndForgetPending();
        active.player->stop();
    }
    closeWriters([completion = std::move(completion), url = configuration_.fileURL] {
        if (completion) {
            completion(url);
        }
    });
}

Unexpected<ErrorRef> RecordingEngine::abandonFile(ErrorRef error) {
    std::mutex closeMutex;
    std::condition_variable closeSignal;
    bool closed = false;
    closeWriters([&] {
        std::lock_guard guard(closeMutex);
        closed = true;
        closeSignal.notify_one();
    });
    {
        std::unique_lock guard(closeMutex);
        closeSignal.wait(guard, [&] { return closed; });
    }
    silenceAndStopCaptures();
    std::error_code ignored;
    std::filesystem::remove(configuration_.fileURL, ignored);
    for (auto& active : activeSources_) {
        if (active.stemWriter) {
            std::filesystem::remove(configuration_.sourceFileURLs.at(active.source.id), ignored);
            active.stemWriter.reset();
        }
    }
    return Unexpected(std::move(error));
}

void RecordingEngine::openStems(const AudioSettings& settings) {
    for (auto& active : activeSources_) {
        if (!active.stemMixer) {
            continue;
        }
        const auto& url = configuration_.sourceFileURLs.at(active.source.id);
        auto file = AudioFile::createForWriting(url, settings);
        if (!file) {
            stemFailures_->add(active.source.name + ": " +
                               localized("RecordingEngine", "Its own file could not be created.") +
                               " " + file.error().localizedDescription());
            std::error_code ignored;
            std::filesystem::remove(url, ignored);  // the empty name reserved for it
            continue;
        }
        active.stemWriter = std::make_shared<QueuedFileWriter>(
            std::move(file).value(), QueuedFileWriter::kMaxPendingBuffers);
    }
}

bool RecordingEngine::installTaps() {
    // The master tap: the mix's peak and its hand-over to the writer.
    const bool tapped = recordMixer_->installTap(
        0, kTapBufferSize, canonicalFormat_,
        [levels = levels_, writer = fileWriter_, onFailure = failureCallback()](
            std::shared_ptr<PCMBuffer> buffer, AudioTimeStamp) {
            levels->record(RecordingSource::kMasterLevelKey, peakLevel(*buffer));
            writer->write(std::move(buffer), onFailure);
        },
        [onFailure = failureCallback()] { onFailure(BoundedBufferScheduler::overrunMessage()); });
    if (!tapped) {
        return false;
    }
    for (auto& active : activeSources_) {
        if (!active.stemWriter) {
            continue;
        }
        auto onFailure = stemFailureCallback(active.source.name);
        const bool stemTapped = active.stemMixer->installTap(
            0, kTapBufferSize, canonicalFormat_,
            [writer = active.stemWriter, onFailure](std::shared_ptr<PCMBuffer> buffer,
                                                    AudioTimeStamp) {
                writer->write(std::move(buffer), onFailure);
            },
            [onFailure] { onFailure(BoundedBufferScheduler::overrunMessage()); });
        if (!stemTapped) {
            onFailure(localized("RecordingEngine", "The source could not be routed to it."));
        }
    }
    return true;
}

void RecordingEngine::removeTaps() {
    recordMixer_->removeTap(0);
    for (const auto& active : activeSources_) {
        if (active.stemMixer) {
            active.stemMixer->removeTap(0);
        }
    }
}

void RecordingEngine::closeWriters(std::function<void()> completion) {
    std::vector<std::shared_ptr<QueuedFileWriter>> writers;
    if (fileWriter_) {
        writers.push_back(std::move(fileWriter_));
    }
    for (const auto& active : activeSources_) {
        if (active.stemWriter) {
            writers.push_back(active.stemWriter);  // kept for the statistics
        }
    }
    if (writers.empty()) {
        if (completion) {
            completion();
        }
        return;
    }
    // Each writer completes its file on its own queue, all at once; the last one to finish
    // reports the recording complete.
    auto remaining = std::make_shared<std::atomic<std::size_t>>(writers.size());
    auto done = std::make_shared<std::function<void()>>(std::move(completion));
    for (const auto& writer : writers) {
        writer->close([remaining, done] {
            if (remaining->fetch_sub(1) == 1 && *done) {
                (*done)();
            }
        });
    }
}

FailureCallback RecordingEngine::stemFailureCallback(const std::string& sourceName) {
    // The tap and the writer each report once; the source's warning says it once.
    auto told = std::make_shared<std::atomic<bool>>(false);
    return [failures = stemFailures_, told, sourceName](const std::string& message) {
        if (!told->exchange(true)) {
            failures->add(sourceName + ": " +
                          localized("RecordingEngine", "Its own file is incomplete.") + " " +
                          message);
        }
    };
}

void RecordingEngine::silenceAndStopCaptures() {
    for (const auto& active : activeSources_) {
        active.capture->setBufferHandler([](std::shared_ptr<PCMBuffer>) {});
        active.capture->stop();
    }
}

void RecordingEngine::applyGainLaw(const ActiveSource& active, float volume) {
    const GainSetting setting = gainLaw(volume);
    active.player->setVolume(setting.playerVolume);
    active.gainUnit->setGlobalGain(setting.globalGainDb);
}

BufferHandler RecordingEngine::makeBufferHandler(const ActiveSource& active, std::size_t index) {
    return [id = active.source.id, flag = active.audioReceived, scheduler = active.scheduler,
            levels = levels_, onOverrun = failureCallback(), clock = captureClock_,
            index](std::shared_ptr<PCMBuffer> buffer) {
        flag->set();
        levels->record(id, peakLevel(*buffer));
        const FrameCount frames = buffer->frameLength();
        scheduler->schedule(std::move(buffer), onOverrun);
        if (clock) {
            clock->sourceDelivered(index, frames);
        }
    };
}

FailureCallback RecordingEngine::failureCallback() {
    return [weak = weak_from_this()](const std::string& message) {
        if (auto self = weak.lock()) {
            self->reportFailure(message);
        }
    };
}

void RecordingEngine::reportFailure(const std::string& message) {
    if (errorHandler_) {
        errorHandler_(message);
    }
}

}  // namespace bw
