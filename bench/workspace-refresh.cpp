// What one refresh of the running applications costs at desktop scale: SystemWorkspace reading
// the process table and the desktop entries, as the source list does every 5 seconds.
//
//   workspace-refresh [--entries N] [--processes N] [--calls N] [--settle S]
//
// Writes N generated desktop entries (default 500) into a scratch XDG_DATA_DIRS, tops the process
// table up to N processes (default 470) with sleeping children, then times the first call (cold)
// and --calls later ones (warm): once right away, once more after --settle seconds (default 31),
// when the children are no longer new. CPU time is the whole process's, every thread included.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/workspace/SystemWorkspace.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr int kRunning = 20;

double processCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

int processCount() {
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        count += !name.empty() && std::all_of(name.begin(), name.end(),
                                              [](unsigned char c) { return c >= '0' && c <= '9'; });
    }
    return count;
}

// Installed entries carry dozens of translations; parsing them is most of the cost.
std::string desktopEntry(int i, const std::string& program) {
    static const char* kLocales[] = {"ar", "bg", "ca", "cs", "da", "de", "el", "es",    "et",
                                     "eu", "fi", "fr", "gl", "he", "hr", "hu", "id",    "it",
                                     "ja", "ko", "lt", "nb", "nl", "pl", "pt", "pt_BR", "ro",
                                     "ru", "sk", "sl", "sr", "sv", "tr", "uk", "zh_CN", "zh_TW"};
    const std::string n = std::to_string(i);
    std::string text = "[Desktop Entry]\nType=Application\nName=Bench App " + n + "\n";
    for (const char* locale : kLocales) {
        text += "Name[" + std::string(locale) + "]=Bench App " + n + " (" + locale + ")\n";
        text += "Comment[" + std::string(locale) + "]=Does benchmark things number " + n + "\n";
    }
    text += "Icon=org.example.Bench" + n + "\nCategories=Utility;Development;\n";
    text += "MimeType=text/plain;application/x-bench-" + n + ";\nKeywords=bench;test;" + n + ";\n";
    text += i % 3 == 0 ? "Exec=env BENCH=1 " + program + " --app-" + n + " %U\n"
                       : "Exec=" + program + " --app-" + n + " %F\nTryExec=" + program + "\n";
    if (i % 10 == 0) {
        text += "NoDisplay=true\n";
    }
    text += "\n[Desktop Action new-window]\nName=New Window\nExec=/bin/true --new-window\n";
    return text;
}

class Children {
public:
    /// `count` sleepers, the first of them running `programs` one each.
    Children(int count, const std::vector<std::string>& programs) {
        for (int i = 0; i < count; ++i) {
            std::string program =
                std::size_t(i) < programs.size() ? programs[std::size_t(i)] : "/bin/sleep";
            char* argv[] = {program.data(), const_cast<char*>("600"), nullptr};
            pid_t pid = 0;
            if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) != 0) {
                break;
            }
            pids_.push_back(pid);
        }
    }
    ~Children() {
        for (pid_t pid : pids_) {
            kill(pid, SIGKILL);
        }
        for (pid_t pid : pids_) {
            waitpid(pid, nullptr, 0);
        }
    }
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;

    std::size_t size() const { return pids_.size(); }

private:
    std::vector<pid_t> pids_;
};

struct Warm {
    double mean = 0;
    double fastest = 0;
};

Warm warmCalls(bw::SystemWorkspace& workspace, int calls) {
    std::vector<double> costs;
    for (int i = 0; i < calls; ++i) {
        // A pause between calls, as between real refreshes, so nothing stays hot by accident.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const double start = processCpuSeconds();
        workspace.runningApplications();
        costs.push_back(processCpuSeconds() - start);
    }
    Warm warm;
    for (double cost : costs) {
        warm.mean += cost / double(costs.size());
    }
    warm.fastest = *std::min_element(costs.begin(), costs.end());
    return warm;
}

}  // namespace

int main(int argc, char** argv) {
    int entries = 500;
    int processes = 470;
    int calls = 20;
    int settle = 31;
    for (int i = 1; i + 1 < argc; i += 2) {
        const int value = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--entries") == 0) {
            entries = value;
        } else if (std::strcmp(argv[i], "--processes") == 0) {
            processes = value;
        } else if (std::strcmp(argv[i], "--calls") == 0) {
            calls = std::max(1, value);
        } else if (std::strcmp(argv[i], "--settle") == 0) {
            settle = value;
        } else {
            std::fprintf(stderr, "unknown option %s\n", argv[i]);
            return 2;
        }
    }

    const fs::path root =
        fs::temp_directory_path() / ("bw-workspace-bench-" + std::to_string(getpid()));
    fs::create_directories(root / "home" / "applications");
    fs::create_directories(root / "system" / "applications");
    fs::create_directories(root / "bin");
    // A few entries run programs of their own, started below: the applications to find.
    std::vector<std::string> programs;
    for (int i = 0; i < entries; ++i) {
        std::string program = "/bin/true";
        if (i < kRunning) {
            program = (root / "bin" / ("bench-app-" + std::to_string(i))).string();
            fs::copy_file("/bin/sleep", program);
            programs.push_back(program);
        }
        std::ofstream(root / "system" / "applications" /
                      ("org.example.Bench" + std::to_string(i) + ".desktop"))
            << desktopEntry(i, program);
    }
    // Set before anything reads them: GLib keeps the first values it sees.
    setenv("XDG_DATA_HOME", (root / "home").c_str(), 1);
    setenv("XDG_DATA_DIRS", (root / "system").c_str(), 1);

    Children children(std::max(0, processes - processCount()), programs);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // let them all exec

    bw::SystemWorkspace workspace;
    double start = processCpuSeconds();
    const std::size_t applications = workspace.runningApplications().size();
    const double cold = processCpuSeconds() - start;
    const Warm fresh = warmCalls(workspace, calls);
    std::this_thread::sleep_for(std::chrono::seconds(settle));
    const Warm settled = warmCalls(workspace, calls);

    const int seen = processCount();
    constexpr double kPeriod = 5.0;
    std::printf("%d processes (%zu started), %d desktop entries, %zu applications\n", seen,
                children.size(), entries, applications);
    std::printf(
        "refresh: cold %.1f ms, warm %.2f ms (fastest %.2f), after %d s %.2f ms (fastest "
        "%.2f) CPU; at one refresh per 5 s: %.3f %% of a core\n",
        cold * 1e3, fresh.mean * 1e3, fresh.fastest * 1e3, settle, settled.mean * 1e3,
        settled.fastest * 1e3, settled.mean / kPeriod * 100.0);
    std::printf(
        "{\"processes\":%d,\"entries\":%d,\"cold_ms\":%.3f,\"warm_ms\":%.3f,"
        "\"settled_ms\":%.3f,\"core_percent\":%.4f}\n",
        seen, entries, cold * 1e3, fresh.mean * 1e3, settled.mean * 1e3,
        settled.mean / kPeriod * 100.0);

    std::error_code ignored;
    fs::remove_all(root, ignored);
    return 0;
}
