#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

// GLib isn't built with ThreadSanitizer, which then sees only half of the hand-offs of its slice
// allocator and worker threads (GIO's, GSettings') and reports races. GLib's own calls go
// unwatched; ours don't. Each test program includes this once.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libglib-2.0.so\ncalled_from_lib:libgio-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n";
}

namespace bw::test {

/// A fresh directory under the system's temporary folder, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "bw-workspace-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        path_ = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

inline void writeFile(const std::filesystem::path& path, const std::string& contents) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    if (!out) {
        throw std::runtime_error("can't write " + path.string());
    }
}

/// A copy of a system program under another name, so that its processes are ours to recognise.
inline std::filesystem::path copyProgram(const std::filesystem::path& program,
                                         const std::filesystem::path& copy) {
    std::filesystem::create_directories(copy.parent_path());
    std::filesystem::copy_file(program, copy, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::permissions(copy, std::filesystem::perms::owner_all);
    return std::filesystem::canonical(copy);
}

/// A child process, killed and reaped when this goes.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv) {
        std::vector<char*> arguments;
        for (const std::string& argument : argv) {
            arguments.push_back(const_cast<char*>(argument.c_str()));
        }
        arguments.push_back(nullptr);
        if (::posix_spawn(&pid_, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) {
            throw std::runtime_error("can't start " + argv[0]);
        }
    }
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

    void stop() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
};

/// Polls until `condition` holds; false when it didn't within `limit`.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace bw::test
