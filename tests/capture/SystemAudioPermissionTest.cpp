#include "capture/SystemAudioPermission.h"

#include <gtest/gtest.h>

#include <qcoro/qcorotask.h>
#include <QCoreApplication>
#include <QTemporaryDir>
#include <QThread>
#include <atomic>

#include "capture/CoreAudioError.h"
#include "capture/CoreAudioTapProbe.h"
#include "tests/support/FakeHardware.h"

namespace bw {
namespace {

using Status = SystemAudioPermission::Status;

class ScriptedProbe : public SystemAudioTapProbe {
public:
    explicit ScriptedProbe(bool grant) : grant_(grant) {}
    Expected<void, ErrorRef> makeTap() override {
        ++attempts;
        onMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
        if (grant_) {
            return {};
        }
        return Unexpected(makeError(CoreAudioError(-1, "create permission-check tap")));
    }
    std::atomic<int> attempts{0};
    std::atomic<bool> onMainThread{false};

private:
    bool grant_;
};

class SystemAudioPermissionTest : public ::testing::Test {
protected:
    QTemporaryDir dir_;
    QSettings defaults_{dir_.filePath("defaults.ini"), QSettings::IniFormat};
};

// A request shows "requesting" first; a recheck goes straight to the outcome. Both remember the
// attempt and probe off the main thread.
TEST_F(SystemAudioPermissionTest, RequestAndRecheckShowTheOutcomeAndRememberTheAttempt) {
    struct Case {
        bool grant;
        bool recheck;
        std::vector<Status> seen;
    };
    for (const auto& c : {Case{true, false, {Status::requesting, Status::granted}},
                          Case{false, false, {Status::requesting, Status::denied}},
                          Case{false, true, {Status::denied}}}) {
        defaults_.clear();
        auto probe = std::make_shared<ScriptedProbe>(c.grant);
        SystemAudioPermission permission(probe, &defaults_);
        std::vector<Status> seen;
        QObject::connect(&permission, &SystemAudioPermission::statusChanged,
                         [&] { seen.push_back(permission.status()); });
        EXPECT_FALSE(permission.attemptedBefore());
        QCoro::waitFor(c.recheck ? permission.recheck() : permission.request());
        EXPECT_EQ(seen, c.seen);
        EXPECT_TRUE(permission.attemptedBefore());
        EXPECT_TRUE(defaults_.value("systemAudioPermissionAttempted").toBool());
        EXPECT_EQ(probe->attempts.load(), 1);
        EXPECT_FALSE(probe->onMainThread.load()) << "the probe runs off the main thread";
    }
}

TEST(CoreAudioTapProbeTest, PairsEveryTapWithItsDestructionAndReportsARefusal) {
    auto hardware = std::make_shared<test::FakeHardware>();
    CoreAudioTapProbe probe(hardware);
    ASSERT_TRUE(probe.makeTap());
    EXPECT_EQ(hardware->callCount(test::HardwareOperation::createProcessTap), 1u);
    EXPECT_EQ(hardware->callCount(test::HardwareOperation::destroyProcessTap), 1u);
    EXPECT_TRUE(hardware->taps().empty());
    EXPECT_TRUE(hardware->aggregateDevices().empty());
    hardware->failNext(test::HardwareOperation::createProcessTap, 1852797029);
    auto refused = probe.makeTap();
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error()->localizedDescription(),
              "Audio system error 1852797029 during create permission-check tap");
    EXPECT_EQ(hardware->callCount(test::HardwareOperation::destroyProcessTap), 1u);
}

}  // namespace
}  // namespace bw

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
