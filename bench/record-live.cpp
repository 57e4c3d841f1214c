// Records real sources through RecordingEngine on PipeWireHardware.
//
//   record-live --seconds N --format m4a|wav|aiff --out FILE [--passthrough] [--source-files]
//               [--takes K] SOURCE[@VOLUME]...
//
// SOURCE is `system`, `app:<bundle ID>`, `app:pid:<pid>` or `mic:<device UID>`. Prints one JSON
// line: frames written, dropped buffers, CPU seconds, source failures, sources without audio, and
// the failure that ended the recording early, if any. With --source-files each source also goes
// to a file of its own beside FILE, named as the program names them; the line then also holds
// those files by source id and their failures. With --takes, K recordings follow one another in
// the same process (FILE, then FILE with "-2", "-3"... before its extension), one line each.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <QFile>
#include <QUrl>

#include "app/OutputNaming.h"
#include "bench/CpuTime.h"
#include "capture/CaptureFactory.h"
#include "engine/RecordingEngine.h"
#include "platform/hal/PipeWireHardware.h"
#include "platform/workspace/SystemWorkspace.h"

namespace {

using namespace bw;

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out + "\"";
}

int record(const std::shared_ptr<PipeWireHardware>& hardware,
           const std::shared_ptr<SystemWorkspace>& workspace,
           RecordingEngineConfiguration configuration, double seconds, bool sourceFiles);

int usage() {
    std::fprintf(
        stderr,
        "usage: record-live --seconds N --format m4a|wav|aiff --out FILE [--passthrough] "
        "[--source-files] [--takes K] SOURCE[@VOLUME]...\n  SOURCE: system | app:<bundle ID> | "
        "app:pid:<pid> | mic:<device UID>\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 0;
    std::optional<RecordingFormat> format;
    std::string out;
    bool passthrough = false;
    bool sourceFiles = false;
    int takes = 1;
    std::vector<std::pair<std::string, float>> requested;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--seconds" && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
        } else if (arg == "--format" && i + 1 < argc) {
            format = RecordingFormat::fromRawValue(argv[++i]);
        } else if (arg == "--out" && i + 1 < argc) {
            out = argv[++i];
        } else if (arg == "--passthrough") {
            passthrough = true;
        } else if (arg == "--source-files") {
            sourceFiles = true;
        } else if (arg == "--takes" && i + 1 < argc) {
            takes = std::max(1, std::atoi(argv[++i]));
        } else {
            const auto at = arg.rfind('@');
            const bool hasVolume = at != std::string::npos && at > arg.rfind(':');
            requested.emplace_back(hasVolume ? arg.substr(0, at) : arg,
                                   hasVolume ? std::strtof(arg.c_str() + at + 1, nullptr) : 1.0f);
        }
    }
    if (!(seconds > 0) || !format || out.empty() || requested.empty()) {
        return usage();
    }

    auto workspace = std::make_shared<SystemWorkspace>();
    auto hardware = std::make_shared<PipeWireHardware>([workspace](std::int32_t pid) {
        auto application = workspace->runningApplication(workspace->responsiblePID(pid));
        return application ? application->bundleID : std::nullopt;
    });
    if (!hardware->isConnected()) {
        std::fprintf(stderr, "record-live: no audio server to record from\n");
        return 1;
    }

    RecordingEngineConfiguration configuration;
    configuration.format = *format;
    configuration.fileURL = out;
    configuration.passthroughEnabled = passthrough;
    for (const auto& [id, volume] : requested) {
        std::optional<RecordingSource> source;
        if (id == "system") {
            source = RecordingSource::systemAudio();
        } else if (id.rfind("app:pid:", 0) == 0) {
            const auto pid = std::int32_t(std::atoi(id.c_str() + 8));
            source = RecordingSource::application(pid, std::nullopt,
                                                  workspace->processName(pid).value_or(id), true);
        } else if (id.rfind("app:", 0) == 0) {
            for (const auto& app : workspace->runningApplications()) {
                if (app.bundleID == id.substr(4)) {
                    source = RecordingSource::application(app.pid, app.bundleID,
                                                          app.localizedName.value_or(id), true);
                    break;
                }
            }
        } else if (id.rfind("mic:", 0) == 0) {
            source = RecordingSource::microphone(id.substr(4), id.substr(4));
        }
        if (!source) {
            std::fprintf(stderr, "record-live: no running source “%s”\n", id.c_str());
            return 1;
        }
        configuration.volumes[source->id] = volume;
        configuration.sources.push_back(*source);
    }

    int status = 0;
    for (int take = 1; take <= takes && status == 0; ++take) {
        if (take > 1) {
            std::filesystem::path next = out;
            next.replace_filename(next.stem().string() + "-" + std::to_string(take) +
                                  next.extension().string());
            configuration.fileURL = next;
        }
        status = record(hardware, workspace, configuration, seconds, sourceFiles);
    }
    return status;
}

namespace {

int record(const std::shared_ptr<PipeWireHardware>& hardware,
           const std::shared_ptr<SystemWorkspace>& workspace,
           RecordingEngineConfiguration configuration, double seconds, bool sourceFiles) {
    const double cpu0 = bench::cpuSeconds();
    if (sourceFiles) {
        configuration.sourceFileURLs = OutputNaming::makeSourceFileURLs(
            QUrl::fromLocalFile(QFile::decodeName(configuration.fileURL.c_str())),
            configuration.sources);
    }
    auto session = makeRecordingEngineFactory(hardware, workspace)(configuration);
    auto& engine = dynamic_cast<RecordingEngine&>(*session);
    std::mutex mutex;
    std::condition_variable failed;
    std::string failure;
    engine.setErrorHandler([&](const std::string& message) {
        std::lock_guard guard(mutex);
        if (failure.empty()) {
            failure = message;
        }
        failed.notify_all();
    });
    std::promise<Expected<void, ErrorRef>> started;
    engine.start([&](Expected<void, ErrorRef> result) { started.set_value(std::move(result)); });
    if (auto result = started.get_future().get(); !result) {
        std::printf("{\"error\":%s}\n", jsonString(result.error()->localizedDescription()).c_str());
        return 1;
    }
    {
        // Runs for the time asked, or until a failure ends the recording, as the app would.
        std::unique_lock guard(mutex);
        failed.wait_for(guard, std::chrono::duration<double>(seconds),
                        [&] { return !failure.empty(); });
    }
    std::promise<void> stopped;
    engine.stop([&](std::filesystem::path) { stopped.set_value(); });
    stopped.get_future().wait();
    const auto statistics = engine.statistics();

    std::string failures = "{";
    for (const auto& [id, text] : engine.sourceFailures()) {
        failures += (failures.size() > 1 ? "," : "") + jsonString(id) + ":" + jsonString(text);
    }
    failures += "}";
    std::string silent = "[";
    for (const auto& source : engine.sourcesWithoutAudio()) {
        silent += (silent.size() > 1 ? "," : "") + jsonString(source.id);
    }
    silent += "]";
    std::string ownFiles;
    if (sourceFiles) {
        ownFiles = ",\"source_files\":{";
        for (const auto& [id, path] : configuration.sourceFileURLs) {
            ownFiles += (ownFiles.back() == '{' ? "" : ",") + jsonString(id) + ":" +
                        jsonString(path.string());
        }
        ownFiles += "},\"source_file_failures\":[";
        for (const auto& text : engine.sourceFileFailures()) {
            ownFiles += (ownFiles.back() == '[' ? "" : ",") + jsonString(text);
        }
        ownFiles += "]";
    }
    std::lock_guard guard(mutex);
    std::printf(
        "{\"frames_written\":%lld,\"dropped_buffers\":%d,\"dropped_mix_frames\":%llu,"
        "\"cpu_seconds\":%.3f,\"source_failures\":%s,\"sources_without_audio\":%s%s,"
        "\"failure\":%s}\n",
        static_cast<long long>(statistics.framesWritten),
        statistics.droppedCaptureBuffers + statistics.droppedMixBuffers,
        static_cast<unsigned long long>(statistics.droppedMixFrames), bench::cpuSeconds() - cpu0,
        failures.c_str(), silent.c_str(), ownFiles.c_str(),
        failure.empty() ? "null" : jsonString(failure).c_str());
    return 0;
}

}  // namespace
