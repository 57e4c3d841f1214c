#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "engine/RecordingEngineError.h"
#include "engine/RecordingEngineSession.h"

namespace bw::test {

/// A recording engine whose start and stop the test scripts: results, failures reported on the
/// handler, and completions that can be held open. Completions and failure reports come from a
/// thread of their own, as the real engine's queue would call them.
class FakeRecordingEngine : public RecordingEngineSession {
public:
    explicit FakeRecordingEngine(RecordingEngineConfiguration configuration)
        : configuration(std::move(configuration)) {}

    // Script, set before the call it concerns.
    Expected<void, ErrorRef> startResult;
    std::map<std::string, std::string> failures;
    std::vector<RecordingSource> silentSources;
    std::vector<std::string> fileFailures;  // may grow while recording
    std::string failureDuringStart;         // reported on the handler before start completes
    bool holdStart = false;
    bool holdStop = false;

    // What happened.
    RecordingEngineConfiguration configuration;
    int startCalls = 0;
    int stopCalls = 0;
    std::vector<std::pair<std::string, float>> volumeChanges;

    LevelStore& levels() override { return levels_; }
    std::map<std::string, std::string> sourceFailures() const override { return failures; }
    std::vector<RecordingSource> sourcesWithoutAudio() const override { return silentSources; }
    std::vector<std::string> sourceFileFailures() const override { return fileFailures; }
    void setErrorHandler(FailureCallback handler) override { handler_ = std::move(handler); }
    void setVolume(float volume, const std::string& sourceID) override {
        volumeChanges.emplace_back(sourceID, volume);
    }

    void start(StartCompletion completion) override {
        ++startCalls;
        if (!failureDuringStart.empty()) {
            reportFailure(failureDuringStart);
        }
        startCompletion_ = std::move(completion);
        if (!holdStart) {
            finishStart();
        }
    }

    void stop(StopCompletion completion) override {
        ++stopCalls;
        stopCompletion_ = std::move(completion);
        if (!holdStop) {
            finishStop();
        }
    }

    void finishStart() {
        onOtherThread([c = startCompletion_, r = startResult] { c(r); });
    }
    void finishStop() {
        onOtherThread([c = stopCompletion_, url = configuration.fileURL] { c(url); });
    }
    void reportFailure(const std::string& message) {
        onOtherThread([h = handler_, message] { h(message); });
    }

private:
    static void onOtherThread(std::function<void()> work) { std::thread(std::move(work)).join(); }

    LevelStore levels_;
    FailureCallback handler_;
    StartCompletion startCompletion_;
    StopCompletion stopCompletion_;
};

/// Makes fake engines, lets the test script each before its start, and keeps them.
struct FakeEngineFactory {
    std::function<void(FakeRecordingEngine&)> script;
    std::vector<std::shared_ptr<FakeRecordingEngine>> made;

    RecordingEngineFactory factory() {
        return [this](const RecordingEngineConfiguration& configuration) {
            auto engine = std::make_shared<FakeRecordingEngine>(configuration);
            if (script) {
                script(*engine);
            }
            made.push_back(engine);
            return engine;
        };
    }
    FakeRecordingEngine& last() { return *made.back(); }
};

}  // namespace bw::test
