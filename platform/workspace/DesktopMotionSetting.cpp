#include "platform/workspace/DesktopMotionSetting.h"

#include <gio/gio.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace bw {

namespace {

constexpr const char* kGnomeInterface = "org.gnome.desktop.interface";

/// GNOME's key, where its schema is installed (GSettings aborts on an unknown schema).
std::optional<bool> gnomeAnimationsEnabled() {
    GSettingsSchemaSource* source = g_settings_schema_source_get_default();
    if (source == nullptr) {
        return std::nullopt;
    }
    GSettingsSchema* schema = g_settings_schema_source_lookup(source, kGnomeInterface, TRUE);
    if (schema == nullptr) {
        return std::nullopt;
    }
    std::optional<bool> enabled;
    if (g_settings_schema_has_key(schema, "enable-animations")) {
        GSettings* settings = g_settings_new_full(schema, nullptr, nullptr);
        enabled = g_settings_get_boolean(settings, "enable-animations") != FALSE;
        g_object_unref(settings);
    }
    g_settings_schema_unref(schema);
    return enabled;
}

std::string trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t\r");
    return std::string(text.substr(first, last - first + 1));
}

}  // namespace

bool DesktopMotionSetting::reduceMotionInKdeGlobals(std::string_view text) {
    std::istringstream lines{std::string(text)};
    std::string line;
    bool inKdeGroup = false;
    while (std::getline(lines, line)) {
        const std::string entry = trimmed(line);
        if (entry.starts_with('[')) {
            inKdeGroup = entry == "[KDE]";
            continue;
        }
        const auto equals = entry.find('=');
        if (!inKdeGroup || equals == std::string::npos ||
            trimmed(std::string_view(entry).substr(0, equals)) != "AnimationDurationFactor") {
            continue;
        }
        try {
            return std::stod(trimmed(std::string_view(entry).substr(equals + 1))) == 0.0;
        } catch (const std::exception&) {
            return false;
        }
    }
    return false;
}

bool DesktopMotionSetting::reduceMotion() {
    if (const auto enabled = gnomeAnimationsEnabled(); enabled && !*enabled) {
        return true;
    }
    const char* config = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    const std::string folder = config != nullptr && *config != '\0' ? std::string(config)
                               : home != nullptr                    ? std::string(home) + "/.config"
                                                                    : std::string();
    if (folder.empty()) {
        return false;
    }
    std::ifstream file(folder + "/kdeglobals");
    std::ostringstream text;
    text << file.rdbuf();
    return reduceMotionInKdeGlobals(text.str());
}

}  // namespace bw
