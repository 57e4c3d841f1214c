#pragma once

#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "engine/RecordingEngine.h"
#include "tests/support/FakeHardware.h"
#include "tests/support/SignalAnalysis.h"
#include "tests/support/TestBuffers.h"
#include "tests/support/TestCapture.h"

namespace bw::test {

/// A recording engine on FakeHardware with test captures, a temporary folder, and a clock that the
/// test turns: each `step` delivers 10 ms of every source's signal and renders 10 ms at the
/// speakers.
class EngineRig {
public:
    struct Feed {
        std::shared_ptr<TestCapture> capture;
        std::vector<std::vector<float>> channels;  // the source's whole signal
        std::size_t position = 0;
    };

    EngineRig() {
        speakers = hardware->addDevice(
            {"speakers", "Speakers", FakeHardware::floatFormat(48000, 2, true), {}});
        folder = std::filesystem::temp_directory_path() /
                 ("bw-engine-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        std::filesystem::remove_all(folder);
    }
    ~EngineRig() { std::filesystem::remove_all(folder); }

    /// A source with a capture in `format` whose signal is a sine per channel.
    RecordingSource addSource(const std::string& name, const AudioFormat& format, double frequency,
                              float amplitude, double seconds, ErrorRef startFailure = nullptr) {
        auto source =
            RecordingSource::application(1000 + int(feeds.size()), "org.test." + name, name, true);
        auto capture = std::make_shared<TestCapture>(format, startFailure);
        captures.add(source.id, capture);
        Feed feed{capture, {}, 0};
        for (std::uint32_t c = 0; c < format.channelCount(); ++c) {
            feed.channels.push_back(sine(frequency, format.sampleRate(),
                                         std::size_t(format.sampleRate() * seconds), amplitude));
        }
        feeds[source.id] = std::move(feed);
        return source;
    }

    std::shared_ptr<RecordingEngine> makeEngine(
        RecordingEngineConfiguration configuration,
        std::shared_ptr<AudioMixerNode> recordMixer = std::make_shared<AudioMixerNode>()) {
        auto engine = std::make_shared<RecordingEngine>(std::move(configuration), hardware,
                                                        captures.factory(), std::move(recordMixer));
        engine->setErrorHandler([this](const std::string& message) {
            std::lock_guard guard(reportsMutex);
            reports.push_back(message);
        });
        return engine;
    }

    RecordingEngineConfiguration configuration(std::vector<RecordingSource> sources,
                                               RecordingFormat format = RecordingFormat::wav,
                                               std::map<std::string, float> volumes = {},
                                               bool passthrough = false) {
        return RecordingEngineConfiguration{std::move(sources),
                                            std::move(volumes),
                                            passthrough,
                                            format,
                                            folder / "takes" / ("take." + format.rawValue()),
                                            {}};
    }

    static Expected<void, ErrorRef> start(RecordingEngine& engine) {
        std::promise<Expected<void, ErrorRef>> done;
        engine.start([&](Expected<void, ErrorRef> result) { done.set_value(std::move(result)); });
        return done.get_future().get();
    }

    static std::filesystem::path stop(RecordingEngine& engine) {
        std::promise<std::filesystem::path> done;
        engine.stop([&](std::filesystem::path url) { done.set_value(std::move(url)); });
        return done.get_future().get();
    }

    /// Hands the next 10 ms of the source's signal to its capture, unless the signal has ended.
    static void deliver(Feed& feed) {
        const auto rate = feed.capture->declaredFormat().sampleRate();
        const auto frames = std::size_t(rate / 100);
        if (feed.position + frames > feed.channels[0].size()) {
            return;
        }
        std::vector<std::vector<float>> chunk;
        for (const auto& channel : feed.channels) {
            chunk.emplace_back(channel.begin() + std::ptrdiff_t(feed.position),
                               channel.begin() + std::ptrdiff_t(feed.position + frames));
        }
        feed.position += frames;
        feed.capture->deliver(makeBuffer(rate, chunk));
    }

    /// Hands `count` buffers of 10 ms of silence to the source's capture at once.
    void flood(const std::string& id, int count) {
        for (int i = 0; i < count; ++i) {
            feeds.at(id).capture->deliver(
                makeBuffer(48000, {std::vector<float>(480), std::vector<float>(480)}));
        }
    }

    /// Delivers 10 ms of each source and renders 10 ms at `device` (the speakers by default).
    std::vector<std::vector<float>> step(AudioObjectID device = 0, double deviceRate = 48000) {
        for (auto& [id, feed] : feeds) {
            deliver(feed);
        }
        auto out =
            hardware->runIOCycle(device == 0 ? speakers : device, std::uint32_t(deviceRate / 100));
        // Ten times real time: faster than that, the encoder would rightly be reported as
        // falling behind.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return out;
    }

    /// Steps for `seconds`, collecting what the device received.
    std::vector<std::vector<float>> run(double seconds, AudioObjectID device = 0,
                                        double deviceRate = 48000) {
        std::vector<std::vector<float>> out;
        for (int i = 0; i < int(seconds * 100 + 0.5); ++i) {
            auto cycle = step(device, deviceRate);
            out.resize(cycle.size());
            for (std::size_t c = 0; c < cycle.size(); ++c) {
                out[c].insert(out[c].end(), cycle[c].begin(), cycle[c].end());
            }
        }
        return out;
    }

    /// The tone's level in [from, to) seconds of a 48 kHz channel.
    static double levelIn(const std::vector<float>& samples, double frequency, double from,
                          double to) {
        const auto first = std::size_t(from * 48000);
        const auto last = std::min(samples.size(), std::size_t(to * 48000));
        return toneLevelDb(std::span<const float>(samples).subspan(first, last - first), frequency,
                           48000);
    }

    std::vector<std::string> reportsSoFar() {
        std::lock_guard guard(reportsMutex);
        return reports;
    }

    std::shared_ptr<FakeHardware> hardware = std::make_shared<FakeHardware>();
    AudioObjectID speakers = 0;
    TestCaptureFactory captures;
    std::map<std::string, Feed> feeds;
    std::filesystem::path folder;
    std::mutex reportsMutex;
    std::vector<std::string> reports;
    static inline int counter = 0;
};

}  // namespace bw::test
