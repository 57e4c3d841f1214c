#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace bw {

/// Follows folders through inotify and tells what changed in them since it was last asked.
///
/// The owner names the folders to follow in rounds: `startRound`, `follow` for each folder, then
/// `finishRound` lets go of those not named again. A folder that doesn't exist is followed through
/// its nearest existing ancestor, so that its creation is a change too.
///
/// Thread: one caller at a time (the owner serializes). No call blocks; calls allocate. Owns one
/// inotify descriptor, closed with the object.
class FolderWatch {
public:
    struct Changes {
        /// Changes may have gone unreported (events lost, a folder that can't be watched): the
        /// owner should look at everything it follows.
        bool lost = false;
        /// "<folder>/<name>" for what changed inside a followed folder; the folder itself when it
        /// was deleted or moved.
        std::set<std::string> paths;

        bool any() const { return lost || !paths.empty(); }
    };

    FolderWatch();
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    /// Everything reported since the last call; reads the pending events without waiting.
    Changes takeChanges();

    void startRound();
    /// Follows `folder` (an absolute path) from now on. True when it exists and is followed: read
    /// it after this call, and no later change goes unreported.
    bool follow(const std::string& folder);
    void finishRound();

private:
    // What one inotify watch stands for: a whole folder, or only the child named `child`.
    struct Use {
        std::string folder;
        std::string child;
        friend bool operator==(const Use&, const Use&) = default;
    };

    bool add(const std::string& folder, const std::string& child);

    int fd_ = -1;
    bool unreliable_ = false;
    std::map<int, std::vector<Use>> watches_;
    std::map<int, std::vector<Use>> previous_;
};

}  // namespace bw
