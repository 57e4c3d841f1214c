#include "platform/workspace/XdgDesktopEntryIndex.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/workspace/WorkspaceTestSupport.h"

namespace bw::test {
namespace {

// ---- Exec and TryExec ---------------------------------------------------------------------------

struct ExecCase {
    const char* name;
    const char* exec;
    const char* tryExec;
    std::vector<std::string> expected;
};

void PrintTo(const ExecCase& c, std::ostream* out) {
    *out << c.name;
}

class ExecTest : public ::testing::TestWithParam<ExecCase> {};

TEST_P(ExecTest, NamesTheProgramThatRuns) {
    const ExecCase& c = GetParam();
    EXPECT_EQ(XdgDesktopEntryIndex::executablesFor(c.exec, c.tryExec), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, ExecTest,
    ::testing::Values(
        ExecCase{"BareName", "player %U", "", {"player"}},
        ExecCase{"Path", "/usr/bin/player --new-window %u", "", {"player"}},
        ExecCase{"QuotedPathWithSpaces", "\"/opt/My Player/bin/my player\" %F", "", {"my player"}},
        ExecCase{"SingleQuoted", "'/opt/p/player' --a", "", {"player"}},
        ExecCase{"EnvAssignments", "env FOO=1 BAR=x=y player %U", "", {"player"}},
        ExecCase{"EnvOptions",
                 "/usr/bin/env -i -u DISPLAY GDK_BACKEND=x11 /opt/p/player",
                 "",
                 {"player"}},
        ExecCase{"EnvDoubleDash", "env -- player", "", {"player"}},
        ExecCase{"BareAssignment", "GTK_THEME=Adwaita:dark player", "", {"player"}},
        ExecCase{"ShellCommand", "sh -c \"exec /opt/p/player --x\"", "", {"player"}},
        ExecCase{"ShellOptionCluster", "bash -lc 'GDK_SCALE=2 player'", "", {"player"}},
        ExecCase{"ShellChangesFolderFirst", "sh -c 'cd /opt/p && ./player'", "", {"player"}},
        ExecCase{"ShellScript", "bash /opt/p/start-player.sh", "", {"start-player.sh"}},
        ExecCase{"PythonScript", "python3 /usr/share/p/player.py", "", {"player.py"}},
        ExecCase{
            "VersionedInterpreterOptions", "/usr/bin/python3.11 -s /usr/bin/meld", "", {"meld"}},
        ExecCase{"PythonModule", "python3 -m player", "", {"player"}},
        ExecCase{"InlineCode", "python3 -c 'import player'", "", {}},
        ExecCase{"JavaArchive", "java -jar /opt/p/player.jar", "", {"player.jar"}},
        ExecCase{"Flatpak", "/usr/bin/flatpak run --branch=stable org.example.Player", "", {}},
        ExecCase{"TryExecAdds", "player", "/usr/lib/player/player-bin", {"player", "player-bin"}},
        ExecCase{"TryExecSameOnce", "player %U", "player", {"player"}},
        ExecCase{"TryExecInterpreterIgnored", "python3 /usr/bin/tool", "python3", {"tool"}},
        ExecCase{"OnlyTryExec", "", "player", {"player"}}, ExecCase{"Empty", "", "", {}},
        ExecCase{"UnbalancedQuote", "\"/opt/p/player --x", "", {"player"}}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Entries read through GIO -------------------------------------------------------------------

namespace fs = std::filesystem;

// GLib reads the XDG variables once, at its first use: they are set before any test runs. The
// second system folder has no applications folder yet.
class DesktopDataEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        root_ = std::make_unique<TemporaryDirectory>();
        const auto& root = root_->path();
        // GIO drops entries whose program doesn't exist.
        std::string tool = copyProgram("/bin/true", root / "bin" / "bw-tool").string();
        std::string check = copyProgram("/bin/true", root / "bin" / "bw-check").string();
        auto user = root / "home" / "applications";
        auto system = root / "system" / "applications";
        auto entry = [&](const std::string& lines) {
            return "[Desktop Entry]\nType=Application\n" + lines + "Exec=" + tool + " %U\n";
        };
        writeFile(user / "org.example.Visible.desktop",
                  "[Desktop Entry]\nType=Application\nName=Visible\nName[de]=Sichtbar\n"
                  "Icon=org.example.Visible\nExec=env A=1 " +
                      tool + " --x %U\nTryExec=" + check + "\n");
        writeFile(user / "org.example.Quiet.desktop", entry("Name=Quiet\nNoDisplay=true\n"));
        writeFile(user / "org.example.Gone.desktop", entry("Name=Gone\nHidden=true\n"));
        writeFile(user / "org.example.Untried.desktop",
                  entry("Name=Untried\nTryExec=/nonexistent/bw-tool\n"));
        writeFile(user / "org.example.Nameless.desktop", entry(""));
        writeFile(user / "org.example.Link.desktop",
                  "[Desktop Entry]\nType=Link\nName=Link\nURL=https://example.org/\n");
        writeFile(user / "vendor" / "tool.desktop", entry("Name=Vendor Tool\n"));
        writeFile(user / "org.example.Shadowed.desktop", entry("Name=User Copy\n"));
        writeFile(system / "org.example.Shadowed.desktop", entry("Name=System Copy\n"));
        writeFile(system / "org.example.SystemOnly.desktop",
                  entry("Name=System Only\nIcon=/usr/share/pixmaps/so.png\n"));
        ::setenv("XDG_DATA_HOME", (root / "home").c_str(), 1);
        ::setenv("XDG_DATA_DIRS",
                 (root / "system").string().append(":").append(root / "late").c_str(), 1);
        ::setenv("LANGUAGE", "de", 1);
    }

    void TearDown() override { root_.reset(); }

    static const fs::path& root() { return root_->path(); }

private:
    static inline std::unique_ptr<TemporaryDirectory> root_;
};

const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new DesktopDataEnvironment);

const std::vector<DesktopEntry>& expectedEntries() {
    static const std::vector<DesktopEntry> entries = {
        {"org.example.Nameless", "", "", true, {"bw-tool"}},
        {"org.example.Quiet", "Quiet", "", false, {"bw-tool"}},
        {"org.example.Shadowed", "User Copy", "", true, {"bw-tool"}},
        {"org.example.SystemOnly", "System Only", "/usr/share/pixmaps/so.png", true, {"bw-tool"}},
        {"org.example.Visible", "Sichtbar", "org.example.Visible", true, {"bw-tool", "bw-check"}},
        {"vendor-tool", "Vendor Tool", "", true, {"bw-tool"}},
    };
    return entries;
}

TEST(XdgDesktopEntryIndexTest, ListsAndLooksUpUsableEntriesOfBothFoldersUserFirst) {
    XdgDesktopEntryIndex index;  // looked up before anything lists it
    for (const DesktopEntry& expected : expectedEntries()) {
        EXPECT_EQ(index.entry(expected.id), expected) << expected.id;
    }
    for (const char* id : {"org.example.Gone", "org.example.Untried", "org.example.Link",
                           "org.example.Visible.desktop", "org.example.Absent", "", "../home"}) {
        EXPECT_EQ(index.entry(id), std::nullopt) << id;
    }
    EXPECT_EQ(index.entries(), expectedEntries());
}

TEST(XdgDesktopEntryIndexTest, OverlappingCallsFromManyThreadsAgree) {
    XdgDesktopEntryIndex index;
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (std::size_t t = 0; t < mismatches.size(); ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                mismatches[t] += index.entries() != expectedEntries();
                mismatches[t] += index.entry("org.example.Visible") != expectedEntries()[4];
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches, std::vector<int>(mismatches.size(), 0));
}

// ---- Following changes --------------------------------------------------------------------------

// An entry running the tools that the environment installed.
std::string entryText(const std::string& name, const std::string& extra = "") {
    const fs::path& root = DesktopDataEnvironment::root();
    return "[Desktop Entry]\nType=Application\nName=" + name +
           "\nExec=" + (root / "bin" / "bw-tool").string() + " %U\n" + extra;
}

DesktopEntry toolEntry(const std::string& id, const std::string& name,
                       std::vector<std::string> executables = {"bw-tool"}) {
    return {id, name, "", true, std::move(executables)};
}

struct ChangeCase {
    const char* name;
    std::function<void(const fs::path& root)> before;
    std::function<void(const fs::path& root)> change;
    const char* id;
    std::optional<DesktopEntry> expectedBefore;
    std::optional<DesktopEntry> expectedAfter;
};

void PrintTo(const ChangeCase& c, std::ostream* out) {
    *out << c.name;
}

// The other tests expect the environment as it was: whatever a case adds goes again.
class ChangeTest : public ::testing::TestWithParam<ChangeCase> {
protected:
    void SetUp() override { original_ = {fs::recursive_directory_iterator(root()), {}}; }
    void TearDown() override {
        std::vector<fs::path> added;
        for (const auto& item : fs::recursive_directory_iterator(root())) {
            if (!original_.contains(item.path())) {
                added.push_back(item.path());
            }
        }
        for (const fs::path& path : added) {
            fs::remove_all(path);
        }
    }
    static const fs::path& root() { return DesktopDataEnvironment::root(); }

private:
    std::set<fs::path> original_;
};

TEST_P(ChangeTest, AnIndexInUseSeesTheChange) {
    const ChangeCase& c = GetParam();
    if (c.before) {
        c.before(root());
    }
    XdgDesktopEntryIndex index;
    ASSERT_EQ(index.entry(c.id), c.expectedBefore);
    c.change(root());
    auto listed = [&] {
        auto entries = index.entries();
        auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const DesktopEntry& entry) { return entry.id == c.id; });
        return found == entries.end() ? std::nullopt : std::optional(*found);
    };
    EXPECT_TRUE(waitUntil([&] { return listed() == c.expectedAfter; })) << c.id;
    EXPECT_EQ(index.entry(c.id), c.expectedAfter);
}

// One step of a case: an entry file written with the name given, or removed.
std::function<void(const fs::path&)> writes(std::string path, std::string name) {
    return [=](const fs::path& root) { writeFile(root / path, entryText(name)); };
}
std::function<void(const fs::path&)> removes(std::string path) {
    return [=](const fs::path& root) { fs::remove(root / path); };
}

INSTANTIATE_TEST_SUITE_P(
    Files, ChangeTest,
    ::testing::Values(
        ChangeCase{"Added", nullptr, writes("home/applications/org.example.Added.desktop", "Added"),
                   "org.example.Added", std::nullopt, toolEntry("org.example.Added", "Added")},
        // Same file, same size: only its time stamps or the event tell.
        ChangeCase{"RewrittenInPlace",
                   writes("home/applications/org.example.Rewritten.desktop", "Old"),
                   writes("home/applications/org.example.Rewritten.desktop", "New"),
                   "org.example.Rewritten", toolEntry("org.example.Rewritten", "Old"),
                   toolEntry("org.example.Rewritten", "New")},
        ChangeCase{"Removed", writes("home/applications/org.example.Removed.desktop", "Removed"),
                   removes("home/applications/org.example.Removed.desktop"), "org.example.Removed",
                   toolEntry("org.example.Removed", "Removed"), std::nullopt},
        ChangeCase{"InANewSubfolder", nullptr,
                   writes("home/applications/newvendor/app.desktop", "Vendor App"), "newvendor-app",
                   std::nullopt, toolEntry("newvendor-app", "Vendor App")},
        ChangeCase{"InAFolderMadeLater", nullptr,
                   writes("late/applications/org.example.Late.desktop", "Late"), "org.example.Late",
                   std::nullopt, toolEntry("org.example.Late", "Late")},
        ChangeCase{"UserCopyRemovedUncoversTheSystems",
                   [](const fs::path& root) {
                       writes("system/applications/org.example.Both.desktop", "System")(root);
                       writes("home/applications/org.example.Both.desktop", "User")(root);
                   },
                   removes("home/applications/org.example.Both.desktop"), "org.example.Both",
                   toolEntry("org.example.Both", "User"), toolEntry("org.example.Both", "System")},
        // GIO leaves out an entry whose TryExec program is missing, until it is installed.
        ChangeCase{
            "ProgramInstalledLater",
            [](const fs::path& root) {
                writeFile(
                    root / "home/applications/org.example.Later.desktop",
                    entryText("Later", "TryExec=" + (root / "later/bin/bw-later").string() + "\n"));
            },
            [](const fs::path& root) { copyProgram("/bin/true", root / "later/bin/bw-later"); },
            "org.example.Later", std::nullopt,
            toolEntry("org.example.Later", "Later", {"bw-tool", "bw-later"})}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace bw::test
