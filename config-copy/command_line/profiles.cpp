#include "config-copy/command_line/profiles.h"

#include "base/text.h"
#include "config-copy/command_line/options.h"
#include "config-copy/command_line/text_file.h"
#include "config-copy/failure.h"
#include "config-copy/likeness.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

namespace config_copy {
namespace {

constexpr const char *system_file = "/etc/config-copy/config-copy.conf";
constexpr std::string_view defaults = "defaults";

// Those that make no sense for every run.
constexpr std::array<std::string_view, 4> only_in_profiles{"from", "to", "hosts", "group"};

std::vector<std::string> known_keys() {
    std::vector<std::string> keys{"from", "snmp"};
    for (const OwnOption &option : own_options()) {
        if (option.use != Use::itself) {
            keys.emplace_back(option.name);
        }
    }
    return keys;
}

std::string listed(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words) {
        text.append(text.empty() ? "" : ", ").append(word);
    }
    return text;
}

void check_key(const std::string &key, const std::string &section) {
    const auto keys = known_keys();
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
        const std::string like = nearest(key, keys);
        throw bad_usage(
            "there is no setting \"" + ulmo::one_line(key) +
            "\": " + (like.empty() ? "there are " + listed(keys) : "did you mean " + like + '?'));
    }
    if (section == defaults && std::find(only_in_profiles.begin(), only_in_profiles.end(), key) !=
                                   only_in_profiles.end()) {
        throw bad_usage(key + " belongs into a profile, not into [defaults]");
    }
}

// The setting in a line KEY = VALUE.
Setting setting_in(std::string_view line, const std::string &section) {
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        throw bad_usage("a line is [SECTION] or KEY = VALUE");
    }
    Setting setting;
    setting.key = ulmo::trimmed(line.substr(0, equals));
    check_key(setting.key, section);
    setting.values = words_of(line.substr(equals + 1));
    if (setting.key == "snmp") {
        setting.session = SessionOptions(std::exchange(setting.values, {}));
    } else if (setting.values.empty() || (setting.values.size() > 1 && setting.key != "group")) {
        throw bad_usage(setting.key + (setting.values.empty() ? " needs a value"
                                                              : " takes one value: quote it if it "
                                                                "contains blanks"));
    }
    return setting;
}

} // namespace

Profiles::Profiles(const std::vector<std::string> &files) : files_(files) {
    for (const std::string &file : files) {
        TextFile content;
        try {
            content = read_text_file(file);
        } catch (const std::system_error &error) {
            const int number = error.code().value();
            if (number == ENOENT || number == ENOTDIR) {
                continue;
            }
            // It may hold what only the superuser's runs may use.
            if (number == EACCES && file == system_file) {
                unreadable_ = "; " + file + " can't be read: " + error.code().message();
                continue;
            }
            throw bad_usage(file + " can't be read: " + error.code().message());
        }
        read(file, content.text, content.is_readable_by_others);
    }
}

void Profiles::read(const std::string &file, std::string_view text, bool is_readable_by_others) {
    std::map<std::string, Section> sections;
    std::string section;
    std::size_t number = 0;
    const auto take = [&](std::string_view line) {
        if (line.empty() || line[0] == '#') {
            return;
        }
        if (line[0] == '[') {
            const auto words = words_of(line);
            section = words.front().substr(1, words.front().size() - 2);
            if (words.size() != 1 || !words.front().ends_with(']') || !is_plain_name(section)) {
                throw bad_usage("a section is written [NAME], of letters, digits, dots, hyphens "
                                "and underscores");
            }
            if (!sections.try_emplace(section).second) {
                throw bad_usage("the section [" + section + "] begins a second time");
            }
            return;
        }
        if (section.empty()) {
            throw bad_usage("a setting stands below the [SECTION] that it belongs to");
        }
        Setting setting = setting_in(line, section);
        setting.file = file;
        setting.line = number;
        if (is_readable_by_others && setting.session.has_secret()) {
            throw bad_usage("others may read the passphrases and communities in the file: chmod "
                            "600 it");
        }
        const std::string key = setting.key;
        if (!sections[section].emplace(key, std::move(setting)).second) {
            throw bad_usage("the section [" + section + "] has " + key + " twice");
        }
    };
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        ++number;
        try {
            take(ulmo::trimmed(text.substr(0, end)));
        } catch (const Failure &failure) {
            throw bad_usage("in " + file + ", line " + std::to_string(number) + ": " +
                            failure.what());
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    for (auto &[name, settings] : sections) {
        for (auto &[key, setting] : settings) {
            Setting &known = sections_[name][key];
            setting.session = known.session.with(setting.session);
            known = std::move(setting);
        }
        sections_[name];
    }
}

std::vector<std::string> Profiles::names() const {
    std::vector<std::string> names;
    for (const auto &section : sections_) {
        if (section.first != defaults) {
            names.push_back(section.first);
        }
    }
    return names;
}

std::vector<Setting> Profiles::settings(const std::string &profile) const {
    Section all;
    if (const auto found = sections_.find(std::string(defaults)); found != sections_.end()) {
        all = found->second;
    }
    if (!profile.empty()) {
        const auto found = sections_.find(profile);
        if (found == sections_.end() || profile == defaults) {
            std::vector<std::string> known;
            for (const std::string &name : names()) {
                known.push_back('@' + name);
            }
            throw bad_usage("there is no profile @" + profile + " in " +
                            (files_.empty() ? "a configuration file" : listed(files_)) +
                            (known.empty() ? "" : ": there are " + listed(known)) + unreadable_);
        }
        for (const auto &[key, setting] : found->second) {
            Setting &known = all[key];
            const SessionOptions before = known.session;
            known = setting;
            known.session = before.with(setting.session);
        }
    }
    std::vector<Setting> settings;
    for (auto &[key, setting] : all) {
        settings.push_back(std::move(setting));
    }
    return settings;
}

std::vector<std::string> configuration_files() {
    std::vector<std::string> files{system_file};
    const char *folder = std::getenv("XDG_CONFIG_HOME");
    const char *home = std::getenv("HOME");
    if (folder != nullptr && folder[0] == '/') { // a relative one does not count
        files.push_back(std::string(folder) + "/config-copy.conf");
    } else if (home != nullptr && home[0] == '/') {
        files.push_back(std::string(home) + "/.config/config-copy.conf");
    }
    return files;
}

std::string location(const Setting &setting) {
    return "in " + setting.file + ", line " + std::to_string(setting.line) + ": ";
}

std::string file_in(const Setting &setting, const std::string &name) {
    if (name == "-") {
        return name;
    }
    const char *home = std::getenv("HOME");
    if (name.starts_with("~/") && home != nullptr) {
        return home + name.substr(1);
    }
    return std::filesystem::path(setting.file).parent_path() / name;
}

} // namespace config_copy
