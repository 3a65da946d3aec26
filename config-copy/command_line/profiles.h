// The configuration files: settings for all runs in the section [defaults], and profiles, which are
// sections that the user chooses as @NAME.
#pragma once

#include "config-copy/command_line/session_options.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

struct Setting {
    std::string key;
    std::vector<std::string> values; // several only for `group`; none for `snmp`
    SessionOptions session;          // of `snmp`
    std::string file;
    std::size_t line = 0;
};

class Profiles {
  public:
    // Reads the files that there are. The later one counts. Throws a Failure of usage.
    explicit Profiles(const std::vector<std::string> &files);

    // The settings of [defaults] and of the profile, which counts where both have one; of `snmp`
    // each option counts by itself. Without a profile if the name is empty. Throws a Failure of
    // usage if there is no such profile.
    [[nodiscard]] std::vector<Setting> settings(const std::string &profile) const;

    [[nodiscard]] std::vector<std::string> names() const;

  private:
    using Section = std::map<std::string, Setting>;

    void read(const std::string &file, std::string_view text, bool is_readable_by_others);

    std::vector<std::string> files_;
    std::string unreadable_; // why one of them was left out
    std::map<std::string, Section> sections_;
};

// The files of the system and of the user.
std::vector<std::string> configuration_files();

// "in FILE, line N: "
std::string location(const Setting &setting);

// The setting's value as the name of a file: relative to the folder of the configuration file, or
// with ~/ to the user's.
std::string file_in(const Setting &setting, const std::string &name);

} // namespace config_copy
