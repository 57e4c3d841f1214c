#include "platform/workspace/ProcFsProcessTable.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "tests/platform/workspace/WorkspaceTestSupport.h"

namespace bw::test {
namespace {

using namespace std::string_literals;

constexpr std::int32_t kPID = 42;

// ---- A fake proc tree ---------------------------------------------------------------------------

struct ReadCase {
    const char* name;
    std::map<std::string, std::string> files;  // in /proc/42
    const char* exe;                           // where /proc/42/exe points; null: no link
    std::optional<ProcessRecord> expected;
};

void PrintTo(const ReadCase& c, std::ostream* out) {
    *out << c.name;
}

class ReadTest : public ::testing::TestWithParam<ReadCase> {};

TEST_P(ReadTest, ReadsWhatTheFilesSay) {
    const ReadCase& c = GetParam();
    TemporaryDirectory root;
    std::filesystem::path directory = root.path() / std::to_string(kPID);
    std::filesystem::create_directories(directory);
    for (const auto& [name, contents] : c.files) {
        writeFile(directory / name, contents);
    }
    if (c.exe != nullptr) {
        std::filesystem::create_symlink(c.exe, directory / "exe");
    }
    ProcFsProcessTable table(root.path());
    EXPECT_EQ(table.process(kPID), c.expected);
}

ProcessRecord record(std::int32_t parent, const std::string& name, const std::string& executable,
                     const std::vector<std::string>& commandLine, const std::string& cgroup) {
    return {kPID, parent, name, executable, commandLine, cgroup};
}

const std::string kCgroups =
    "12:pids:/user.slice\n1:name=systemd:/user.slice\n0::/user.slice/app-gnome-player-12.scope\n";

INSTANTIATE_TEST_SUITE_P(
    FakeTree, ReadTest,
    ::testing::Values(
        ReadCase{"Complete",
                 {{"stat", "42 (player) S 7 42 42 0 -1 4194560 300 0 0 0\n"},
                  {"comm", "player\n"},
                  {"cmdline", "/usr/bin/player\0--loud\0"s},
                  {"cgroup", kCgroups}},
                 "/usr/bin/player",
                 record(7, "player", "/usr/bin/player", {"/usr/bin/player", "--loud"},
                        "/user.slice/app-gnome-player-12.scope")},
        ReadCase{"NameWithSpacesAndParentheses",
                 {{"stat", "42 (a) b (c) S 9 1 1 0\n"}, {"comm", "a) b (c\n"}},
                 nullptr,
                 record(9, "a) b (c", "", {}, "")},
        ReadCase{"NameFromStatWithoutComm",
                 {{"stat", "42 (x) (y) R 3 1 1\n"}},
                 nullptr,
                 record(3, "x) (y", "", {}, "")},
        ReadCase{"CommWithoutNewline",
                 {{"stat", "42 (player) S 7 1\n"}, {"comm", "player"}},
                 nullptr,
                 record(7, "player", "", {}, "")},
        ReadCase{"EmptyArgumentsKeptLastUnterminated",
                 {{"stat", "42 (a) S 1 1\n"}, {"comm", "a\n"}, {"cmdline", "a\0\0b"s}},
                 nullptr,
                 record(1, "a", "", {"a", "", "b"}, "")},
        ReadCase{"FirstProcessHasNoParent",
                 {{"stat", "42 (init) S 0 1\n"}, {"comm", "init\n"}},
                 nullptr,
                 record(0, "init", "", {}, "")},
        ReadCase{"OnlyLegacyCgroups",
                 {{"stat", "42 (a) S 1 1\n"}, {"comm", "a\n"}, {"cgroup", "4:memory:/x\n"}},
                 nullptr,
                 record(1, "a", "", {}, "")},
        ReadCase{"DeletedExecutable",
                 {{"stat", "42 (a) S 1 1\n"}, {"comm", "a\n"}},
                 "/usr/bin/a (deleted)",
                 record(1, "a", "/usr/bin/a (deleted)", {}, "")},
        ReadCase{"NoStat", {{"comm", "a\n"}, {"cmdline", "a\0"s}}, "/usr/bin/a", std::nullopt},
        ReadCase{"StatWithoutParentheses", {{"stat", "42 a S 1 1\n"}}, nullptr, std::nullopt},
        ReadCase{"StatEndsAfterState", {{"stat", "42 (a) S\n"}}, nullptr, std::nullopt},
        ReadCase{"StatParentNotANumber", {{"stat", "42 (a) S x1 1\n"}}, nullptr, std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Looking again: what is kept and what is read anew ----------------------------------------

// One run of a program as the fake tree shows it, with all of the kernel's stat fields. `layout`
// stands for the addresses that an exec() renews; 0 when the kernel hides them from us.
struct Run {
    std::string comm = "player";
    char state = 'S';
    std::int32_t parent = 7;
    std::uint64_t start = 100;  // clock ticks after boot: long ago
    std::uint64_t layout = 0x5000;
    std::string commandLine = "player\0--a\0"s;
    std::string cgroup = "0::/app-a.scope\n";
    const char* exe = "/usr/bin/player";
};

std::uint64_t ticksNow() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return std::uint64_t(now.tv_sec) * std::uint64_t(::sysconf(_SC_CLK_TCK));
}

void plant(const std::filesystem::path& root, const Run& run) {
    std::filesystem::path directory = root / std::to_string(kPID);
    std::filesystem::remove_all(directory);
    std::string stat = std::to_string(kPID) + " (" + run.comm + ") " + run.state + " " +
                       std::to_string(run.parent) + " 1 1 0 -1 0";
    for (int field = 10; field <= 52; ++field) {
        const std::uint64_t value = field == 22                  ? run.start
                                    : field == 26 || field == 28 ? run.layout
                                    : field == 48 || field == 49 ? run.layout + field
                                                                 : 0;
        stat += " " + std::to_string(value);
    }
    writeFile(directory / "stat", stat + "\n");
    writeFile(directory / "comm", run.comm + "\n");
    writeFile(directory / "cmdline", run.commandLine);
    writeFile(directory / "cgroup", run.cgroup);
    if (run.exe != nullptr) {
        std::filesystem::create_symlink(run.exe, directory / "exe");
    }
}

struct LookAgainCase {
    const char* name;
    Run first;
    Run second;
    bool unlistedBetween;
    ProcessRecord expected;
};

void PrintTo(const LookAgainCase& c, std::ostream* out) {
    *out << c.name;
}

class LookAgainTest : public ::testing::TestWithParam<LookAgainCase> {};

TEST_P(LookAgainTest, ServesNothingStale) {
    const LookAgainCase& c = GetParam();
    TemporaryDirectory root;
    ProcFsProcessTable table(root.path());
    plant(root.path(), c.first);
    ASSERT_TRUE(table.process(kPID));
    if (c.unlistedBetween) {
        std::filesystem::remove_all(root.path() / std::to_string(kPID));
        EXPECT_TRUE(table.pids().empty());
    }
    plant(root.path(), c.second);
    EXPECT_EQ(table.process(kPID), c.expected);
}

const std::string kOther = "other\0--b\0"s;

INSTANTIATE_TEST_SUITE_P(
    FakeTree, LookAgainTest,
    ::testing::Values(
        // Only an ended parent changes; the rest can't have changed and is not read again.
        LookAgainCase{"ReparentedKeepsTheRest",
                      {},
                      {.parent = 9, .commandLine = kOther, .cgroup = "0::/b\n", .exe = "/bin/o"},
                      false,
                      record(9, "player", "/usr/bin/player", {"player", "--a"}, "/app-a.scope")},
        LookAgainCase{"PidReused",
                      {},
                      {.start = 101, .commandLine = kOther, .cgroup = "0::/b\n", .exe = "/bin/o"},
                      false,
                      record(7, "player", "/bin/o", {"other", "--b"}, "/b")},
        LookAgainCase{"ExecKeepingItsName",
                      {},
                      {.layout = 0x9000, .commandLine = kOther, .exe = "/bin/o"},
                      false,
                      record(7, "player", "/bin/o", {"other", "--b"}, "/app-a.scope")},
        LookAgainCase{"ExecRenamed",
                      {},
                      {.comm = "other", .commandLine = kOther, .exe = "/bin/o"},
                      false,
                      record(7, "other", "/bin/o", {"other", "--b"}, "/app-a.scope")},
        LookAgainCase{"Ended",
                      {},
                      {.state = 'Z', .layout = 0, .commandLine = "", .exe = nullptr},
                      false,
                      record(7, "player", "", {}, "/app-a.scope")},
        // Another user's process: its exec() can't be seen, so its arguments are read each time.
        LookAgainCase{"HiddenLayoutRereadsArguments",
                      {.layout = 0, .exe = nullptr},
                      {.layout = 0, .commandLine = kOther, .exe = nullptr},
                      false,
                      record(7, "player", "", {"other", "--b"}, "/app-a.scope")},
        // A launcher may still be moving a new process into its unit.
        LookAgainCase{"NewProcessRereadsCgroup",
                      {.start = ticksNow()},
                      {.start = ticksNow(), .cgroup = "0::/app-b.scope\n"},
                      false,
                      record(7, "player", "/usr/bin/player", {"player", "--a"}, "/app-b.scope")},
        LookAgainCase{"ForgottenOnceUnlisted",
                      {},
                      {.commandLine = kOther, .exe = "/bin/o"},
                      true,
                      record(7, "player", "/bin/o", {"other", "--b"}, "/app-a.scope")}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ProcFsProcessTableTest, ListsOnlyProcessFoldersInOrderAndReadsNothingElse) {
    TemporaryDirectory root;
    for (const char* name : {"300", "1", "sys", "42", "4x2", "-7", "0"}) {
        std::filesystem::create_directories(root.path() / name);
    }
    std::filesystem::create_symlink("42", root.path() / "self");
    ProcFsProcessTable table(root.path());
    EXPECT_EQ(table.pids(), (std::vector<std::int32_t>{1, 42, 300}));
    // Listed, then gone: an empty folder; or not there; or no process at all.
    for (std::int32_t pid : {42, 6, 0, -1}) {
        EXPECT_EQ(table.process(pid), std::nullopt) << pid;
    }
    ProcFsProcessTable nowhere(root.path() / "absent");
    EXPECT_TRUE(nowhere.pids().empty());
    EXPECT_EQ(nowhere.process(1), std::nullopt);
}

// ---- The real /proc -----------------------------------------------------------------------------

TEST(ProcFsProcessTableTest, FindsOwnChildByNameParentAndProgram) {
    TemporaryDirectory directory;
    // ')' and a space in the name: the parent field must still be found.
    auto program = copyProgram("/bin/sleep", directory.path() / "bw) sleep er");
    ChildProcess child({program.string(), "30"});
    ProcFsProcessTable table;

    std::optional<ProcessRecord> found;
    ASSERT_TRUE(waitUntil([&] {
        found = table.process(child.pid());
        // The program changes a moment before the new arguments are in place.
        return found && found->executable == program.string() && !found->commandLine.empty();
    }));
    auto self = table.process(::getpid());
    ASSERT_TRUE(self);
    EXPECT_EQ(found->pid, child.pid());
    EXPECT_EQ(found->parentPID, ::getpid());
    EXPECT_EQ(found->name, "bw) sleep er");
    EXPECT_EQ(found->commandLine, (std::vector<std::string>{program.string(), "30"}));
    EXPECT_EQ(found->cgroup, self->cgroup);  // children start in their parent's cgroup
    auto pids = table.pids();
    EXPECT_TRUE(std::binary_search(pids.begin(), pids.end(), child.pid()));

    pid_t pid = child.pid();
    child.stop();
    EXPECT_EQ(table.process(pid), std::nullopt);
    pids = table.pids();
    EXPECT_FALSE(std::binary_search(pids.begin(), pids.end(), pid));
}

}  // namespace
}  // namespace bw::test
