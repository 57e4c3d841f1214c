#include "platform/workspace/SystemWorkspace.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/workspace/ProcFsProcessTable.h"
#include "platform/workspace/XdgDesktopEntryIndex.h"

namespace bw {

namespace {

// Real process trees are a few dozen deep; a longer chain is a fake table or a table gone wrong.
constexpr std::size_t kChainLimit = 4096;
constexpr std::string_view kDeletedSuffix = " (deleted)";

std::string_view baseName(std::string_view path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// systemd writes bytes outside its unit-name alphabet, '-' among them, as \xNN.
std::string unescapeUnitName(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' &&
            hexValue(text[i + 2]) >= 0 && hexValue(text[i + 3]) >= 0) {
            result.push_back(static_cast<char>(hexValue(text[i + 2]) * 16 + hexValue(text[i + 3])));
            i += 3;
        } else {
            result.push_back(text[i]);
        }
    }
    return result;
}

// The desktop IDs that a launcher's unit may stand for, likeliest first. Launchers name units
// app-[<launcher>-]<id>-<n>.scope or app-[<launcher>-]<id>[@<n>].service; most escape '-' in the
// ID, so a raw '-' after "app-" usually ends the launcher's name.
std::vector<std::string> desktopIDCandidates(std::string_view cgroup) {
    std::string_view unit = baseName(cgroup);
    if (!unit.starts_with("app-")) {
        return {};
    }
    unit.remove_prefix(4);
    std::string_view body;
    if (unit.ends_with(".scope")) {
        unit.remove_suffix(std::string_view(".scope").size());
        std::size_t dash = unit.rfind('-');
        if (dash == std::string_view::npos) {
            return {};
        }
        body = unit.substr(0, dash);
    } else if (unit.ends_with(".service")) {
        unit.remove_suffix(std::string_view(".service").size());
        body = unit.substr(0, unit.rfind('@'));
    } else {
        return {};
    }
    std::vector<std::string> candidates;
    std::size_t dash = body.find('-');
    if (dash != std::string_view::npos && dash + 1 < body.size()) {
        candidates.push_back(unescapeUnitName(body.substr(dash + 1)));
    }
    if (!body.empty()) {
        candidates.push_back(unescapeUnitName(body));
    }
    return candidates;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) ==
               std::tolower(static_cast<unsigned char>(y));
    });
}

// Several entries may run one program (a browser and its web apps): prefer a visible one, then
// one whose ID ends in the program's name, then the plainest (shortest) ID.
bool preferredFor(const std::string& program, const DesktopEntry& a, const DesktopEntry& b) {
    if (a.visible != b.visible) {
        return a.visible;
    }
    auto namesProgram = [&](const DesktopEntry& entry) {
        std::size_t dot = entry.id.rfind('.');
        return equalsIgnoringCase(dot == std::string::npos
                                      ? std::string_view(entry.id)
                                      : std::string_view(entry.id).substr(dot + 1),
                                  program);
    };
    if (namesProgram(a) != namesProgram(b)) {
        return namesProgram(a);
    }
    if (a.id.size() != b.id.size()) {
        return a.id.size() < b.id.size();
    }
    return a.id < b.id;
}

// One look at the system, shared by the questions of one call. Processes are read when first
// asked for (or all at once), entries when the first process needs matching.
class Snapshot {
public:
    struct Link {
        const ProcessRecord* process;
        const DesktopEntry* entry;
        bool application;
    };

    Snapshot(ProcessTable& processes, DesktopEntryIndex& desktopEntries)
        : processes_(processes), desktopEntries_(desktopEntries) {}

    void readAllProcesses() {
        for (std::int32_t pid : processes_.pids()) {
            records_.emplace(pid, processes_.process(pid));
        }
        complete_ = true;
    }

    std::vector<std::int32_t> knownPIDs() const {
        std::vector<std::int32_t> pids;
        for (const auto& [pid, record] : records_) {
            if (record) {
                pids.push_back(pid);
            }
        }
        std::sort(pids.begin(), pids.end());
        return pids;
    }

    const ProcessRecord* record(std::int32_t pid) {
        auto found = records_.find(pid);
        if (found == records_.end()) {
            if (complete_ || pid <= 0) {
                return nullptr;
            }
            found = records_.emplace(pid, processes_.process(pid)).first;
        }
        return found->second ? &*found->second : nullptr;
    }

    // `pid` and its ancestors, nearest first, each with its entry and whether it is the topmost
    // process of that entry. Empty when `pid` doesn't exist.
    std::vector<Link> chain(std::int32_t pid) {
        std::vector<Link> links;
        std::unordered_map<std::int32_t, std::size_t> positions;
        std::size_t cycleStart = 0;
        bool cycle = false;
        for (const ProcessRecord* process = record(pid);
             process != nullptr && links.size() < kChainLimit;) {
            positions.emplace(process->pid, links.size());
            links.push_back({process, entryOf(*process), false});
            std::int32_t parent = process->parentPID;
            if (auto seen = positions.find(parent); seen != positions.end()) {
                cycle = true;
                cycleStart = seen->second;
                break;
            }
            process = parent > 0 ? record(parent) : nullptr;
        }
        // Count each entry above every link; in a cycle every member is above every other.
        std::unordered_map<std::string_view, int> above;
        std::size_t end = links.size();
        if (cycle) {
            for (std::size_t i = cycleStart; i < links.size(); ++i) {
                if (links[i].entry) {
                    ++above[links[i].entry->id];
                }
            }
            for (std::size_t i = cycleStart; i < links.size(); ++i) {
                links[i].application = links[i].entry && above[links[i].entry->id] == 1;
            }
            end = cycleStart;
        }
        for (std::size_t i = end; i-- > 0;) {
            if (links[i].entry) {
                links[i].application = above[links[i].entry->id]++ == 0;
            }
        }
        return links;
    }

private:
    const DesktopEntry* entryOf(const ProcessRecord& process) {
        auto found = matches_.find(process.pid);
        if (found == matches_.end()) {
            found = matches_.emplace(process.pid, match(process)).first;
        }
        return found->second;
    }

    const DesktopEntry* match(const ProcessRecord& process) {
        loadEntries();
        for (const std::string& id : desktopIDCandidates(process.cgroup)) {
            if (auto found = byID_.find(id); found != byID_.end()) {
                return found->second;
            }
        }
        std::string_view executable = process.executable;
        if (executable.ends_with(kDeletedSuffix)) {
            executable.remove_suffix(kDeletedSuffix.size());
        }
        // The command line also covers an unreadable executable, programs started through a link
        // of another name, and scripts (whose executable is their interpreter).
        const std::string programs[] = {std::string(baseName(executable)),
                                        DesktopEntryIndex::programName(process.commandLine)};
        for (const std::string& program : programs) {
            if (auto found = byExecutable_.find(program); found != byExecutable_.end()) {
                return found->second;
            }
        }
        return nullptr;
    }

    void loadEntries() {
        if (entriesLoaded_) {
            return;
        }
        entriesLoaded_ = true;
        entries_ = desktopEntries_.entries();
        for (const DesktopEntry& entry : entries_) {
            byID_.emplace(entry.id, &entry);
            for (const std::string& program : entry.executables) {
                if (program.empty()) {
                    continue;
                }
                auto [slot, added] = byExecutable_.emplace(program, &entry);
                if (!added && preferredFor(program, entry, *slot->second)) {
                    slot->second = &entry;
                }
            }
        }
    }

    ProcessTable& processes_;
    DesktopEntryIndex& desktopEntries_;
    bool complete_ = false;
    bool entriesLoaded_ = false;
    std::unordered_map<std::int32_t, std::optional<ProcessRecord>> records_;
    std::unordered_map<std::int32_t, const DesktopEntry*> matches_;
    std::vector<DesktopEntry> entries_;
    std::unordered_map<std::string, const DesktopEntry*> byID_;
    std::unordered_map<std::string, const DesktopEntry*> byExecutable_;
};

RunningApplication applicationFor(const Snapshot::Link& link) {
    RunningApplication application;
    application.pid = link.process->pid;
    application.bundleID = link.entry->id;
    if (!link.entry->name.empty()) {
        application.localizedName = link.entry->name;
    }
    application.isRegular = link.entry->visible;
    application.iconName = link.entry->icon;
    return application;
}

}  // namespace

SystemWorkspace::SystemWorkspace()
    : SystemWorkspace(std::make_shared<ProcFsProcessTable>(),
                      std::make_shared<XdgDesktopEntryIndex>()) {}

SystemWorkspace::SystemWorkspace(std::shared_ptr<ProcessTable> processes,
                                 std::shared_ptr<DesktopEntryIndex> desktopEntries,
                                 std::string ownBundleID)
    : processes_(std::move(processes)),
      desktopEntries_(std::move(desktopEntries)),
      ownBundleID_(std::move(ownBundleID)) {}

std::vector<RunningApplication> SystemWorkspace::runningApplications() {
    Snapshot snapshot(*processes_, *desktopEntries_);
    snapshot.readAllProcesses();
    std::vector<RunningApplication> applications;
    for (std::int32_t pid : snapshot.knownPIDs()) {
        auto chain = snapshot.chain(pid);
        if (!chain.empty() && chain.front().application) {
            applications.push_back(applicationFor(chain.front()));
        }
    }
    return applications;
}

std::optional<RunningApplication> SystemWorkspace::runningApplication(std::int32_t pid) {
    Snapshot snapshot(*processes_, *desktopEntries_);
    auto chain = snapshot.chain(pid);
    if (chain.empty() || !chain.front().application) {
        return std::nullopt;
    }
    return applicationFor(chain.front());
}

std::int32_t SystemWorkspace::responsiblePID(std::int32_t pid) {
    Snapshot snapshot(*processes_, *desktopEntries_);
    auto chain = snapshot.chain(pid);
    if (chain.empty()) {
        return 0;
    }
    for (const auto& link : chain) {
        if (link.application) {
            return link.process->pid;
        }
    }
    return pid;
}

std::optional<std::string> SystemWorkspace::processName(std::int32_t pid) {
    auto process = processes_->process(pid);
    if (!process) {
        return std::nullopt;
    }
    return std::move(process->name);
}

std::int32_t SystemWorkspace::ownPID() {
    return static_cast<std::int32_t>(::getpid());
}

std::optional<std::string> SystemWorkspace::ownBundleID() {
    if (ownBundleID_.empty()) {
        return std::nullopt;
    }
    return ownBundleID_;
}

}  // namespace bw
