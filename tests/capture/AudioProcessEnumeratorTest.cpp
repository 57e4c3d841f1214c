#include "capture/AudioProcessEnumerator.h"

#include <gtest/gtest.h>

#include "tests/support/FakeHardware.h"
#include "tests/support/FakeWorkspace.h"

namespace bw {
namespace {

using App = AudioProcessEnumerator::RunningAppInfo;
using Info = AudioProcessEnumerator::ProcessInfo;

constexpr std::int32_t kOwnPID = 50;

struct MergeCase {
    const char* name;
    std::vector<App> apps;
    std::set<std::int32_t> playing;
    std::map<std::int32_t, std::int32_t> responsible;  // missing: itself
    std::vector<Info> expected;
    friend void PrintTo(const MergeCase& c, std::ostream* os) { *os << c.name; }
};

class MergeProcessesTest : public ::testing::TestWithParam<MergeCase> {};

TEST_P(MergeProcessesTest, ListsWhatCanBeRecordedInDisplayOrder) {
    const MergeCase& c = GetParam();
    auto responsible = [&](std::int32_t pid) {
        auto it = c.responsible.find(pid);
        return it == c.responsible.end() ? pid : it->second;
    };
    auto name = [](std::int32_t pid) { return "proc" + std::to_string(pid); };
    EXPECT_EQ(AudioProcessEnumerator::mergeProcesses(c.apps, c.playing, kOwnPID, responsible, name),
              c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MergeProcessesTest,
    ::testing::Values(
        MergeCase{"HelperCreditedToItsApplication",
                  {{10, "org.example.Browser", "Browser", true}},
                  {11},
                  {{11, 10}},
                  {{10, "org.example.Browser", "Browser", true}}},
        MergeCase{"PlayingProcessWithoutApplicationListedByItself",
                  {{10, "org.example.Editor", "Editor", true}},
                  {20},
                  {{20, 19}},
                  {{20, std::nullopt, "proc20", true}, {10, "org.example.Editor", "Editor", false}}},
        MergeCase{"SilentBackgroundAppAbsentPlayingOneListed",
                  {{10, "org.example.Daemon", "Daemon", false}, {12, "org.example.Tray", "Tray", false}},
                  {13},
                  {{13, 12}},
                  {{12, "org.example.Tray", "Tray", true}}},
        MergeCase{"OwnProcessAndItsChildrenNeverListed",
                  {{kOwnPID, "com.tallowfields.BrightwaveRecord", "Brightwave Record", true}},
                  {kOwnPID, 51},
                  {{51, kOwnPID}},
                  {}},
        MergeCase{"InvalidPidsSkipped", {{0, std::nullopt, "Zero", true}, {-3, std::nullopt, "Neg", true}},
                  {}, {}, {}},
        MergeCase{"TwoHelpersOfAnUnlistedParentBothListed",
                  {},
                  {31, 32},
                  {{31, 30}, {32, 30}},
                  {{31, std::nullopt, "proc31", true}, {32, std::nullopt, "proc32", true}}},
        MergeCase{"CaseDoesNotDecideTheOrder",
                  {{1, std::nullopt, "gamma", true},
                   {2, std::nullopt, "Beta", true},
                   {3, std::nullopt, "alpha", true},
                   {4, std::nullopt, "Gamma Player", true},
                   {5, std::nullopt, "beta Player", true}},
                  {4, 5},
                  {},
                  {{5, std::nullopt, "beta Player", true},
                   {4, std::nullopt, "Gamma Player", true},
                   {3, std::nullopt, "alpha", false},
                   {2, std::nullopt, "Beta", false},
                   {1, std::nullopt, "gamma", false}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ListProcessesTest, JoinsTheHardwaresPlayingProcessesWithTheWorkspace) {
    test::FakeHardware hardware;
    test::FakeWorkspace workspace;
    workspace.setOwn(kOwnPID, "com.tallowfields.BrightwaveRecord");
    workspace.addApplication({100, "org.example.Player", "Player", true, ""});
    workspace.addApplication({200, "org.example.Silent", "Silent", true, ""});
    workspace.addApplication({300, "org.example.Nameless", std::nullopt, true, ""});
    workspace.setParent(101, 100);
    workspace.setProcessName(300, std::string("nameless\xff\xfe", 10));
    hardware.addProcess(101, true);                    // the player's helper plays
    hardware.addProcess(300, true);                    // no localized name: listed by process
    hardware.addProcess(200, false);                   // has an object, silent
    hardware.addProcess(kOwnPID, true);                // ourselves
    const AudioObjectID broken = hardware.addProcess(400, true);
    hardware.removeProperty(broken, {kAudioProcessPropertyIsRunningOutput, kAudioObjectPropertyScopeGlobal, 0});
    auto list = AudioProcessEnumerator::listProcesses(hardware, workspace);
    const std::vector<Info> expected = {
        {300, std::nullopt, "nameless\xEF\xBF\xBD\xEF\xBF\xBD", true},
        {100, "org.example.Player", "Player", true},
        {200, "org.example.Silent", "Silent", false},
    };
    EXPECT_EQ(list, expected);

    // Without a process list, the regular applications are all that is left, silent.
    hardware.failAlways(test::HardwareOperation::getPropertyDataSize, -1,
                        kAudioHardwarePropertyProcessObjectList);
    auto silent = AudioProcessEnumerator::listProcesses(hardware, workspace);
    EXPECT_EQ(silent, (std::vector<Info>{{100, "org.example.Player", "Player", false},
                                         {200, "org.example.Silent", "Silent", false}}));
}

TEST(FallbackNameTest, UsesTheProcessNameOrItsId) {
    test::FakeWorkspace workspace;
    workspace.setProcessName(7, "pw-play");
    EXPECT_EQ(AudioProcessEnumerator::fallbackName(workspace, 7), "pw-play");
    EXPECT_EQ(AudioProcessEnumerator::fallbackName(workspace, 8), "PID 8");
    workspace.setProcessName(9, std::string(2000, 'x'));
    EXPECT_EQ(AudioProcessEnumerator::fallbackName(workspace, 9).size(), 1024u);
}

}  // namespace
}  // namespace bw
