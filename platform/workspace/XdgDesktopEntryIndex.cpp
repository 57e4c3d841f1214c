#include "platform/workspace/XdgDesktopEntryIndex.h"

#include <dirent.h>
#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

#include "platform/workspace/FolderWatch.h"

namespace bw {

namespace {

constexpr std::string_view kSuffix = ".desktop";
// `sh -c 'sh -c ...'` is legal but nobody nests deeper than this on purpose.
constexpr int kShellDepthLimit = 4;
// Subfolders of subfolders this deep are a link loop, not a vendor's folder.
constexpr int kFolderDepthLimit = 16;

struct GFree {
    void operator()(gchar* text) const { g_free(text); }
};

struct GUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};

struct KeyFileUnref {
    void operator()(GKeyFile* keys) const { g_key_file_unref(keys); }
};

struct DirectoryClose {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

std::string adopt(gchar* text) {
    std::unique_ptr<gchar, GFree> owned(text);
    return owned ? std::string(owned.get()) : std::string();
}

std::string_view baseName(std::string_view path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::vector<std::string> splitWhitespace(std::string_view text) {
    std::vector<std::string> words;
    std::size_t at = 0;
    while ((at = text.find_first_not_of(" \t", at)) != std::string_view::npos) {
        std::size_t end = text.find_first_of(" \t", at);
        words.emplace_back(text.substr(at, end == std::string_view::npos ? end : end - at));
        at = end;
    }
    return words;
}

// Exec quoting is a subset of the shell's; unbalanced quotes still get a best-effort split.
std::vector<std::string> splitArguments(std::string_view command) {
    std::string text(command);
    gint count = 0;
    gchar** argv = nullptr;
    if (!g_shell_parse_argv(text.c_str(), &count, &argv, nullptr)) {
        return splitWhitespace(command);
    }
    std::vector<std::string> arguments(argv, argv + count);
    g_strfreev(argv);
    return arguments;
}

bool isAssignment(std::string_view word) {
    std::size_t equals = word.find('=');
    if (equals == 0 || equals == std::string_view::npos) {
        return false;
    }
    auto nameCharacter = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
    };
    return !std::isdigit(static_cast<unsigned char>(word[0])) &&
           std::all_of(word.begin(), word.begin() + equals, nameCharacter);
}

bool isShell(std::string_view program) {
    return program == "sh" || program == "bash" || program == "dash" || program == "zsh";
}

// Single-dash option clusters such as -c or -lc.
bool hasCommandOption(std::string_view argument) {
    return argument.size() > 1 && argument[0] == '-' && argument[1] != '-' &&
           argument.find('c') != std::string_view::npos;
}

std::string programOf(std::vector<std::string> argv, int depth) {
    std::size_t i = 0;
    for (;;) {
        while (i < argv.size() && isAssignment(argv[i])) {
            ++i;
        }
        if (i >= argv.size()) {
            return {};
        }
        std::string_view program = baseName(argv[i]);
        if (program == "env") {
            for (++i; i < argv.size() && argv[i].starts_with('-'); ++i) {
                if (argv[i] == "--") {
                    ++i;
                    break;
                }
                if (argv[i] == "-u" || argv[i] == "-C" || argv[i] == "--unset" ||
                    argv[i] == "--chdir") {
                    ++i;  // and its value
                }
            }
            continue;
        }
        if (program == "exec" && i + 1 < argv.size()) {
            ++i;
            continue;
        }
        // `sh -c 'cd /opt/app && ./app'`: the program comes after the cd.
        if (program == "cd") {
            while (i < argv.size() && argv[i] != "&&" && argv[i] != ";" &&
                   !argv[i].ends_with(';')) {
                ++i;
            }
            ++i;
            continue;
        }
        if (isShell(program)) {
            bool command = false;
            for (std::size_t j = i + 1; j < argv.size(); ++j) {
                if (argv[j].starts_with('-')) {
                    command = command || hasCommandOption(argv[j]);
                    continue;
                }
                if (command && depth < kShellDepthLimit) {
                    return programOf(splitArguments(argv[j]), depth + 1);
                }
                break;
            }
        }
        // flatpak runs the app named by its ID inside a sandbox: the program is not flatpak.
        if (program == "flatpak") {
            return {};
        }
        argv.erase(argv.begin(), argv.begin() + static_cast<std::ptrdiff_t>(i));
        return DesktopEntryIndex::programName(argv);
    }
}

// Everything but the ID, which depends on the folder the file was found through.
DesktopEntry entryFrom(GDesktopAppInfo* info) {
    DesktopEntry entry;
    // Not g_app_info_get_name: it makes up a name when there is none.
    entry.name = adopt(g_desktop_app_info_get_locale_string(info, G_KEY_FILE_DESKTOP_KEY_NAME));
    entry.icon = adopt(g_desktop_app_info_get_string(info, G_KEY_FILE_DESKTOP_KEY_ICON));
    std::string type = adopt(g_desktop_app_info_get_string(info, G_KEY_FILE_DESKTOP_KEY_TYPE));
    entry.visible = type == G_KEY_FILE_DESKTOP_TYPE_APPLICATION &&
                    !g_desktop_app_info_get_nodisplay(info) &&
                    !g_desktop_app_info_get_is_hidden(info);
    entry.executables = XdgDesktopEntryIndex::executablesFor(
        adopt(g_desktop_app_info_get_string(info, G_KEY_FILE_DESKTOP_KEY_EXEC)),
        adopt(g_desktop_app_info_get_string(info, G_KEY_FILE_DESKTOP_KEY_TRY_EXEC)));
    return entry;
}

// Tells a file that changed from one that didn't without reading it.
using Signature = std::array<std::int64_t, 7>;

Signature signatureOf(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return {};
    }
    return {std::int64_t(status.st_dev),          std::int64_t(status.st_ino),
            std::int64_t(status.st_size),         std::int64_t(status.st_mtim.tv_sec),
            std::int64_t(status.st_mtim.tv_nsec), std::int64_t(status.st_ctim.tv_sec),
            std::int64_t(status.st_ctim.tv_nsec)};
}

// One desktop file as GIO reads it.
struct DesktopFile {
    Signature signature{};
    bool loaded = false;  // GIO accepts it
    bool hidden = false;  // Hidden=true: a deleted entry that still hides others of its ID
    DesktopEntry entry;
    // GIO accepts a file only while its TryExec and Exec programs exist: those programs as
    // written, and where they were found when the file was read.
    std::vector<std::string> programs;
    std::string found;
};

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string childOf(const std::string& folder, std::string_view name) {
    return folder.ends_with('/') ? folder + std::string(name) : folder + "/" + std::string(name);
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.ends_with('/')) {
        path.pop_back();
    }
    return path;
}

std::vector<std::string> programsNamedBy(GKeyFile* keys) {
    std::vector<std::string> programs;
    std::string tryExec = adopt(g_key_file_get_string(keys, G_KEY_FILE_DESKTOP_GROUP,
                                                      G_KEY_FILE_DESKTOP_KEY_TRY_EXEC, nullptr));
    if (!tryExec.empty()) {
        programs.push_back(std::move(tryExec));
    }
    std::string exec = adopt(g_key_file_get_string(keys, G_KEY_FILE_DESKTOP_GROUP,
                                                   G_KEY_FILE_DESKTOP_KEY_EXEC, nullptr));
    gchar** argv = nullptr;
    if (!exec.empty() && g_shell_parse_argv(exec.c_str(), nullptr, &argv, nullptr)) {
        programs.emplace_back(argv[0]);
        g_strfreev(argv);
    }
    return programs;
}

std::string locate(const std::vector<std::string>& programs) {
    std::string found;
    for (const std::string& program : programs) {
        found += adopt(g_find_program_in_path(program.c_str()));
        found += '\n';
    }
    return found;
}

DesktopFile readDesktopFile(const std::string& path, const Signature& signature) {
    DesktopFile file;
    file.signature = signature;
    std::unique_ptr<GKeyFile, KeyFileUnref> keys(g_key_file_new());
    if (!g_key_file_load_from_file(keys.get(), path.c_str(), G_KEY_FILE_NONE, nullptr)) {
        return file;
    }
    file.programs = programsNamedBy(keys.get());
    file.found = locate(file.programs);
    std::unique_ptr<GDesktopAppInfo, GUnref> info(g_desktop_app_info_new_from_keyfile(keys.get()));
    if (info) {
        file.loaded = true;
        file.hidden = g_desktop_app_info_get_is_hidden(info.get());
        file.entry = entryFrom(info.get());
    }
    return file;
}

}  // namespace

std::vector<std::string> XdgDesktopEntryIndex::executablesFor(std::string_view exec,
                                                              std::string_view tryExec) {
    std::vector<std::string> names;
    if (std::string program = programOf(splitArguments(exec), 0); !program.empty()) {
        names.push_back(std::move(program));
    }
    std::string tried(baseName(tryExec));
    if (!tried.empty() && !isScriptInterpreter(tried) &&
        std::find(names.begin(), names.end(), tried) == names.end()) {
        names.push_back(std::move(tried));
    }
    return names;
}

struct XdgDesktopEntryIndex::Table {
    std::vector<DesktopEntry> listed;  // by ID
    std::unordered_map<std::string, DesktopEntry> byID;
};

// The files and folders as last read, and the watch that tells what changed since.
class XdgDesktopEntryIndex::Scanner {
public:
    /// A new table when anything changed since the last call (always at the first); else null.
    /// Blocks on file reads.
    std::shared_ptr<const Table> update() {
        const bool first = !started_;
        if (first) {
            start();
        }
        const FolderWatch::Changes changes = watch_.takeChanges();
        // After lost events, or a scan cut short by an exception, anything may have changed.
        const bool unsure = retry_ || changes.lost;
        const bool programs = !first && (unsure || touchesPrograms(changes));
        if (!first && !unsure && !programs && !touchesEntries(changes)) {
            return nullptr;
        }
        retry_ = true;
        rescan(changes, programs);
        retry_ = false;
        return table();
    }

private:
    // An applications folder and the desktop IDs in it, each with the file that has it.
    struct Root {
        std::string folder;
        std::map<std::string, std::string> files;
    };

    void start() {
        started_ = true;
        // GIO's folders in GIO's order: the user's, then the system's.
        auto applications = [](const char* data) {
            return withoutTrailingSlashes(adopt(g_build_filename(data, "applications", nullptr)));
        };
        roots_.push_back({applications(g_get_user_data_dir()), {}});
        for (const gchar* const* data = g_get_system_data_dirs(); *data != nullptr; ++data) {
            roots_.push_back({applications(*data), {}});
        }
        // Where GIO looks for programs named without a folder.
        const char* path = g_getenv("PATH");
        std::string_view rest = path != nullptr ? path : "/bin:/usr/bin";
        while (!rest.empty()) {
            const std::size_t colon = rest.find(':');
            std::string folder = withoutTrailingSlashes(std::string(rest.substr(0, colon)));
            if (folder.starts_with('/') &&
                std::find(searchPath_.begin(), searchPath_.end(), folder) == searchPath_.end()) {
                searchPath_.push_back(std::move(folder));
            }
            rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
        }
    }

    void rescan(const FolderWatch::Changes& changes, bool programsChanged) {
        std::unordered_map<std::string, DesktopFile> previous = std::move(files_);
        files_.clear();
        entryFolders_.clear();
        programNames_.clear();
        programPaths_.clear();
        watch_.startRound();
        // Folders are watched before they are read, so nothing changes unseen in between.
        std::set<std::string> programFolders(searchPath_.begin(), searchPath_.end());
        for (const std::string& folder : programFolders) {
            watch_.follow(folder);
        }
        for (Root& root : roots_) {
            root.files.clear();
            entryFolders_.insert(root.folder);
            if (watch_.follow(root.folder)) {
                walk(root.folder, "", 0, root, previous, changes);
            }
        }
        std::set<std::string> added;
        for (const auto& [path, file] : files_) {
            for (const std::string& program : file.programs) {
                if (!program.starts_with('/')) {
                    programNames_.insert(program);
                    continue;
                }
                programPaths_.insert(program);
                const std::string folder = parentOf(program);
                if (programFolders.insert(folder).second) {
                    watch_.follow(folder);
                    if (!programFolders_.contains(folder)) {
                        added.insert(folder);
                    }
                }
            }
        }
        watch_.finishRound();
        programFolders_ = std::move(programFolders);

        // Programs that came or went since their files were read change what GIO accepts.
        for (auto& [path, file] : files_) {
            const bool affected =
                programsChanged ||
                std::any_of(file.programs.begin(), file.programs.end(), [&](const auto& program) {
                    return program.starts_with('/') && added.contains(parentOf(program));
                });
            if (affected && !file.programs.empty() && locate(file.programs) != file.found) {
                file = readDesktopFile(path, file.signature);
            }
        }
    }

    // GIO's walk: "<name>.desktop" is an entry, any other folder holds entries whose IDs start
    // with "<name>-".
    void walk(const std::string& folder, const std::string& prefix, int depth, Root& root,
              std::unordered_map<std::string, DesktopFile>& previous,
              const FolderWatch::Changes& changes) {
        std::unique_ptr<DIR, DirectoryClose> directory(::opendir(folder.c_str()));
        if (!directory) {
            return;
        }
        while (const dirent* item = ::readdir(directory.get())) {
            const std::string_view name = item->d_name;
            if (name == "." || name == "..") {
                continue;
            }
            const std::string path = childOf(folder, name);
            if (name.ends_with(kSuffix)) {
                // Of two files with one ID in one folder, the later one read counts, as in GIO.
                root.files.insert_or_assign(
                    prefix + std::string(name.substr(0, name.size() - kSuffix.size())), path);
                visit(path, previous, changes);
                continue;
            }
            const bool maybeFolder =
                item->d_type == DT_DIR || item->d_type == DT_LNK || item->d_type == DT_UNKNOWN;
            struct stat status {};
            if (maybeFolder && depth < kFolderDepthLimit && ::stat(path.c_str(), &status) == 0 &&
                S_ISDIR(status.st_mode) && watch_.follow(path)) {
                entryFolders_.insert(path);
                walk(path, prefix + std::string(name) + "-", depth + 1, root, previous, changes);
            }
        }
    }

    void visit(const std::string& path, std::unordered_map<std::string, DesktopFile>& previous,
               const FolderWatch::Changes& changes) {
        if (files_.contains(path)) {
            return;  // reached again through another folder
        }
        const Signature signature = signatureOf(path);
        // A rewrite may keep size and time stamps (within one clock tick): named events count too.
        auto known = previous.find(path);
        if (known != previous.end() && known->second.signature == signature &&
            !changes.paths.contains(path)) {
            files_.emplace(path, std::move(known->second));
            return;
        }
        files_.emplace(path, readDesktopFile(path, signature));
    }

    // Whether `path` is one of `folders`, in one, or on the way to one that doesn't exist yet.
    static bool concerns(const std::set<std::string>& folders, const std::string& path,
                         bool inside) {
        if (folders.contains(path) || (inside && folders.contains(parentOf(path)))) {
            return true;
        }
        return std::any_of(folders.begin(), folders.end(), [&](const std::string& folder) {
            return folder.starts_with(path + "/");
        });
    }

    bool touchesEntries(const FolderWatch::Changes& changes) const {
        return std::any_of(
            changes.paths.begin(), changes.paths.end(),
            [&](const std::string& path) { return concerns(entryFolders_, path, true); });
    }

    bool touchesPrograms(const FolderWatch::Changes& changes) const {
        for (const std::string& path : changes.paths) {
            // Other files coming and going in $PATH (a home folder in it, say) don't count.
            const bool inSearchPath = std::find(searchPath_.begin(), searchPath_.end(),
                                                parentOf(path)) != searchPath_.end();
            if (programPaths_.contains(path) ||
                (inSearchPath && programNames_.contains(path.substr(path.rfind('/') + 1))) ||
                concerns(programFolders_, path, false)) {
                return true;
            }
        }
        return false;
    }

    // As GIO lists entries (an ID in a folder hides it in later folders, even where the earlier
    // file is unusable) and as it looks one up (the first folder whose file it can read).
    std::shared_ptr<const Table> table() const {
        auto table = std::make_shared<Table>();
        std::set<std::string> seen;
        std::set<std::string> decided;
        for (const Root& root : roots_) {
            for (const auto& [id, path] : root.files) {
                const DesktopFile& file = files_.at(path);
                if (!file.loaded) {
                    seen.insert(id);
                    continue;
                }
                DesktopEntry entry = file.entry;
                entry.id = id;
                if (decided.insert(id).second && !file.hidden) {
                    table->byID.emplace(id, entry);
                }
                if (seen.insert(id).second && !file.hidden) {
                    table->listed.push_back(std::move(entry));
                }
            }
        }
        std::sort(table->listed.begin(), table->listed.end(),
                  [](const DesktopEntry& a, const DesktopEntry& b) { return a.id < b.id; });
        return table;
    }

    bool started_ = false;
    bool retry_ = false;
    FolderWatch watch_;
    std::vector<Root> roots_;
    std::vector<std::string> searchPath_;
    std::set<std::string> entryFolders_;    // the roots (existing or not) and their subfolders
    std::set<std::string> programFolders_;  // $PATH and the folders of programs named by path
    std::set<std::string> programNames_;    // programs named without a folder, found in $PATH
    std::set<std::string> programPaths_;    // programs named by path
    std::unordered_map<std::string, DesktopFile> files_;  // by path
};

XdgDesktopEntryIndex::XdgDesktopEntryIndex() : scanner_(std::make_unique<Scanner>()) {}

XdgDesktopEntryIndex::~XdgDesktopEntryIndex() = default;

std::shared_ptr<const XdgDesktopEntryIndex::Table> XdgDesktopEntryIndex::current() {
    {
        std::unique_lock lock(mutex_);
        idle_.wait(lock, [this] { return !scanning_; });
        scanning_ = true;
    }
    std::shared_ptr<const Table> fresh;
    try {
        fresh = scanner_->update();
    } catch (...) {
        {
            std::lock_guard lock(mutex_);
            scanning_ = false;
        }
        idle_.notify_all();
        throw;
    }
    std::shared_ptr<const Table> table;
    {
        std::lock_guard lock(mutex_);
        if (fresh) {
            table_ = std::move(fresh);
        }
        scanning_ = false;
        table = table_;
    }
    idle_.notify_all();
    return table;
}

std::vector<DesktopEntry> XdgDesktopEntryIndex::entries() {
    const auto table = current();
    return table ? table->listed : std::vector<DesktopEntry>();
}

std::optional<DesktopEntry> XdgDesktopEntryIndex::entry(const std::string& id) {
    if (id.empty() || id.find('/') != std::string::npos) {
        return std::nullopt;
    }
    const auto table = current();
    if (!table) {
        return std::nullopt;
    }
    auto found = table->byID.find(id);
    return found == table->byID.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace bw
