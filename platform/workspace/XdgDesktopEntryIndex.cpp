#include "platform/workspace/XdgDesktopEntryIndex.h"

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace bw {

namespace {

constexpr std::string_view kSuffix = ".desktop";
// `sh -c 'sh -c ...'` is legal but nobody nests deeper than this on purpose.
constexpr int kShellDepthLimit = 4;

struct GFree {
    void operator()(gchar* text) const { g_free(text); }
};

struct GUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
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

DesktopEntry entryFrom(GDesktopAppInfo* info) {
    DesktopEntry entry;
    const char* id = g_app_info_get_id(G_APP_INFO(info));
    entry.id = id ? id : "";
    if (entry.id.ends_with(kSuffix)) {
        entry.id.resize(entry.id.size() - kSuffix.size());
    }
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

std::vector<DesktopEntry> XdgDesktopEntryIndex::entries() {
    std::vector<DesktopEntry> result;
    GList* all = g_app_info_get_all();
    for (GList* item = all; item != nullptr; item = item->next) {
        if (G_IS_DESKTOP_APP_INFO(item->data)) {
            result.push_back(entryFrom(G_DESKTOP_APP_INFO(item->data)));
        }
    }
    g_list_free_full(all, g_object_unref);
    std::sort(result.begin(), result.end(),
              [](const DesktopEntry& a, const DesktopEntry& b) { return a.id < b.id; });
    return result;
}

std::optional<DesktopEntry> XdgDesktopEntryIndex::entry(const std::string& id) {
    if (id.empty() || id.find('/') != std::string::npos) {
        return std::nullopt;
    }
    std::string fileID = id + std::string(kSuffix);
    std::unique_ptr<GDesktopAppInfo, GUnref> info(g_desktop_app_info_new(fileID.c_str()));
    // Hidden means deleted; the full listing leaves such entries out too.
    if (!info || g_desktop_app_info_get_is_hidden(info.get())) {
        return std::nullopt;
    }
    return entryFrom(info.get());
}

}  // namespace bw
