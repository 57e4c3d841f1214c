#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/workspace/Workspace.h"

namespace bw::test {

/// A process table of the test's own: applications, parent links and names.
class FakeWorkspace : public Workspace {
public:
    void addApplication(RunningApplication app) {
        std::lock_guard guard(lock_);
        apps_[app.pid] = std::move(app);
    }
    /// `child` belongs to `parent` (its responsible process is the parent's).
    void setParent(std::int32_t child, std::int32_t parent) {
        std::lock_guard guard(lock_);
        parents_[child] = parent;
    }
    void setProcessName(std::int32_t pid, std::string name) {
        std::lock_guard guard(lock_);
        names_[pid] = std::move(name);
    }
    void setOwn(std::int32_t pid, std::optional<std::string> bundleID) {
        std::lock_guard guard(lock_);
        ownPID_ = pid;
        ownBundleID_ = std::move(bundleID);
    }

    std::vector<RunningApplication> runningApplications() override {
        std::lock_guard guard(lock_);
        std::vector<RunningApplication> list;
        for (const auto& [pid, app] : apps_) {
            list.push_back(app);
        }
        return list;
    }
    std::optional<RunningApplication> runningApplication(std::int32_t pid) override {
        std::lock_guard guard(lock_);
        auto it = apps_.find(pid);
        return it == apps_.end() ? std::nullopt : std::optional(it->second);
    }
    std::int32_t responsiblePID(std::int32_t pid) override {
        std::lock_guard guard(lock_);
        for (std::int32_t current = pid, steps = 0; steps < 64; ++steps) {
            if (apps_.contains(current)) {
                return current;
            }
            auto parent = parents_.find(current);
            if (parent == parents_.end()) {
                break;
            }
            current = parent->second;
        }
        return pid;
    }
    std::optional<std::string> processName(std::int32_t pid) override {
        std::lock_guard guard(lock_);
        auto it = names_.find(pid);
        return it == names_.end() ? std::nullopt : std::optional(it->second);
    }
    std::int32_t ownPID() override {
        std::lock_guard guard(lock_);
        return ownPID_;
    }
    std::optional<std::string> ownBundleID() override {
        std::lock_guard guard(lock_);
        return ownBundleID_;
    }

private:
    std::mutex lock_;
    std::map<std::int32_t, RunningApplication> apps_;
    std::map<std::int32_t, std::int32_t> parents_;
    std::map<std::int32_t, std::string> names_;
    std::int32_t ownPID_ = 4242;
    std::optional<std::string> ownBundleID_ = "com.tallowfields.BrightwaveRecord";
};

}  // namespace bw::test
