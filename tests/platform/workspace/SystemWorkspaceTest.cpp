#include "platform/workspace/SystemWorkspace.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/workspace/ProcFsProcessTable.h"
#include "tests/platform/workspace/WorkspaceTestSupport.h"

namespace bw::test {
namespace {

// ---- Fakes --------------------------------------------------------------------------------------

class FakeProcessTable final : public ProcessTable {
public:
    explicit FakeProcessTable(const std::vector<ProcessRecord>& processes) {
        for (const ProcessRecord& process : processes) {
            processes_[process.pid] = process;
        }
    }

    std::vector<std::int32_t> pids() override {
        ++listings;
        std::vector<std::int32_t> result;
        for (const auto& [pid, process] : processes_) {
            result.push_back(pid);
        }
        return result;
    }

    std::optional<ProcessRecord> process(std::int32_t pid) override {
        reads.push_back(pid);
        auto found = processes_.find(pid);
        return found == processes_.end() ? std::nullopt : std::optional(found->second);
    }

    int listings = 0;
    std::vector<std::int32_t> reads;

private:
    std::map<std::int32_t, ProcessRecord> processes_;
};

class FakeDesktopEntryIndex final : public DesktopEntryIndex {
public:
    explicit FakeDesktopEntryIndex(std::vector<DesktopEntry> entries)
        : entries_(std::move(entries)) {}

    std::vector<DesktopEntry> entries() override {
        ++listings;
        return entries_;
    }

    std::optional<DesktopEntry> entry(const std::string& id) override {
        auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [&](const DesktopEntry& entry) { return entry.id == id; });
        return found == entries_.end() ? std::nullopt : std::optional(*found);
    }

    int listings = 0;

private:
    std::vector<DesktopEntry> entries_;
};

// A process; its name and argv follow from the program unless given.
ProcessRecord process(std::int32_t pid, std::int32_t parent, std::string executable,
                      std::string cgroup = "", std::vector<std::string> argv = {}) {
    std::string name = executable.substr(executable.rfind('/') + 1).substr(0, 15);
    if (argv.empty() && !executable.empty()) {
        argv = {executable};
    }
    return {pid, parent, name, std::move(executable), std::move(argv), std::move(cgroup)};
}

std::string scope(const std::string& unit) {
    return "/user.slice/user-1000.slice/user@1000.service/app.slice/" + unit;
}

const std::vector<DesktopEntry> kEntries = {
    {"org.example.Player", "Player", "org.example.Player", true, {"player"}},
    {"org.gnome.Text-Editor",
     "Text Editor",
     "/usr/share/icons/te.png",
     true,
     {"gnome-text-editor"}},
    {"org.example.Tray", "", "", false, {"tray-daemon"}},
    {"firefox", "Firefox", "firefox", true, {"firefox", "firefox-bin"}},
    {"meld", "Meld", "meld", true, {"meld"}},
    // Programs shared by several entries.
    {"chrome-abcdefgh-Default", "Web App", "chrome-abcdefgh-Default", true, {"chrome"}},
    {"google-chrome", "Google Chrome", "google-chrome", true, {"chrome"}},
    {"chrome-helper", "Chrome Helper", "", false, {"chrome"}},
    {"gedit-plugins", "Plugins", "", true, {"gedit"}},
    {"org.gnome.gedit", "Text", "", true, {"gedit"}},
};

// Every case runs on top of init and a desktop session.
const std::vector<ProcessRecord> kBase = {
    process(1, 0, "/usr/lib/systemd/systemd", "/init.scope"),
    process(10, 1, "/usr/bin/gnome-shell", "/user.slice/user-1000.slice/session-2.scope"),
};

// ---- Matching, the topmost rule and the responsible process -------------------------------------

struct WorkspaceCase {
    const char* name;
    std::vector<ProcessRecord> processes;
    std::vector<std::pair<std::int32_t, std::string>> applications;       // pid and bundle ID
    std::vector<std::pair<std::int32_t, std::int32_t>> responsible = {};  // pid, responsible pid
};

void PrintTo(const WorkspaceCase& c, std::ostream* out) {
    *out << c.name;
}

class WorkspaceTest : public ::testing::TestWithParam<WorkspaceCase> {};

TEST_P(WorkspaceTest, FindsApplicationsAndResponsibleProcesses) {
    const WorkspaceCase& c = GetParam();
    std::vector<ProcessRecord> processes = kBase;
    processes.insert(processes.end(), c.processes.begin(), c.processes.end());
    SystemWorkspace workspace(std::make_shared<FakeProcessTable>(processes),
                              std::make_shared<FakeDesktopEntryIndex>(kEntries));

    auto applications = workspace.runningApplications();
    std::vector<std::pair<std::int32_t, std::string>> found;
    for (const RunningApplication& application : applications) {
        found.emplace_back(application.pid, application.bundleID.value_or("?"));
    }
    EXPECT_EQ(found, c.applications);

    // Asking about one process gives what the full listing says about it.
    for (const ProcessRecord& record : processes) {
        auto listed = std::find_if(applications.begin(), applications.end(),
                                   [&](const auto& a) { return a.pid == record.pid; });
        auto expected = listed == applications.end() ? std::nullopt : std::optional(*listed);
        EXPECT_EQ(workspace.runningApplication(record.pid), expected) << record.pid;
    }
    for (const auto& [pid, responsible] : c.responsible) {
        EXPECT_EQ(workspace.responsiblePID(pid), responsible) << pid;
    }
}

INSTANTIATE_TEST_SUITE_P(
    FakeSystem, WorkspaceTest,
    ::testing::ValuesIn(std::vector<WorkspaceCase>{
        {"NothingButTheSession", {}, {}, {{1, 1}, {10, 10}, {999, 0}, {0, 0}}},
        // Launchers escape a dash in the ID, or not.
        {"CgroupWithLauncher",
         {process(100, 10, "/usr/bin/te", scope("app-gnome-org.gnome.Text\\x2dEditor-4242.scope")),
          process(101, 10, "/usr/bin/te", scope("app-gnome-org.gnome.Text-Editor-4243.scope"))},
         {{100, "org.gnome.Text-Editor"}, {101, "org.gnome.Text-Editor"}},
         {{100, 100}}},
        {"CgroupServiceWithOrWithoutInstance",
         {process(100, 10, "/usr/lib/x/run", scope("app-kde-org.example.Player@3f2a9b.service")),
          process(101, 10, "/usr/lib/x/run", scope("app-org.example.Player.service"))},
         {{100, "org.example.Player"}, {101, "org.example.Player"}}},
        {"CgroupWithoutLauncher",
         {process(100, 10, "/usr/lib/x/run", scope("app-org.example.Player-77.scope"))},
         {{100, "org.example.Player"}}},
        {"CgroupOfFlatpak",
         {process(100, 10, "/app/bin/run", scope("app-flatpak-firefox-991.scope"))},
         {{100, "firefox"}}},
        {"CgroupBeforeProgram",
         {process(100, 10, "/usr/bin/player", scope("app-gnome-firefox-5.scope"))},
         {{100, "firefox"}}},
        {"UnknownScopesFallThroughToProgram",
         {process(100, 10, "/usr/bin/player", "/user.slice/user-1000.slice/session-2.scope"),
          process(101, 10, "/usr/bin/firefox", scope("app-gnome-org.gnome.Unknown-3.scope")),
          process(102, 10, "/usr/bin/bash", scope("app-gnome-org.gnome.Unknown-4.scope"))},
         {{100, "org.example.Player"}, {101, "firefox"}},
         {{102, 102}}},
        {"DeletedProgram",
         {process(100, 10, "/usr/bin/player (deleted)")},
         {{100, "org.example.Player"}}},
        {"UnreadableProgramUsesArgv0",
         {process(100, 10, "", "", {"/opt/player/player", "--x"})},
         {{100, "org.example.Player"}}},
        {"ProgramStartedByAnotherName",
         {process(100, 10, "/usr/lib/firefox/firefox-esr", "", {"firefox", "-P"})},
         {{100, "firefox"}}},
        {"ScriptsRunByInterpreters",
         {process(100, 10, "/usr/bin/python3.11", "", {"/usr/bin/python3", "/usr/bin/meld"}),
          process(101, 10, "/usr/bin/python3.11", "", {"python3", "-c", "print(1)"}),
          process(102, 10, "/usr/bin/python3.11", "", {"python3", "/usr/bin/other"})},
         {{100, "meld"}},
         {{101, 101}, {102, 102}}},
        {"HelpersBelongToTheTopmostProcess",
         {process(200, 10, "/usr/bin/player"), process(201, 200, "/usr/bin/player"),
          process(202, 201, "/usr/bin/bash"),
          process(203, 200, "/usr/bin/player", scope("app-gnome-player-1.scope"))},
         {{200, "org.example.Player"}},
         {{200, 200}, {201, 200}, {202, 200}, {203, 200}}},
        {"OtherApplicationBelowAnApplication",
         {process(300, 10, "/usr/bin/player"), process(301, 300, "/usr/bin/firefox"),
          process(302, 301, "/usr/lib/firefox/firefox-bin")},
         {{300, "org.example.Player"}, {301, "firefox"}},
         {{300, 300}, {301, 301}, {302, 301}}},
        {"EntriesOffTheMenuCountToo",
         {process(400, 10, "/usr/libexec/tray-daemon")},
         {{400, "org.example.Tray"}},
         {{400, 400}}},
        {"UnmatchedProcessIsItsOwn",
         {process(500, 10, "/usr/bin/bash"), process(501, 500, "/usr/bin/top")},
         {},
         {{500, 500}, {501, 501}}},
        {"ParentGoneStopsTheWalk", {process(510, 4000, "/usr/bin/bash")}, {}, {{510, 510}}},
        {"CycleAroundOneApplication",
         {process(520, 521, "/usr/bin/player"), process(521, 520, "/usr/bin/bash")},
         {{520, "org.example.Player"}},
         {{520, 520}, {521, 520}}},
        {"CycleOfOneEntryHasNoTop",
         {process(530, 531, "/usr/bin/player"), process(531, 530, "/usr/bin/player"),
          process(532, 531, "/usr/bin/bash")},
         {},
         {{530, 530}, {531, 531}, {532, 532}}},
        {"OwnParent", {process(540, 540, "/usr/bin/bash")}, {}, {{540, 540}}},
        {"SharedProgramGoesToThePlainestVisibleEntry",
         {process(600, 10, "/opt/google/chrome/chrome"), process(601, 10, "/usr/bin/gedit")},
         {{600, "google-chrome"}, {601, "org.gnome.gedit"}},
         {}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SystemWorkspaceTest, ApplicationsCarryTheirEntrysDetails) {
    SystemWorkspace workspace(std::make_shared<FakeProcessTable>(std::vector<ProcessRecord>{
                                  process(100, 1, "/usr/bin/gnome-text-editor"),
                                  process(101, 1, "/usr/bin/tray-daemon")}),
                              std::make_shared<FakeDesktopEntryIndex>(kEntries));
    EXPECT_EQ(workspace.runningApplications(),
              (std::vector<RunningApplication>{
                  {100, "org.gnome.Text-Editor", "Text Editor", true, "/usr/share/icons/te.png"},
                  {101, "org.example.Tray", std::nullopt, false, ""}}));
    EXPECT_EQ(workspace.processName(100), "gnome-text-edit");
    EXPECT_EQ(workspace.processName(102), std::nullopt);
}

TEST(SystemWorkspaceTest, EachCallTakesOneLook) {
    std::vector<ProcessRecord> processes = kBase;
    for (std::int32_t pid = 100; pid < 200; ++pid) {
        processes.push_back(process(pid, pid == 100 ? 10 : pid - 1,
                                    pid % 3 == 0 ? "/usr/bin/player" : "/usr/bin/bash"));
    }
    processes.push_back(process(300, 10, "/usr/bin/firefox"));
    auto table = std::make_shared<FakeProcessTable>(processes);
    auto index = std::make_shared<FakeDesktopEntryIndex>(kEntries);
    SystemWorkspace workspace(table, index);

    EXPECT_EQ(workspace.runningApplications().size(), 2u);
    EXPECT_EQ(table->listings, 1);
    EXPECT_EQ(index->listings, 1);
    std::vector<std::int32_t> reads = table->reads;
    std::sort(reads.begin(), reads.end());
    std::vector<std::int32_t> all = table->pids();
    EXPECT_EQ(reads, all);  // each process once
    table->listings = 0;

    // The per-process questions read the process and its ancestors only, each once.
    struct Question {
        const char* name;
        std::function<void()> ask;
        std::set<std::int32_t> allowed;
        int entryListings;
    };
    std::set<std::int32_t> ancestorsOf150 = {1, 10};
    for (std::int32_t pid = 100; pid <= 150; ++pid) {
        ancestorsOf150.insert(pid);
    }
    std::vector<Question> questions = {
        {"responsiblePID", [&] { EXPECT_EQ(workspace.responsiblePID(150), 102); }, ancestorsOf150,
         1},
        {"runningApplication", [&] { EXPECT_EQ(workspace.runningApplication(150), std::nullopt); },
         ancestorsOf150, 1},
        {"missing responsiblePID", [&] { EXPECT_EQ(workspace.responsiblePID(999), 0); }, {999}, 0},
        {"processName", [&] { EXPECT_EQ(workspace.processName(300), "firefox"); }, {300}, 0},
    };
    for (const Question& question : questions) {
        table->reads.clear();
        index->listings = 0;
        question.ask();
        std::multiset<std::int32_t> read(table->reads.begin(), table->reads.end());
        for (std::int32_t pid : read) {
            EXPECT_TRUE(question.allowed.count(pid)) << question.name << " read " << pid;
            EXPECT_EQ(read.count(pid), 1u) << question.name << " read " << pid;
        }
        EXPECT_EQ(table->listings, 0) << question.name;
        EXPECT_EQ(index->listings, question.entryListings) << question.name;
    }
}

TEST(SystemWorkspaceTest, KnowsItself) {
    auto table = std::make_shared<FakeProcessTable>(kBase);
    auto index = std::make_shared<FakeDesktopEntryIndex>(kEntries);
    EXPECT_EQ(SystemWorkspace(table, index).ownBundleID(), "com.tallowfields.BrightwaveRecord");
    EXPECT_EQ(SystemWorkspace(table, index, "org.example.Other").ownBundleID(),
              "org.example.Other");
    EXPECT_EQ(SystemWorkspace(table, index, "").ownBundleID(), std::nullopt);
    EXPECT_EQ(SystemWorkspace(table, index).ownPID(), ::getpid());
}

// ---- The real system ----------------------------------------------------------------------------

// GIO reads the XDG variables once, at its first use: they are set before any test runs. The
// system folder is empty so that the machine's own entries stay out of the way.
class PlayerEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        root_ = std::make_unique<TemporaryDirectory>();
        const auto& root = root_->path();
        player_ = copyProgram("/bin/sleep", root / "bin" / "bw-test-player").string();
        writeFile(root / "home" / "applications" / "org.example.TestPlayer.desktop",
                  "[Desktop Entry]\nType=Application\nName=Test Player\nName[de]=Testspieler\n"
                  "Icon=org.example.TestPlayer\nExec=" +
                      player_ + " 30\n");
        std::filesystem::create_directories(root / "system");
        ::setenv("XDG_DATA_HOME", (root / "home").c_str(), 1);
        ::setenv("XDG_DATA_DIRS", (root / "system").c_str(), 1);
        ::setenv("LANGUAGE", "de", 1);
    }

    void TearDown() override { root_.reset(); }

    static const std::string& player() { return player_; }

private:
    std::unique_ptr<TemporaryDirectory> root_;
    static inline std::string player_;
};

const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new PlayerEnvironment);

TEST(SystemWorkspaceTest, CreditsARealHelperToItsApplication) {
    // Orphans become ours to reap once the player is gone.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    const std::string& player = PlayerEnvironment::player();
    // The shell starts a helper and then becomes the player itself.
    ChildProcess shell({"/bin/sh", "-c", "'" + player + "' 30 & exec '" + player + "' 30"});
    std::int32_t helper = 0;
    // The helper is the shell's child until the shell is gone, then ours to reap.
    std::shared_ptr<void> cleanup(nullptr, [&](void*) {
        if (helper > 0) {
            ::kill(helper, SIGKILL);
        }
        shell.stop();
        if (helper > 0) {
            ::waitpid(helper, nullptr, 0);
        }
    });

    ProcFsProcessTable table;
    auto runsPlayer = [&](const std::optional<ProcessRecord>& process) {
        return process && process->executable == player && !process->commandLine.empty();
    };
    ASSERT_TRUE(waitUntil([&] {
        if (!runsPlayer(table.process(shell.pid()))) {
            return false;
        }
        for (std::int32_t pid : table.pids()) {
            auto process = table.process(pid);
            if (runsPlayer(process) && process->parentPID == shell.pid()) {
                helper = pid;
                return true;
            }
        }
        return false;
    }));

    SystemWorkspace workspace;
    RunningApplication expected{shell.pid(), "org.example.TestPlayer", "Testspieler", true,
                                "org.example.TestPlayer"};
    auto applications = workspace.runningApplications();
    EXPECT_NE(std::find(applications.begin(), applications.end(), expected), applications.end());
    EXPECT_TRUE(std::none_of(applications.begin(), applications.end(),
                             [&](const auto& a) { return a.pid == helper; }));
    EXPECT_EQ(workspace.runningApplication(shell.pid()), expected);
    EXPECT_EQ(workspace.responsiblePID(helper), shell.pid());
    EXPECT_EQ(workspace.responsiblePID(shell.pid()), shell.pid());
    EXPECT_EQ(workspace.processName(helper), "bw-test-player");
}

}  // namespace
}  // namespace bw::test
