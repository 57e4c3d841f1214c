// Render throughput of the mix graph alone: four sources at mixed rates and channel counts,
// each through a player and a gain stage into one mixer, converted to 48 kHz stereo, no file.
// Beside it, in the same run, ffmpeg's command line does the same mix (resample, fold to stereo,
// sum) from raw files. Both print real-time factors (seconds of audio per second of wall time).


#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "bench/CpuTime.h"
#include "platform/av/AudioEngine.h"
#include "platform/av/AudioPlayerNode.h"
#include "platform/av/AudioUnitEQ.h"
#include "tests/support/FakeHardware.h"

namespace {

using namespace bw;
using Clock = std::chrono::steady_clock;

struct Source {
    double rate;
    std::uint32_t channels;
    std::vector<std::vector<float>> samples;
};

Source makeSource(double rate, std::uint32_t channels, double seconds, unsigned seed) {
    Source source{rate, channels, {}};
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> noise(-0.05f, 0.05f);
    const auto frames = std::size_t(rate * seconds);
    for (std::uint32_t c = 0; c < channels; ++c) {
        std::vector<float> channel(frames);
        const double step = 2 * std::numbers::pi * (220.0 * (c + 1) + seed) / rate;
        for (std::size_t i = 0; i < frames; ++i) {
            channel[i] = float(0.2 * std::sin(step * double(i))) + noise(random);
        }
        source.samples.push_back(std::move(channel));
    }
    return source;
}

void writeRaw(const Source& source, const std::filesystem::path& path) {
    std::ofstream out(path, std::ios::binary);
    std::vector<float> frame(source.channels);
    for (std::size_t i = 0; i < source.samples[0].size(); ++i) {
        for (std::uint32_t c = 0; c < source.channels; ++c) {
            frame[c] = source.samples[c][i];
        }
        out.write(reinterpret_cast<const char*>(frame.data()), std::streamsize(frame.size() * 4));
    }
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 30;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::string(argv[i]) == "--seconds") {
            seconds = std::atof(argv[i + 1]);
        }
    }
    std::vector<Source> sources = {makeSource(44100, 1, seconds, 1), makeSource(96000, 4, seconds, 2),
                                   makeSource(48000, 2, seconds, 3), makeSource(32000, 2, seconds, 4)};

    // Ours: FakeHardware's output device drives the render cycles as fast as they come.
    auto hardware = std::make_shared<test::FakeHardware>();
    const auto speakers = hardware->addDevice(
        {"speakers", "Speakers", test::FakeHardware::floatFormat(48000, 2, true), {}});
    AudioEngine engine(hardware);
    const auto canonical = *AudioFormat::standard(48000, 2);
    auto recordMixer = std::make_shared<AudioMixerNode>();
    engine.attach(recordMixer);
    engine.connect(recordMixer, engine.mainMixerNode(), canonical);
    std::vector<std::shared_ptr<AudioPlayerNode>> players;
    for (const auto& source : sources) {
        auto player = std::make_shared<AudioPlayerNode>();
        auto gain = std::make_shared<AudioUnitEQ>(0);
        engine.attach(player);
        engine.attach(gain);
        const auto format = *AudioFormat::standard(source.rate, source.channels);
        engine.connect(player, gain, format);
        engine.connect(gain, recordMixer, format);
        gain->setGlobalGain(1.0f);
        players.push_back(player);
    }
    const double cpu0 = bench::cpuSeconds();
    const auto wall0 = Clock::now();
    for (std::size_t s = 0; s < sources.size(); ++s) {
        const auto& source = sources[s];
        const std::size_t total = source.samples[0].size();
        for (std::size_t start = 0; start < total; start += 4096) {
            const auto count = FrameCount(std::min<std::size_t>(4096, total - start));
            auto buffer = PCMBuffer::make(*AudioFormat::standard(source.rate, source.channels), count);
            buffer->setFrameLength(count);
            for (std::uint32_t c = 0; c < source.channels; ++c) {
                std::copy_n(source.samples[c].begin() + std::ptrdiff_t(start), count,
                            buffer->floatChannelData()[c]);
            }
            players[s]->scheduleBuffer(buffer, AudioPlayerNode::CompletionCallbackType::dataPlayedBack,
                                       [] {});
        }
    }
    if (!engine.start()) {
        std::fprintf(stderr, "engine did not start\n");
        return 1;
    }
    for (auto& player : players) {
        player->play();
    }
    const auto outputFrames = std::size_t(48000 * seconds);
    for (std::size_t done = 0; done < outputFrames; done += 1024) {
        hardware->runIOCycle(speakers, 1024);
    }
    engine.stop();
    const double oursWall = std::chrono::duration<double>(Clock::now() - wall0).count();
    const double oursCpu = bench::cpuSeconds() - cpu0;

    // ffmpeg: the same four inputs, resampled with its default resampler, folded and summed.
    const auto dir = std::filesystem::temp_directory_path() / "bw-bench-graph";
    std::filesystem::create_directories(dir);
    std::string command = "ffmpeg -v error -y";
    std::string filter;
    std::string mixInputs;
    for (std::size_t s = 0; s < sources.size(); ++s) {
        const auto path = dir / ("source" + std::to_string(s) + ".raw");
        writeRaw(sources[s], path);
        command += " -f f32le -ar " + std::to_string(int(sources[s].rate)) + " -ac " +
                   std::to_string(sources[s].channels) + " -i " + path.string();
        filter += "[" + std::to_string(s) + "]aresample=48000,aformat=sample_fmts=fltp:channel_layouts=stereo[s" +
                  std::to_string(s) + "];";
        mixInputs += "[s" + std::to_string(s) + "]";
    }
    filter += mixInputs + "amix=inputs=4:normalize=0";
    command += " -filter_complex \"" + filter + "\" -f null -";
    const double childCpu0 = bench::cpuSeconds(RUSAGE_CHILDREN);
    const auto ffmpegWall0 = Clock::now();
    const int status = std::system(command.c_str());
    const double ffmpegWall = std::chrono::duration<double>(Clock::now() - ffmpegWall0).count();
    const double ffmpegCpu = bench::cpuSeconds(RUSAGE_CHILDREN) - childCpu0;
    std::filesystem::remove_all(dir);
    if (status != 0) {
        std::fprintf(stderr, "ffmpeg failed: %s\n", command.c_str());
        return 1;
    }

    const double oursFactor = seconds / oursWall;
    const double ffmpegFactor = seconds / ffmpegWall;
    std::printf("graph render, 4 sources (44.1k mono, 96k 4ch, 48k stereo, 32k stereo) -> 48k stereo, %.0f s\n",
                seconds);
    std::printf("  ours:   %8.1fx real time (wall %.2f s, cpu %.2f s)\n", oursFactor, oursWall, oursCpu);
    std::printf("  ffmpeg: %8.1fx real time (wall %.2f s, cpu %.2f s)\n", ffmpegFactor, ffmpegWall,
                ffmpegCpu);
    std::printf("  ratio ours/ffmpeg: %.2f (speed), cpu ratio ffmpeg/ours: %.2f\n",
                oursFactor / ffmpegFactor, ffmpegCpu / oursCpu);
    std::printf("{\"bench\":\"graph-render\",\"seconds\":%.0f,\"ours_rtf\":%.1f,\"ffmpeg_rtf\":%.1f,"
                "\"ratio\":%.2f}\n",
                seconds, oursFactor, ffmpegFactor, oursFactor / ffmpegFactor);
    return 0;
}
