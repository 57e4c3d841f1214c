#include "platform/workspace/FolderWatch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace bw {

namespace {

constexpr std::uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                  IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF |
                                  IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;
// Each attempt gets one folder deeper; a path that keeps changing under us is given up on.
constexpr int kAttempts = 32;

bool isFolder(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string childPath(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

enum class Added { yes, missing, refused };

}  // namespace

FolderWatch::FolderWatch() : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

FolderWatch::~FolderWatch() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

FolderWatch::Changes FolderWatch::takeChanges() {
    Changes changes;
    changes.lost = fd_ < 0 || unreliable_;
    if (fd_ < 0) {
        return changes;
    }
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
        const ssize_t count = ::read(fd_, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;  // drained (EAGAIN)
        }
        for (const char* at = buffer; at < buffer + count;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(inotify_event) + event->len;
            if (event->mask & IN_Q_OVERFLOW) {
                changes.lost = true;
                continue;
            }
            auto found = watches_.find(event->wd);
            if (found == watches_.end()) {
                continue;  // a watch we let go of
            }
            const std::string name = event->len > 0 ? std::string(event->name) : std::string();
            for (const Use& use : found->second) {
                if (name.empty()) {
                    changes.paths.insert(use.folder);
                } else if (use.child.empty() || use.child == name) {
                    changes.paths.insert(childPath(use.folder, name));
                }
            }
            // The folder went away and the kernel dropped its watch; the next round looks again.
            if (event->mask & IN_IGNORED) {
                watches_.erase(found);
            }
        }
    }
    return changes;
}

void FolderWatch::startRound() {
    previous_ = std::move(watches_);
    watches_.clear();
    unreliable_ = false;
}

void FolderWatch::finishRound() {
    for (const auto& [wd, uses] : previous_) {
        if (!watches_.contains(wd)) {
            ::inotify_rm_watch(fd_, wd);
        }
    }
    previous_.clear();
}

bool FolderWatch::add(const std::string& folder, const std::string& child) {
    const int wd = ::inotify_add_watch(fd_, folder.c_str(), kEvents);
    if (wd < 0) {
        return false;
    }
    auto& uses = watches_[wd];
    const Use use{folder, child};
    if (std::find(uses.begin(), uses.end(), use) == uses.end()) {
        uses.push_back(use);
    }
    return true;
}

bool FolderWatch::follow(const std::string& folder) {
    if (fd_ < 0) {
        return isFolder(folder);
    }
    auto attempt = [this](const std::string& path, const std::string& child) {
        if (add(path, child)) {
            return Added::yes;
        }
        if (errno == ENOENT || errno == ENOTDIR) {
            return Added::missing;
        }
        // Out of watches or memory: changes there can't be told, so they count as lost.
        if (errno != EACCES) {
            unreliable_ = true;
        }
        return Added::refused;
    };
    for (int i = 0; i < kAttempts; ++i) {
        switch (attempt(folder, {})) {
            case Added::yes:
                return true;
            case Added::refused:
                return false;
            case Added::missing:
                break;
        }
        // Watch the nearest existing ancestor for the next folder down the path.
        std::string missing = folder;
        for (;;) {
            const std::size_t slash = missing.rfind('/');
            if (slash == std::string::npos || missing == "/") {
                return false;
            }
            const std::string parent = slash == 0 ? "/" : missing.substr(0, slash);
            const Added added = attempt(parent, missing.substr(slash + 1));
            if (added == Added::yes) {
                break;
            }
            if (added == Added::refused || parent == "/") {
                return false;
            }
            missing = parent;
        }
        // It may have appeared before the watch was in place: then start again from the top.
        if (::access(missing.c_str(), F_OK) != 0) {
            return false;
        }
    }
    unreliable_ = true;
    return isFolder(folder);
}

}  // namespace bw
