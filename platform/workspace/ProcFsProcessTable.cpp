#include "platform/workspace/ProcFsProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string>
#include <string_view>
#include <utility>

namespace bw {

namespace {

// No executable path is this long; a longer link is not worth reading.
constexpr std::size_t kLinkLimit = 1 << 16;

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

std::optional<std::string> readAt(int directory, const char* name) {
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
        if (count == 0) {
            return text;
        }
        text.append(buffer, static_cast<std::size_t>(count));
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

struct StatFields {
    std::string name;
    std::int32_t parentPID = 0;
};

// "pid (comm) state ppid ...": comm may hold spaces and ')', so the fields start after the last
// ')'.
std::optional<StatFields> parseStat(std::string_view stat) {
    std::size_t open = stat.find('(');
    std::size_t close = stat.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return std::nullopt;
    }
    std::string_view rest = stat.substr(close + 1);
    std::string_view fields[2];
    std::size_t found = 0;
    std::size_t at = 0;
    while (found < 2) {
        at = rest.find_first_not_of(' ', at);
        if (at == std::string_view::npos) {
            return std::nullopt;
        }
        std::size_t end = rest.find_first_of(" \n", at);
        if (end == std::string_view::npos) {
            end = rest.size();
        }
        fields[found++] = rest.substr(at, end - at);
        at = end;
    }
    auto parent = parseInteger<std::int32_t>(fields[1]);
    if (!parent || *parent < 0) {
        return std::nullopt;
    }
    return StatFields{std::string(stat.substr(open + 1, close - open - 1)), *parent};
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

ProcFsProcessTable::ProcFsProcessTable(std::filesystem::path root) : root_(std::move(root)) {}

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
    return result;
}

std::optional<ProcessRecord> ProcFsProcessTable::process(std::int32_t pid) {
    if (pid <= 0) {
        return std::nullopt;
    }
    std::string path = (root_ / std::to_string(pid)).string();
    FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid()) {
        return std::nullopt;
    }
    auto statText = readAt(directory.get(), "stat");
    if (!statText) {
        return std::nullopt;
    }
    auto stat = parseStat(*statText);
    if (!stat) {
        return std::nullopt;
    }

    ProcessRecord record;
    record.pid = pid;
    record.parentPID = stat->parentPID;
    if (auto comm = readAt(directory.get(), "comm")) {
        if (comm->ends_with('\n')) {
            comm->pop_back();
        }
        record.name = std::move(*comm);
    } else {
        record.name = std::move(stat->name);
    }
    record.executable = readLinkAt(directory.get(), "exe");
    if (auto commandLine = readAt(directory.get(), "cmdline")) {
        record.commandLine = splitCommandLine(*commandLine);
    }
    if (auto cgroup = readAt(directory.get(), "cgroup")) {
        record.cgroup = unifiedCgroup(*cgroup);
    }

    // Files of a process that ended (and was reaped) while we read vanish through the handle we
    // hold; what was read may be partial, so it counts as gone.
    if (::faccessat(directory.get(), "stat", R_OK, 0) != 0) {
        return std::nullopt;
    }
    return record;
}

}  // namespace bw
