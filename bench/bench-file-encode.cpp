// How fast AudioFile writes each format, next to the ffmpeg command line doing the same job on the
// same audio. Prints one readable line and one JSON line per format.
//
//   bench-file-encode [--seconds N] [--repeats N]
//
// Each side runs `--repeats` times (default 3) and the fastest run counts. Ours is timed from
// createForWriting to close, fed 4096-frame non-interleaved buffers already in memory, and its
// close on its own too (for M4A that makes the fragments one indexed movie); ffmpeg is
// timed from spawn to exit and also reads the raw input file (from the page cache) and starts up.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

#include "platform/av/AudioFile.h"
#include "platform/hal/AudioHardwareConstants.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using bw::AudioSettings;

constexpr int kRate = 48000;
constexpr std::uint32_t kBlockFrames = 4096;

struct Timing {
    double wallSeconds = 0;
    double cpuSeconds = 0;
    std::uintmax_t bytes = 0;
    double closeSeconds = 0;  // ours: what the stop waits for once the last buffer is in
};

struct Format {
    const char* name;
    AudioSettings settings;
    std::vector<std::string> ffmpegCodecArgs;
};

double processCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

/// Stereo test programme: a few tones that drift in level, plus quiet white noise.
std::vector<std::vector<float>> makeAudio(std::size_t frames) {
    std::vector<std::vector<float>> channels(2, std::vector<float>(frames));
    std::uint64_t state = 0x9E3779B97F4A7C15ull;
    const auto noise = [&state] {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return float(double(state >> 11) / double(1ull << 53) * 2.0 - 1.0);
    };
    const double w = 2.0 * std::numbers::pi / kRate;
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = double(i);
        const double swell = 0.6 + 0.4 * std::sin(w * 0.25 * t);
        const double left = 0.30 * std::sin(w * 220.0 * t) + 0.15 * std::sin(w * 1000.0 * t) +
                            0.05 * std::sin(w * 5500.0 * t);
        const double right = 0.25 * std::sin(w * 330.0 * t + 1.0) +
                             0.12 * std::sin(w * 2500.0 * t) + 0.04 * std::sin(w * 9000.0 * t);
        channels[0][i] = float(swell * left) + 0.02f * noise();
        channels[1][i] = float(swell * right) + 0.02f * noise();
    }
    return channels;
}

bool writeRaw(const fs::path& path, const std::vector<std::vector<float>>& audio) {
    std::vector<float> interleaved(audio[0].size() * 2);
    for (std::size_t i = 0; i < audio[0].size(); ++i) {
        interleaved[2 * i] = audio[0][i];
        interleaved[2 * i + 1] = audio[1][i];
    }
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(interleaved.data()),
              std::streamsize(interleaved.size() * sizeof(float)));
    return bool(out);
}

std::optional<Timing> encodeWithAudioFile(const fs::path& path, const AudioSettings& settings,
                                          const std::vector<std::vector<float>>& audio) {
    const auto format = *bw::AudioFormat::standard(kRate, 2);
    const std::size_t total = audio[0].size();
    const auto wallStart = std::chrono::steady_clock::now();
    const double cpuStart = processCpuSeconds();

    auto created = bw::AudioFile::createForWriting(path, settings);
    if (!created) {
        std::fprintf(stderr, "create %s: %s\n", path.c_str(),
                     created.error().localizedDescription().c_str());
        return std::nullopt;
    }
    auto& file = *created.value();
    for (std::size_t at = 0; at < total; at += kBlockFrames) {
        const auto frames = std::uint32_t(std::min<std::size_t>(kBlockFrames, total - at));
        // As the engine hands them over: a no-copy view of the cycle's channel buffers.
        bw::AudioBuffer blocks[2];
        for (int ch = 0; ch < 2; ++ch) {
            blocks[ch].mNumberChannels = 1;
            blocks[ch].mDataByteSize = frames * sizeof(float);
            blocks[ch].mData = const_cast<float*>(audio[ch].data() + at);
        }
        const bw::AudioBufferList list{2, blocks};
        const auto buffer = bw::PCMBuffer::wrapNoCopy(format, list);
        const auto written = file.write(*buffer);
        if (!written) {
            std::fprintf(stderr, "write %s: %s\n", path.c_str(),
                         written.error().localizedDescription().c_str());
            return std::nullopt;
        }
    }
    const auto closeStart = std::chrono::steady_clock::now();
    const auto closed = file.close();
    const auto closeEnd = std::chrono::steady_clock::now();
    if (!closed) {
        std::fprintf(stderr, "close %s: %s\n", path.c_str(),
                     closed.error().localizedDescription().c_str());
        return std::nullopt;
    }

    Timing timing;
    timing.cpuSeconds = processCpuSeconds() - cpuStart;
    timing.wallSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    timing.bytes = fs::file_size(path);
    timing.closeSeconds = std::chrono::duration<double>(closeEnd - closeStart).count();
    return timing;
}

std::optional<Timing> encodeWithFfmpeg(const fs::path& raw, const fs::path& out,
                                       const std::vector<std::string>& codecArgs) {
    std::vector<std::string> args = {"ffmpeg", "-v",    "error", "-y", "-f", "f32le",
                                     "-ar",    "48000", "-ac",   "2",  "-i", raw.string()};
    args.insert(args.end(), codecArgs.begin(), codecArgs.end());
    args.push_back(out.string());
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    // ffmpeg reads the terminal for keys unless its input is elsewhere.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

    const auto wallStart = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, "ffmpeg", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        std::fprintf(stderr, "could not run ffmpeg: %s\n", std::strerror(spawned));
        return std::nullopt;
    }
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "ffmpeg failed for %s\n", out.c_str());
        return std::nullopt;
    }
    Timing timing;
    timing.wallSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    timing.cpuSeconds = double(usage.ru_utime.tv_sec) + double(usage.ru_utime.tv_usec) * 1e-6 +
                        double(usage.ru_stime.tv_sec) + double(usage.ru_stime.tv_usec) * 1e-6;
    timing.bytes = fs::file_size(out);
    return timing;
}

/// The fastest of `repeats` runs (by wall time); nothing if any run failed.
template <class Run>
std::optional<Timing> fastestOf(int repeats, Run run) {
    std::optional<Timing> best;
    for (int i = 0; i < repeats; ++i) {
        const auto timing = run();
        if (!timing) {
            return std::nullopt;
        }
        if (!best || timing->wallSeconds < best->wallSeconds) {
            best = timing;
        }
    }
    return best;
}

std::string jsonNumber(const std::optional<double>& value) {
    if (!value) {
        return "null";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", *value);
    return text;
}

std::string jsonCount(const std::optional<std::uintmax_t>& value) {
    return value ? std::to_string(*value) : "null";
}

void usage(const char* program) {
    std::fprintf(stderr, "usage: %s [--seconds N] [--repeats N]\n", program);
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 60.0;
    int repeats = 3;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--seconds" && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
        } else if (arg == "--repeats" && i + 1 < argc) {
            repeats = std::atoi(argv[++i]);
        } else {
            usage(argv[0]);
            return 2;
        }
    }
    if (!(seconds > 0 && seconds <= 3600) || repeats < 1) {
        usage(argv[0]);
        return 2;
    }

    std::string pattern = (fs::temp_directory_path() / "bw-bench-encode-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const fs::path dir = pattern;
    const auto frames = std::size_t(std::llround(seconds * kRate));
    const double audioSeconds = double(frames) / kRate;
    const auto audio = makeAudio(frames);
    const fs::path raw = dir / "in.raw";
    if (!writeRaw(raw, audio)) {
        std::fprintf(stderr, "could not write %s\n", raw.c_str());
        fs::remove_all(dir);
        return 1;
    }

    const std::vector<Format> formats = {
        {"m4a",
         {{bw::AVFormatIDKey, std::int64_t(bw::kAudioFormatMPEG4AAC)},
          {bw::AVSampleRateKey, double(kRate)},
          {bw::AVNumberOfChannelsKey, std::int64_t(2)},
          {bw::AVEncoderBitRateKey, std::int64_t(256000)}},
         {"-c:a", "aac", "-b:a", "256k"}},
        {"wav",
         {{bw::AVFormatIDKey, std::int64_t(bw::kAudioFormatLinearPCM)},
          {bw::AVSampleRateKey, double(kRate)},
          {bw::AVNumberOfChannelsKey, std::int64_t(2)},
          {bw::AVLinearPCMBitDepthKey, std::int64_t(16)},
          {bw::AVLinearPCMIsFloatKey, false},
          {bw::AVLinearPCMIsBigEndianKey, false},
          {bw::AVLinearPCMIsNonInterleaved, false}},
         {"-c:a", "pcm_s16le"}},
        {"aiff",
         {{bw::AVFormatIDKey, std::int64_t(bw::kAudioFormatLinearPCM)},
          {bw::AVSampleRateKey, double(kRate)},
          {bw::AVNumberOfChannelsKey, std::int64_t(2)},
          {bw::AVLinearPCMBitDepthKey, std::int64_t(16)},
          {bw::AVLinearPCMIsFloatKey, false},
          {bw::AVLinearPCMIsBigEndianKey, true},
          {bw::AVLinearPCMIsNonInterleaved, false}},
         {"-c:a", "pcm_s16be"}},
    };

    std::printf("Encoding %.1f s of 48 kHz stereo float, best of %d run(s) each\n", audioSeconds,
                repeats);
    bool failed = false;
    for (const Format& format : formats) {
        const fs::path ours = dir / (std::string("ours.") + format.name);
        const fs::path theirs = dir / (std::string("ffmpeg.") + format.name);
        const auto oursTiming =
            fastestOf(repeats, [&] { return encodeWithAudioFile(ours, format.settings, audio); });
        const auto ffmpegTiming = fastestOf(
            repeats, [&] { return encodeWithFfmpeg(raw, theirs, format.ffmpegCodecArgs); });
        failed = failed || !oursTiming;

        std::optional<double> oursRtf;
        std::optional<double> ffmpegRtf;
        std::optional<double> ratio;
        if (oursTiming) {
            oursRtf = audioSeconds / oursTiming->wallSeconds;
        }
        if (ffmpegTiming) {
            ffmpegRtf = audioSeconds / ffmpegTiming->wallSeconds;
        }
        if (oursRtf && ffmpegRtf) {
            ratio = *oursRtf / *ffmpegRtf;
        }

        std::printf("%-5s AudioFile: ", format.name);
        if (oursTiming) {
            std::printf("%.3f s wall, %.3f s CPU, %7.1fx real time, %ju bytes, close %.1f ms",
                        oursTiming->wallSeconds, oursTiming->cpuSeconds, *oursRtf,
                        oursTiming->bytes, oursTiming->closeSeconds * 1000);
        } else {
            std::printf("failed");
        }
        std::printf(" | ffmpeg: ");
        if (ffmpegTiming) {
            std::printf("%.3f s wall, %.3f s CPU, %7.1fx real time, %ju bytes",
                        ffmpegTiming->wallSeconds, ffmpegTiming->cpuSeconds, *ffmpegRtf,
                        ffmpegTiming->bytes);
        } else {
            std::printf("unavailable");
        }
        if (ratio) {
            std::printf(" | ours/ffmpeg %.2f", *ratio);
        }
        std::printf("\n");

        const auto field = [](const std::optional<Timing>& t, double Timing::*member) {
            return t ? std::optional<double>((*t).*member) : std::nullopt;
        };
        std::printf(
            "{\"bench\":\"file-encode\",\"format\":\"%s\",\"audio_seconds\":%s,"
            "\"ours_wall_s\":%s,\"ours_cpu_s\":%s,\"ours_rtf\":%s,\"ours_bytes\":%s,"
            "\"ours_close_s\":%s,"
            "\"ffmpeg_wall_s\":%s,\"ffmpeg_cpu_s\":%s,\"ffmpeg_rtf\":%s,\"ffmpeg_bytes\":%s,"
            "\"ratio\":%s}\n",
            format.name, jsonNumber(audioSeconds).c_str(),
            jsonNumber(field(oursTiming, &Timing::wallSeconds)).c_str(),
            jsonNumber(field(oursTiming, &Timing::cpuSeconds)).c_str(), jsonNumber(oursRtf).c_str(),
            jsonCount(oursTiming ? std::optional<std::uintmax_t>(oursTiming->bytes) : std::nullopt)
                .c_str(),
            jsonNumber(field(oursTiming, &Timing::closeSeconds)).c_str(),
            jsonNumber(field(ffmpegTiming, &Timing::wallSeconds)).c_str(),
            jsonNumber(field(ffmpegTiming, &Timing::cpuSeconds)).c_str(),
            jsonNumber(ffmpegRtf).c_str(),
            jsonCount(ffmpegTiming ? std::optional<std::uintmax_t>(ffmpegTiming->bytes)
                                   : std::nullopt)
                .c_str(),
            jsonNumber(ratio).c_str());
        std::fflush(stdout);
    }

    std::error_code ignored;
    fs::remove_all(dir, ignored);
    return failed ? 1 : 0;
}
