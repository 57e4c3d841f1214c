#pragma once

#include <QTemporaryDir>
#include <atomic>
#include <memory>
#include <mutex>

#include "app/AppState.h"
#include "app/SharedResult.h"
#include "tests/app/FakeClock.h"
#include "tests/app/FakeRecordingEngine.h"
#include "tests/app/FakeTapProbe.h"

namespace bw::test {

/// Listings the test changes at will; a gate can hold them inside the work pool.
class FakeListings : public Gate {
public:
    using Processes = std::vector<AudioProcessEnumerator::ProcessInfo>;
    using Devices = std::vector<AudioInputDeviceEnumerator::InputDevice>;

    void set(Processes processes, Devices devices) {
        std::lock_guard guard(lock_);
        processes_ = std::move(processes);
        devices_ = std::move(devices);
    }
    Processes processes() {
        ++processCalls;
        pass();
        std::lock_guard guard(lock_);
        return processes_;
    }
    Devices devices() {
        std::lock_guard guard(lock_);
        return devices_;
    }
    std::atomic<int> processCalls{0};

private:
    std::mutex lock_;
    Processes processes_;
    Devices devices_;
};

class FakeFileViewer : public FileViewer {
public:
    bool opens = true;
    std::vector<QUrl> opened, selected;
    bool openFolder(const QUrl& folder) override {
        opened.push_back(folder);
        return opens;
    }
    void selectFile(const QUrl& file) override { selected.push_back(file); }
};

inline AudioProcessEnumerator::ProcessInfo process(std::int32_t pid, std::optional<std::string> id,
                                                   std::string name, bool playing = false) {
    return {pid, std::move(id), std::move(name), playing};
}

inline std::vector<std::string> idsOf(const AppState::SourceList& sources) {
    std::vector<std::string> ids;
    for (const auto& s : sources) {
        ids.push_back(s.id);
    }
    return ids;
}

/// An `AppState` on fakes: listings, permission, engines, clock, store, folder and file viewer.
struct AppRig {
    QTemporaryDir dir;
    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
    std::shared_ptr<QSettings> defaults =
        std::make_shared<QSettings>(dir.filePath("defaults.ini"), QSettings::IniFormat);
    std::shared_ptr<FakeListings> listings = std::make_shared<FakeListings>();
    std::shared_ptr<FakeFileViewer> viewer = std::make_shared<FakeFileViewer>();
    FakeEngineFactory engines;
    AudioLevelTracker tracker;
    RecordingTimer timer{clock};
    bool grantMicrophone = true;
    int permissionRequests = 0;
    std::optional<SharedResult<bool>> heldPermission;  // set: the question stays open
    std::function<void()> announceSourceChange;  // the audio server's word, as the watch hears it
    std::unique_ptr<AppState> state;

    AppRig() { makeState(); }

    void makeState() {
        AppStateDependencies d;
        d.listProcesses = [l = listings] { return l->processes(); };
        d.listInputDevices = [l = listings] { return l->devices(); };
        d.watchSources = [this](std::function<void()> changed) {
            announceSourceChange = std::move(changed);
            return std::shared_ptr<void>();
        };
        d.microphonePermissionRequester = [this] {
            ++permissionRequests;
            SharedResult<bool> reply = heldPermission.value_or(SharedResult<bool>());
            if (!heldPermission) {
                reply.set(grantMicrophone);
            }
            return answer(reply);
        };
        d.recordingEngineFactory = engines.factory();
        d.defaults = defaults;
        d.clock = clock;
        d.defaultRecordingsFolder = [folder = dir.filePath("Music/BrightwaveRecord")] {
            return QUrl::fromLocalFile(folder);
        };
        d.fileViewer = viewer;
        d.levelTracker = &tracker;
        d.recordingTimer = &timer;
        state = std::make_unique<AppState>(std::move(d));
    }

    static QCoro::Task<bool> answer(SharedResult<bool> reply) { co_return co_await reply; }

    /// One refresh with these listings, awaited.
    void refreshWith(FakeListings::Processes processes, FakeListings::Devices devices = {}) {
        listings->set(std::move(processes), std::move(devices));
        QCoro::waitFor(state->refreshSources());
    }

    /// Ticks the sources with these ids from the current lists.
    void tick(std::initializer_list<std::string> ids) {
        for (const auto& id : ids) {
            AppState::SourceList all = state->appSources();
            all.insert(all.end(), state->micSources().begin(), state->micSources().end());
            all.push_back(state->systemSource());
            for (const auto& source : all) {
                if (source.id == id) {
                    state->toggleSource(source);
                }
            }
        }
    }
};

}  // namespace bw::test
