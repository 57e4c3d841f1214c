// Renders WAV inputs through the real RecordingEngine into one file, as fast as the writer keeps
// up: test captures read the inputs, and FakeHardware's output device is clocked by this loop,
// which never runs further ahead of the file than the writer's queue holds, so nothing is dropped.
//
//   render-offline --format m4a|wav|aiff --out FILE IN.wav[@VOLUME]...
//
// Prints one JSON line: frames written, dropped buffers, CPU and wall seconds.


#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "bench/CpuTime.h"
#include "engine/RecordingEngine.h"
#include "tests/support/FakeHardware.h"
#include "tests/support/TestCapture.h"

namespace {

using namespace bw;

// Reads a WAV file's 16-bit or 32-bit float PCM a block at a time, as a player would stream it.
class WavStream {
public:
    bool open(const std::string& path) {
        file_.open(path, std::ios::binary);
        char riff[12];
        if (!file_.read(riff, 12) || std::memcmp(riff, "RIFF", 4) != 0 ||
            std::memcmp(riff + 8, "WAVE", 4) != 0) {
            return false;
        }
        bool haveFormat = false;
        for (;;) {
            char header[8];
            if (!file_.read(header, 8)) {
                return false;
            }
            std::uint32_t size = 0;
            std::memcpy(&size, header + 4, 4);
            if (std::memcmp(header, "fmt ", 4) == 0) {
                std::vector<char> fmt(size);
                file_.read(fmt.data(), size);
                std::uint16_t tag = 0;
                std::uint16_t channels = 0;
                std::uint32_t rate = 0;
                std::uint16_t bits = 0;
                std::memcpy(&tag, fmt.data(), 2);
                std::memcpy(&channels, fmt.data() + 2, 2);
                std::memcpy(&rate, fmt.data() + 4, 4);
                std::memcpy(&bits, fmt.data() + 14, 2);
                if (tag == 0xFFFE && size >= 26) {
                    std::memcpy(&tag, fmt.data() + 24, 2);
                }
                isFloat_ = tag == 3 && bits == 32;
                if (!(tag == 1 && bits == 16) && !isFloat_) {
                    return false;
                }
                channels_ = channels;
                rate_ = rate;
                haveFormat = true;
            } else if (std::memcmp(header, "data", 4) == 0 && haveFormat) {
                remaining_ = size / (channels_ * (isFloat_ ? 4u : 2u));
                return channels_ > 0 && rate_ > 0;
            } else {
                file_.seekg(size + (size & 1), std::ios::cur);
            }
        }
    }
    std::uint32_t channels() const { return channels_; }
    double rate() const { return rate_; }
    std::size_t remaining() const { return remaining_; }

    /// Reads `frames` frames into the channels of `buffer`.
    void read(PCMBuffer& buffer, std::size_t frames) {
        const std::size_t sampleBytes = isFloat_ ? 4 : 2;
        raw_.resize(frames * channels_ * sampleBytes);
        file_.read(raw_.data(), std::streamsize(raw_.size()));
        float* const* out = buffer.floatChannelData();
        for (std::uint32_t c = 0; c < channels_; ++c) {
            for (std::size_t i = 0; i < frames; ++i) {
                const std::size_t at = (i * channels_ + c) * sampleBytes;
                if (isFloat_) {
                    std::memcpy(&out[c][i], raw_.data() + at, 4);
                } else {
                    std::int16_t sample = 0;
                    std::memcpy(&sample, raw_.data() + at, 2);
                    out[c][i] = float(sample) / 32768.0f;
                }
            }
        }
        remaining_ -= frames;
    }

private:
    std::ifstream file_;
    std::uint32_t channels_ = 0;
    std::uint32_t rate_ = 0;
    bool isFloat_ = false;
    std::size_t remaining_ = 0;
    std::vector<char> raw_;
};

struct Input {
    std::string path;
    float volume = 1.0f;
    WavStream stream;
    std::shared_ptr<test::TestCapture> capture;
    double owed = 0;  // frames due at this input's rate, carried between cycles
};

int usage() {
    std::fprintf(stderr,
                 "usage: render-offline --format m4a|wav|aiff --out FILE IN.wav[@VOLUME]...\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<RecordingFormat> format;
    std::string out;
    std::vector<Input> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--format" && i + 1 < argc) {
            format = RecordingFormat::fromRawValue(argv[++i]);
        } else if (arg == "--out" && i + 1 < argc) {
            out = argv[++i];
        } else {
            Input input;
            const auto at = arg.rfind('@');
            input.path = at == std::string::npos ? arg : arg.substr(0, at);
            input.volume = at == std::string::npos ? 1.0f : std::strtof(arg.c_str() + at + 1, nullptr);
            inputs.push_back(std::move(input));
        }
    }
    if (!format || out.empty() || inputs.empty()) {
        return usage();
    }

    const double cpu0 = bench::cpuSeconds();
    const auto wall0 = std::chrono::steady_clock::now();
    auto hardware = std::make_shared<test::FakeHardware>();
    const auto speakers = hardware->addDevice(
        {"speakers", "Speakers", test::FakeHardware::floatFormat(48000, 2, true), {}});
    test::TestCaptureFactory captures;
    RecordingEngineConfiguration configuration;
    configuration.format = *format;
    configuration.fileURL = out;
    std::size_t longest = 0;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        if (!inputs[i].stream.open(inputs[i].path)) {
            std::fprintf(stderr, "render-offline: “%s” is not a 16-bit or float WAV file\n",
                         inputs[i].path.c_str());
            return 1;
        }
        const auto inputFormat =
            *AudioFormat::standard(inputs[i].stream.rate(), inputs[i].stream.channels());
        inputs[i].capture = std::make_shared<test::TestCapture>(inputFormat);
        auto source = RecordingSource::application(int(i + 1), "bench.input" + std::to_string(i),
                                                   inputs[i].path, true);
        captures.add(source.id, inputs[i].capture);
        configuration.volumes[source.id] = inputs[i].volume;
        configuration.sources.push_back(source);
        longest = std::max(longest, std::size_t(double(inputs[i].stream.remaining()) * 48000.0 /
                                                inputs[i].stream.rate()));
    }

    auto engine = std::make_shared<RecordingEngine>(configuration, hardware, captures.factory());
    std::promise<Expected<void, ErrorRef>> started;
    engine->start([&](Expected<void, ErrorRef> result) { started.set_value(std::move(result)); });
    if (auto result = started.get_future().get(); !result) {
        std::fprintf(stderr, "render-offline: %s\n", result.error()->localizedDescription().c_str());
        return 1;
    }

    constexpr std::uint32_t kCycle = 1024;
    constexpr std::int64_t kMaxAhead = 6 * 4096;  // within the tap's ring of eight buffers
    std::int64_t rendered = 0;
    std::int64_t written = 0;
    // Run past the end of the longest input by two tap buffers, so its last frames reach the file.
    const auto total = std::int64_t(longest) + 2 * 4096;
    while (rendered < total) {
        for (auto& input : inputs) {
            input.owed += double(kCycle) * input.stream.rate() / 48000.0;
            const auto frames = std::min(std::size_t(input.owed), input.stream.remaining());
            input.owed -= double(std::size_t(input.owed));
            if (frames == 0) {
                continue;
            }
            auto buffer = PCMBuffer::make(input.capture->declaredFormat(), FrameCount(frames));
            buffer->setFrameLength(FrameCount(frames));
            input.stream.read(*buffer, frames);
            input.capture->deliver(std::move(buffer));
        }
        hardware->runIOCycle(speakers, kCycle);
        rendered += kCycle;
        // Ask the engine only when the last answer says the file may be falling behind.
        while (rendered - written > kMaxAhead) {
            written = engine->statistics().framesWritten;
            if (rendered - written > kMaxAhead) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }
    }
    std::promise<void> stopped;
    engine->stop([&](std::filesystem::path) { stopped.set_value(); });
    stopped.get_future().wait();
    const auto statistics = engine->statistics();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    std::printf("{\"frames_written\":%lld,\"dropped_buffers\":%d,\"dropped_mix_frames\":%llu,"
                "\"cpu_seconds\":%.3f,\"wall_seconds\":%.3f}\n",
                static_cast<long long>(statistics.framesWritten),
                statistics.droppedCaptureBuffers + statistics.droppedMixBuffers,
                static_cast<unsigned long long>(statistics.droppedMixFrames), bench::cpuSeconds() - cpu0,
                wall);
    return 0;
}
