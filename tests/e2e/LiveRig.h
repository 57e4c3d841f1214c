#pragma once

// Child processes, a private audio server and small readers of tool output, for tests that record
// real programs on PipeWire through record-live.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace bw::test::live {

using Env = std::map<std::string, std::string>;
using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

inline void sleepSeconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

/// A process started in its own process group, so that stopping it also stops whatever it started.
/// Stopped (SIGTERM, then SIGKILL) when it goes out of scope, also when an assertion failed.
class Child {
public:
    Child() = default;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    Child(Child&& other) noexcept { *this = std::move(other); }
    Child& operator=(Child&& other) noexcept {
        if (this != &other) {
            stop();
            pid_ = std::exchange(other.pid_, -1);
            status_ = std::exchange(other.status_, std::nullopt);
        }
        return *this;
    }
    ~Child() { stop(); }

    /// Runs `argv` (looked up in PATH) with the environment of this process plus `overrides`.
    /// Output goes to `stdoutPath` when given, else it is inherited. A program that can't be
    /// started ends at once with status 127.
    static Child spawn(const std::vector<std::string>& argv, const Env& overrides = {},
                       const std::filesystem::path& stdoutPath = {}) {
        Child child;
        // `env` sets the overrides and then becomes the program, under the same process id.
        std::vector<std::string> args{"env"};
        for (const auto& [name, value] : overrides) {
            args.push_back(name + "=" + value);
        }
        args.insert(args.end(), argv.begin(), argv.end());
        std::vector<char*> argp;
        for (auto& arg : args) {
            argp.push_back(arg.data());
        }
        argp.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (!stdoutPath.empty()) {
            posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdoutPath.c_str(),
                                             O_WRONLY | O_CREAT | O_TRUNC, 0644);
        }
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setpgroup(&attributes, 0);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGTERM);
        sigaddset(&defaults, SIGINT);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setflags(
            &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        pid_t pid = -1;
        if (posix_spawnp(&pid, argp[0], &actions, &attributes, argp.data(), environ) == 0) {
            child.pid_ = pid;
        }
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        return child;
    }

    bool valid() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

    /// The wait status once the process has ended within `timeout`; nothing while it still runs.
    std::optional<int> wait(double timeout) {
        if (status_ || pid_ <= 0) {
            return status_;
        }
        const auto deadline = Clock::now() + std::chrono::duration<double>(timeout);
        while (true) {
            int status = 0;
            const pid_t done = waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                status_ = status;
                return status_;
            }
            if (done < 0 || Clock::now() >= deadline) {
                return std::nullopt;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    bool running() { return pid_ > 0 && !wait(0); }

    /// Asks the whole process group politely, then insists; reaps the process.
    void stop() {
        if (pid_ <= 0) {
            return;
        }
        if (!status_) {
            ::kill(-pid_, SIGTERM);
            if (!wait(2.0)) {
                ::kill(-pid_, SIGKILL);
                wait(5.0);
            }
            // Whatever the stopped process had started in its group goes too.
            ::kill(-pid_, SIGKILL);
        }
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

struct RunResult {
    bool finished = false;  ///< false: still running at the timeout, and killed
    int status = -1;        ///< the wait status
    std::string out;

    bool succeeded() const { return finished && WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

/// Runs a command to its end (or kills it after `timeout` seconds) and returns its standard output.
inline RunResult run(const std::vector<std::string>& argv, double timeout = 20,
                     const Env& overrides = {}) {
    static int runs = 0;
    const auto out = std::filesystem::temp_directory_path() /
                     ("bw-run-" + std::to_string(getpid()) + "-" + std::to_string(runs++));
    RunResult result;
    Child child = Child::spawn(argv, overrides, out);
    if (const auto status = child.wait(timeout)) {
        result.finished = true;
        result.status = *status;
    }
    child.stop();
    result.out = readFile(out);
    std::filesystem::remove(out);
    return result;
}

/// The variables of `export A=… B=…` lines, quoted as bash's `printf %q` quotes paths: a
/// backslash before each special character.
inline Env parseExports(const std::string& text) {
    Env env;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("export ", 0) != 0) {
            continue;
        }
        std::vector<std::string> words(1);
        for (std::size_t i = 7; i < line.size(); ++i) {
            if (line[i] == ' ') {
                words.emplace_back();
            } else {
                words.back() += line[i] == '\\' && i + 1 < line.size() ? line[++i] : line[i];
            }
        }
        for (const auto& word : words) {
            if (const auto equals = word.find('='); equals != std::string::npos && equals > 0) {
                env[word.substr(0, equals)] = word.substr(equals + 1);
            }
        }
    }
    return env;
}

/// A private PipeWire + WirePlumber + D-Bus from scripts/audio-server.
class AudioServer {
public:
    AudioServer() = default;
    AudioServer(const AudioServer&) = delete;
    AudioServer& operator=(const AudioServer&) = delete;
    ~AudioServer() { stop(); }

    /// `script start [dir]` starts a server in `dir`, or in a new folder; `script prepare dir`
    /// makes `dir` ready for a server started later. Either takes the server's environment and
    /// returns empty on success, else what went wrong.
    std::string call(const std::filesystem::path& script, const std::string& command,
                     const std::filesystem::path& dir = {}) {
        script_ = script;
        std::vector<std::string> argv{script.string(), command};
        if (!dir.empty()) {
            argv.push_back(dir.string());
        }
        const auto result = run(argv, 60);
        env_ = parseExports(result.out);
        if (!result.succeeded()) {
            return "`" + script.string() + " " + command + "` failed (status " +
                   std::to_string(result.status) + "); it printed: " + result.out;
        }
        for (const char* name : {"BW_AUDIO_DIR", "XDG_RUNTIME_DIR", "PIPEWIRE_RUNTIME_DIR",
                                 "DBUS_SESSION_BUS_ADDRESS", "HOME", "XDG_DATA_HOME"}) {
            if (!env_.contains(name)) {
                return std::string("the server's exports lack ") + name +
                       "; printed: " + result.out;
            }
        }
        return {};
    }

    void stop() {
        if (env_.contains("BW_AUDIO_DIR")) {
            run({script_.string(), "stop", env_.at("BW_AUDIO_DIR")}, 30);
            env_.clear();
        }
    }

    const Env& env() const { return env_; }
    std::filesystem::path dir() const { return env_.at("BW_AUDIO_DIR"); }

private:
    std::filesystem::path script_;
    Env env_;
};

/// The value after `"key":` in a one-line JSON object: a number, null, a string (unescaped) or an
/// object/array as text. Nothing when the key is absent.
inline std::optional<std::string> jsonField(const std::string& json, const std::string& key) {
    const std::string needle = "\"" + key + "\":";
    auto at = json.find(needle);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    at += needle.size();
    if (at >= json.size()) {
        return std::nullopt;
    }
    if (json[at] == '"') {
        std::string text;
        for (std::size_t i = at + 1; i < json.size() && json[i] != '"'; ++i) {
            if (json[i] == '\\' && i + 1 < json.size()) {
                ++i;
                text += json[i] == 'n' ? '\n' : json[i];
            } else {
                text += json[i];
            }
        }
        return text;
    }
    if (json[at] == '{' || json[at] == '[') {
        // No text of record-live's holds a bracket.
        int depth = 0;
        for (std::size_t i = at; i < json.size(); ++i) {
            depth += (json[i] == '{' || json[i] == '[') - (json[i] == '}' || json[i] == ']');
            if (depth == 0) {
                return json.substr(at, i - at + 1);
            }
        }
        return std::nullopt;
    }
    const auto end = json.find_first_of(",}", at);
    return json.substr(at, end - at);
}

/// What ffprobe says about a file's first audio stream.
struct Probe {
    bool ok = false;
    std::string codecName;
    int sampleRate = 0;
    int channels = 0;
    double duration = 0;
    std::string text;  ///< ffprobe's own output, for messages
};

inline Probe probe(const std::filesystem::path& file) {
    const auto result = run({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                             "stream=codec_name,sample_rate,channels:format=duration", "-of",
                             "default=noprint_wrappers=1", file.string()});
    Probe p;
    p.text = result.out;
    std::map<std::string, std::string> values;
    std::istringstream lines(result.out);
    std::string line;
    while (std::getline(lines, line)) {
        if (const auto equals = line.find('='); equals != std::string::npos) {
            values[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    auto number = [&](const char* key) {
        const auto it = values.find(key);
        return it == values.end() ? 0.0 : std::atof(it->second.c_str());
    };
    p.codecName = values.contains("codec_name") ? values["codec_name"] : "";
    p.sampleRate = int(number("sample_rate"));
    p.channels = int(number("channels"));
    p.duration = number("duration");
    p.ok = result.succeeded() && !p.codecName.empty() && p.duration > 0;
    return p;
}

/// A link between two ports, by "node:port" names, as `pw-link -l` shows it.
using PortLink = std::pair<std::string, std::string>;

inline std::vector<PortLink> currentLinks(const Env& overrides = {}) {
    std::vector<PortLink> links;
    const auto result = run({"pw-link", "-l"}, 10, overrides);
    std::istringstream lines(result.out);
    std::string line;
    std::string port;
    while (std::getline(lines, line)) {
        if (!line.empty() && line[0] != ' ') {
            port = line;
        } else if (const auto arrow = line.find("|-> "); arrow != std::string::npos) {
            links.emplace_back(port, line.substr(arrow + 4));
        }
    }
    return links;
}

inline std::string nodeOf(const std::string& port) {
    return port.substr(0, port.rfind(':'));
}

/// The nodes that the output ports of `node` feed.
inline std::vector<std::string> nodesFedBy(const std::vector<PortLink>& links,
                                           const std::string& node) {
    std::vector<std::string> fed;
    for (const auto& [from, to] : links) {
        if (nodeOf(from) == node && std::find(fed.begin(), fed.end(), nodeOf(to)) == fed.end()) {
            fed.push_back(nodeOf(to));
        }
    }
    return fed;
}

inline std::string describe(const std::vector<std::string>& list) {
    std::string text;
    for (const auto& item : list) {
        text += (text.empty() ? "" : ", ") + item;
    }
    return "[" + text + "]";
}

/// Polls `condition` every 50 ms for up to `timeout` seconds.
template <typename Condition>
bool eventually(double timeout, Condition condition) {
    const auto start = Clock::now();
    while (!condition()) {
        if (secondsSince(start) > timeout) {
            return false;
        }
        sleepSeconds(0.05);
    }
    return true;
}

}  // namespace bw::test::live
