#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "engine/ActiveSource.h"
#include "engine/Capture.h"
#include "engine/CaptureClock.h"
#include "engine/LevelStore.h"
#include "engine/QueuedFileWriter.h"
#include "engine/RecordingEngineConfiguration.h"
#include "engine/RecordingEngineSession.h"
#include "platform/av/AudioEngine.h"
#include "platform/av/AudioMixerNode.h"
#include "platform/av/AudioSettings.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/hal/AudioHardware.h"

namespace bw {

/// Runs one recording: a capture per source, each through a player and a gain unit into the
/// record mixer, whose tap feeds the file writer and whose output goes to the speakers when the
/// mix is to be heard. Otherwise the captures clock the graph themselves (`CaptureClock`). Keeps
/// the graph alive across audio configuration changes and takes everything down in a fixed order.
/// One engine per recording.
///
/// A source with a file of its own (a stem) passes, after its gain unit, through a mixer of its
/// own that converts it to the canonical format; that mixer's tap feeds the stem's writer. Every
/// tap is on before the first render and comes off after the last, so the mix and the stems hold
/// the same frames, sample for sample. A stem that fails only leaves a text in
/// `sourceFileFailures`; the mix goes on.
///
/// Owner: shared (`std::make_shared`); callbacks hold it weakly. Thread: the session members are
/// called from the main thread; every sequence runs on `controlQueue`, which alone touches the
/// graph, the sources, the writer and the running state. Start and stop block that queue.
class RecordingEngine : public RecordingEngineSession,
                        public std::enable_shared_from_this<RecordingEngine> {
public:
    using Configuration = RecordingEngineConfiguration;

    static constexpr const char* kControlQueueLabel =
        "com.tallowfields.BrightwaveRecord.engine-control";
    static constexpr FrameCount kTapBufferSize = 4096;
    static constexpr auto kDrainBudget = std::chrono::milliseconds(250);

    /// `recordMixer` is where the sources meet; a fresh one unless given.
    RecordingEngine(
        Configuration configuration, std::shared_ptr<AudioHardware> hardware,
        CaptureFactory captureFactory,
        std::shared_ptr<AudioMixerNode> recordMixer = std::make_shared<AudioMixerNode>());
    ~RecordingEngine() override;

    /// A factory that makes engines on this hardware with these captures.
    static RecordingEngineFactory makeFactory(std::shared_ptr<AudioHardware> hardware,
                                              CaptureFactory captureFactory);

    LevelStore& levels() override { return *levels_; }
    std::map<std::string, std::string> sourceFailures() const override;
    std::vector<RecordingSource> sourcesWithoutAudio() const override;
    std::vector<std::string> sourceFileFailures() const override;
    void setErrorHandler(FailureCallback handler) override { errorHandler_ = std::move(handler); }
    void start(StartCompletion completion) override;
    void stop(StopCompletion completion) override;
    void setVolume(float volume, const std::string& sourceID) override;

    /// What a recording lost and wrote, for diagnostics and benchmarks. Complete after the stop.
    struct Statistics {
        std::int64_t framesWritten = 0;
        int droppedCaptureBuffers = 0;       // at the schedulers' bound
        int droppedMixBuffers = 0;           // at the writers' bounds, the stems' included
        std::uint64_t droppedMixFrames = 0;  // by the taps, the stems' included
    };
    /// Waits for the control queue (any thread but a capture's or the writer's).
    Statistics statistics() const;

    const Configuration& configuration() const { return configuration_; }
    const AudioFormat& canonicalFormat() const { return canonicalFormat_; }
    SerialQueue& controlQueue() { return *controlQueue_; }

private:
    /// Texts of failed stems, added from tap and writer threads.
    struct StemFailures {
        mutable std::mutex lock;
        std::vector<std::string> texts;
        void add(std::string text);
    };

    Expected<void, ErrorRef> runStartSequence();
    void runStopSequence(StopCompletion completion);
    void restartAfterConfigurationChange();
    void silenceAndStopCaptures();
    /// A start that fails once the files exist: closes and deletes them, stops the captures.
    Unexpected<ErrorRef> abandonFile(ErrorRef error);
    /// Creates each stem's file and writer; a stem that can't be made is told and left out.
    void openStems(const AudioSettings& settings);
    /// The mix's tap and then the stems'; false when the mix's could not be installed.
    bool installTaps();
    /// Every tap off; each hands over the whole buffers it still holds.
    void removeTaps();
    /// Closes the mix's and the stems' writers; `completion` once all of them are complete.
    void closeWriters(std::function<void()> completion);
    /// Reports a stem's loss once, under the source's name, as a warning.
    FailureCallback stemFailureCallback(const std::string& sourceName);
    void applyGainLaw(const ActiveSource& active, float volume);
    BufferHandler makeBufferHandler(const ActiveSource& active, std::size_t index);
    FailureCallback failureCallback();
    void reportFailure(const std::string& message);

    const Configuration configuration_;
    std::shared_ptr<LevelStore> levels_;
    std::map<std::string, std::string> sourceFailures_;
    FailureCallback errorHandler_;
    std::shared_ptr<AudioHardware> hardware_;
    CaptureFactory captureFactory_;
    std::unique_ptr<AudioEngine> engine_;
    std::shared_ptr<AudioMixerNode> recordMixer_;
    std::vector<ActiveSource> activeSources_;
    std::shared_ptr<QueuedFileWriter> fileWriter_;
    std::shared_ptr<QueuedFileWriter> lastWriter_;  // kept after the stop for its counters
    std::optional<AudioEngine::ObserverToken> configChangeObserver_;
    std::shared_ptr<CaptureClock> captureClock_;  // when nothing plays to the speakers
    std::shared_ptr<StemFailures> stemFailures_;
    bool running_ = false;
    const AudioFormat canonicalFormat_;
    std::shared_ptr<SerialQueue> controlQueue_;
};

}  // namespace bw
