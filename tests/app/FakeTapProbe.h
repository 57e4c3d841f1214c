#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include <QSettings>
#include <QTemporaryDir>

#include "app/OnboardingController.h"
#include "capture/CoreAudioError.h"
#include "capture/SystemAudioPermission.h"
#include "tests/app/FakeClock.h"
#include "tests/app/QtTestSupport.h"

namespace bw::test {

/// Holds callers on other threads in `pass` while the test keeps it shut.
class Gate {
public:
    void hold() {
        std::lock_guard guard(lock_);
        held_ = true;
    }
    void release() {
        {
            std::lock_guard guard(lock_);
            held_ = false;
        }
        opened_.notify_all();
    }
    void pass() {
        std::unique_lock guard(lock_);
        opened_.wait(guard, [this] { return !held_; });
    }

private:
    std::mutex lock_;
    std::condition_variable opened_;
    bool held_ = false;
};

/// A probe whose answer the test sets and that can be held inside an attempt.
class FakeProbe : public SystemAudioTapProbe, public Gate {
public:
    Expected<void, ErrorRef> makeTap() override {
        ++attempts;
        pass();
        if (grant) {
            return {};
        }
        return Unexpected(makeError(CoreAudioError(-1, "create permission-check tap")));
    }

    std::atomic<int> attempts{0};
    std::atomic<bool> grant{false};
};

/// An onboarding controller over a probe and a settings file of its own.
struct OnboardingRig {
    QTemporaryDir dir;
    QSettings defaults{dir.filePath("defaults.ini"), QSettings::IniFormat};
    FakeClock appClock;
    std::shared_ptr<FakeProbe> probe = std::make_shared<FakeProbe>();
    std::unique_ptr<OnboardingController> controller;

    explicit OnboardingRig(bool attemptedBefore = false) {
        if (attemptedBefore) {
            defaults.setValue(SystemAudioPermission::kAttemptedKey, true);
        }
        controller = std::make_unique<OnboardingController>(probe, &defaults, appClock);
    }
    ~OnboardingRig() {
        probe->release();
        controller.reset();
        pumpFor(20);  // an attempt still under way finishes before the probe goes
    }
};

}  // namespace bw::test
