#include "platform/workspace/DesktopEntryIndex.h"

#include <algorithm>
#include <cctype>

namespace bw {

namespace {

std::string_view baseName(std::string_view path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool DesktopEntryIndex::isScriptInterpreter(std::string_view program) {
    // Versioned names (python3.11, lua5.4, tclsh8.6) belong to their family.
    while (!program.empty() &&
           (std::isdigit(static_cast<unsigned char>(program.back())) || program.back() == '.')) {
        program.remove_suffix(1);
    }
    static constexpr std::string_view kFamilies[] = {
        "bash",   "dash", "gjs", "gjs-console", "java",   "ksh",  "lua", "luajit", "mono", "node",
        "nodejs", "perl", "php", "pypy",        "python", "ruby", "sh",  "tclsh",  "wish", "zsh",
    };
    return std::find(std::begin(kFamilies), std::end(kFamilies), program) != std::end(kFamilies);
}

std::string DesktopEntryIndex::programName(const std::vector<std::string>& argv) {
    if (argv.empty()) {
        return {};
    }
    std::string_view program = baseName(argv[0]);
    if (!isScriptInterpreter(program)) {
        return std::string(program);
    }
    for (std::size_t i = 1; i < argv.size(); ++i) {
        std::string_view argument = argv[i];
        if (argument == "--") {
            return i + 1 < argv.size() ? std::string(baseName(argv[i + 1])) : std::string();
        }
        // Code given inline (-c, -e) or read from stdin names no program.
        if (argument == "-c" || argument == "-e" || argument == "-") {
            return {};
        }
        if (argument.starts_with('-')) {
            continue;
        }
        return std::string(baseName(argument));
    }
    return {};
}

}  // namespace bw
