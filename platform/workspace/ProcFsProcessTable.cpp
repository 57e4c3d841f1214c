#include "platform/workspace/ProcFsProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace bw {

namespace {

// No executable path is this long; a longer link is not worth reading.
constexpr std::size_t kLinkLimit = 1 << 16;
// Launchers move a process they started into its application's unit just after starting it; later
// moves are not looked for.
constexpr std::uint64_t kCgroupSettleSeconds = 30;
// The kernel's flag for its own threads, in /proc/PID/stat's flags field.
constexpr std::uint64_t kKernelThread = 0x00200000;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

private:
    int fd_;
};

// `oneRecord`: the file is one line made at once (stat), so a short read is the whole of it.
std::optional<std::string> readAt(int directory, const char* name, bool oneRecord = false) {
    FileDescriptor file(::openat(directory, name, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.valid()) {
        return std::nullopt;
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t count = ::read(file.get(), buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::nullopt;
        }
        text.append(buffer, static_cast<std::size_t>(count));
        if (count == 0 || (oneRecord && static_cast<std::size_t>(count) < sizeof buffer)) {
            return text;
        }
    }
}

std::string readLinkAt(int directory, const char* name) {
    std::string target(256, '\0');
    for (;;) {
        ssize_t count = ::readlinkat(directory, name, target.data(), target.size());
        if (count < 0) {
            return {};
        }
        if (static_cast<std::size_t>(count) < target.size()) {
            target.resize(static_cast<std::size_t>(count));
            return target;
        }
        if (target.size() >= kLinkLimit) {
            return {};
        }
        target.resize(target.size() * 2);
    }
}

template <typename Integer>
std::optional<Integer> parseInteger(std::string_view text) {
    Integer value{};
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::int32_t> parsePID(std::string_view text) {
    auto pid = parseInteger<std::int32_t>(text);
    if (!pid || *pid <= 0) {
        return std::nullopt;
    }
    return pid;
}

// What tells one program run apart from another in the same process: a reused pid has another
// start time; an exec() gets a new comm or a new memory layout (visible for processes we may
// inspect; others hide the addresses, but their program can't be read either).
struct Identity {
    std::uint64_t startTime = 0;  // clock ticks after boot
    std::string name;
    bool ended = false;  // a zombie: nothing left to say about its program
    bool kernelThread = false;
    std::uint64_t startCode = 0;
    std::uint64_t startStack = 0;
    std::uint64_t argumentsStart = 0;
    std::uint64_t argumentsEnd = 0;

    // Whether an exec() would change this identity.
    bool showsExec() const { return ended || kernelThread || startStack != 0; }

    friend bool operator==(const Identity&, const Identity&) = default;
};

struct StatFields {
    std::string name;
    std::int32_t parentPID = 0;
    // Absent from stat files shorter than the kernel's (fake trees).
    std::optional<Identity> identity;
};

// "pid (comm) state ppid ...": comm may hold spaces and ')', so the fields start after the last
// ')'.
std::optional<StatFields> parseStat(std::string_view stat) {
    std::size_t open = stat.find('(');
    std::size_t close = stat.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return std::nullopt;
    }
    // fields[i] is field i + 3 of proc(5): state, ppid, ...
    std::string_view rest = stat.substr(close + 1);
    std::string_view fields[47];
    std::size_t found = 0;
    std::size_t at = 0;
    while (found < std::size(fields)) {
        while (at < rest.size() && rest[at] == ' ') {
            ++at;
        }
        if (at == rest.size() || rest[at] == '\n') {
            break;
        }
        std::size_t end = at;
        while (end < rest.size() && rest[end] != ' ' && rest[end] != '\n') {
            ++end;
        }
        fields[found++] = rest.substr(at, end - at);
        at = end;
    }
    if (found < 2) {
        return std::nullopt;
    }
    auto parent = parseInteger<std::int32_t>(fields[1]);
    if (!parent || *parent < 0) {
        return std::nullopt;
    }
    StatFields result{std::string(stat.substr(open + 1, close - open - 1)), *parent, std::nullopt};
    auto number = [&](std::size_t field) {
        return field - 3 < found ? parseInteger<std::uint64_t>(fields[field - 3]).value_or(0) : 0;
    };
    // Through startstack (field 28); the argument addresses came later (Linux 3.5).
    if (found >= 26 && parseInteger<std::uint64_t>(fields[22 - 3])) {
        result.identity = Identity{number(22),
                                   result.name,
                                   fields[0] == "Z" || fields[0] == "X",
                                   (number(9) & kKernelThread) != 0,
                                   number(26),
                                   number(28),
                                   number(48),
                                   number(49)};
    }
    return result;
}

std::uint64_t ticksPerSecond() {
    static const std::uint64_t ticks = std::uint64_t(::sysconf(_SC_CLK_TCK));
    return ticks;
}

// Whether the process started long enough ago for its cgroup to stay where it is.
bool cgroupSettled(std::uint64_t startTime) {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    const std::uint64_t ticks = std::uint64_t(now.tv_sec) * ticksPerSecond() +
                                std::uint64_t(now.tv_nsec) * ticksPerSecond() / 1000000000u;
    return ticks >= startTime && ticks - startTime >= kCgroupSettleSeconds * ticksPerSecond();
}

std::vector<std::string> splitCommandLine(std::string_view text) {
    std::vector<std::string> arguments;
    while (!text.empty()) {
        std::size_t end = text.find('\0');
        if (end == std::string_view::npos) {
            arguments.emplace_back(text);
            break;
        }
        arguments.emplace_back(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    return arguments;
}

std::string unifiedCgroup(std::string_view text) {
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        if (line.starts_with("0::")) {
            return std::string(line.substr(3));
        }
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
    return {};
}

}  // namespace

// What was read of each process, and how to tell it still runs the same program.
struct ProcFsProcessTable::Cache {
    struct Known {
        Identity identity;
        ProcessRecord record;
    };

    std::mutex mutex;
    std::unordered_map<std::int32_t, Known> known;  // guarded by mutex
};

ProcFsProcessTable::ProcFsProcessTable(std::filesystem::path root)
    : root_(std::move(root)), cache_(std::make_unique<Cache>()) {}

ProcFsProcessTable::~ProcFsProcessTable() = default;

std::vector<std::int32_t> ProcFsProcessTable::pids() {
    std::vector<std::int32_t> result;
    DIR* directory = ::opendir(root_.c_str());
    if (directory == nullptr) {
        return result;
    }
    while (const dirent* entry = ::readdir(directory)) {
        if (auto pid = parsePID(entry->d_name)) {
            result.push_back(*pid);
        }
    }
    ::closedir(directory);
    std::sort(result.begin(), result.end());

    std::lock_guard lock(cache_->mutex);
    std::erase_if(cache_->known, [&](const auto& item) {
        return !std::binary_search(result.begin(), result.end(), item.first);
    });
    return result;
}

std::optional<ProcessRecord> ProcFsProcessTable::process(std::int32_t pid) {
    if (pid <= 0) {
        return std::nullopt;
    }
    auto gone = [&]() -> std::optional<ProcessRecord> {
        std::lock_guard lock(cache_->mutex);
        cache_->known.erase(pid);
        return std::nullopt;
    };
    // Most calls find the same run as last time, with nothing to read but stat: one file can't mix
    // two processes, so it is opened by name. Anything more goes through a handle on the folder.
    auto same = [&](const StatFields& stat) -> std::optional<ProcessRecord> {
        if (!stat.identity) {
            return std::nullopt;
        }
        std::lock_guard lock(cache_->mutex);
        auto found = cache_->known.find(pid);
        if (found == cache_->known.end() || found->second.identity != *stat.identity) {
            return std::nullopt;
        }
        return found->second.record;
    };
    const std::string path = root_.native() + "/" + std::to_string(pid);
    if (auto text = readAt(AT_FDCWD, (path + "/stat").c_str(), true)) {
        if (auto stat = parseStat(*text); stat && stat->identity && stat->identity->showsExec() &&
                                          cgroupSettled(stat->identity->startTime)) {
            if (auto record = same(*stat)) {
                record->parentPID = stat->parentPID;
                return record;
            }
        }
    }

    FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid()) {
        return gone();
    }
    auto statText = readAt(directory.get(), "stat", true);
    if (!statText) {
        return gone();
    }
    auto stat = parseStat(*statText);
    if (!stat) {
        return gone();
    }

    std::optional<ProcessRecord> known = same(*stat);
    const bool keepArguments = known && stat->identity->showsExec();
    const bool keepCgroup = known && cgroupSettled(stat->identity->startTime);
    ProcessRecord record = known ? std::move(*known) : ProcessRecord{};
    record.pid = pid;
    record.parentPID = stat->parentPID;
    if (keepArguments && keepCgroup) {
        return record;
    }
    if (!known) {
        if (auto comm = readAt(directory.get(), "comm")) {
            if (comm->ends_with('\n')) {
                comm->pop_back();
            }
            record.name = std::move(*comm);
        } else {
            record.name = std::move(stat->name);
        }
        record.executable = readLinkAt(directory.get(), "exe");
    }
    if (!keepArguments) {
        auto commandLine = readAt(directory.get(), "cmdline");
        record.commandLine =
            commandLine ? splitCommandLine(*commandLine) : std::vector<std::string>();
    }
    if (!keepCgroup) {
        auto cgroup = readAt(directory.get(), "cgroup");
        record.cgroup = cgroup ? unifiedCgroup(*cgroup) : std::string();
    }

    // Files of a process that ended (and was reaped) while we read vanish through the handle we
    // hold; what was read may be partial, so it counts as gone.
    if (::faccessat(directory.get(), "stat", R_OK, 0) != 0) {
        return gone();
    }
    if (stat->identity) {
        std::lock_guard lock(cache_->mutex);
        cache_->known.insert_or_assign(pid, Cache::Known{*stat->identity, record});
    }
    return record;
}

}  // namespace bw
