#include "config-copy/command_line/hosts_file.h"

#include "config-copy/command_line/text_file.h"
#include "config-copy/failure.h"
#include "copy_client/user.h"

#include <algorithm>
#include <map>
#include <set>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace config_copy {
namespace {

using LineWords = std::vector<std::string>;

std::string location(const std::string &where, std::size_t line) {
    return "in " + where + ", line " + std::to_string(line) + ": ";
}

class Reader {
  public:
    explicit Reader(std::string_view text) : rest_(text) {}

    HostsFile read() {
        while (!rest_.empty()) {
            const std::size_t end = rest_.find('\n');
            ++line_;
            take(words_of(rest_.substr(0, end)));
            rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
        }
        return std::move(file_);
    }

    [[nodiscard]] std::size_t line() const { return line_; }

  private:
    void take(LineWords words) {
        if (words.empty()) {
            return;
        }
        // An IPv6 address may stand in brackets, too.
        const std::string first = std::move(words.front());
        words.erase(words.begin());
        if (first.starts_with('[') && first.find(':') == std::string::npos) {
            begin_group(first, words);
        } else {
            add_agent(first, words);
        }
    }

    void begin_group(const std::string &header, const LineWords &words) {
        const std::string name = header.substr(1, header.size() - 2);
        if (!header.ends_with(']') || !is_plain_name(name)) {
            throw bad_usage("a group is written [NAME], of letters, digits, dots, hyphens and "
                            "underscores");
        }
        if (!names_.insert(name).second) {
            throw bad_usage("the group " + name + " begins a second time");
        }
        file_.groups.push_back(name);
        known_.clear();
        of_group_ = std::make_shared<const SessionOptions>(options_of(words));
    }

    void add_agent(const std::string &name, const LineWords &words) {
        if (name.empty() || name[0] == '-') {
            throw bad_usage("a line begins with the agent or with [GROUP]; options follow");
        }
        if (name.find_first_of(" \t\r#") != std::string::npos) {
            throw bad_usage("an agent's name contains no blank and no '#'");
        }
        if (!words.empty() && !words.front().starts_with('-')) {
            throw bad_usage(name + " is followed by a word that is not an option: write one agent "
                                   "per line");
        }
        file_.agents.push_back({name, file_.groups.empty() ? "" : file_.groups.back(), line_,
                                words.empty() ? of_group_ : with_group(words)});
    }

    std::shared_ptr<const SessionOptions> with_group(const LineWords &words) {
        std::string key;
        for (const std::string &word : words) {
            key.append(word).push_back('\0');
        }
        auto &known = known_[key];
        if (!known) {
            known = std::make_shared<const SessionOptions>(of_group_->with(options_of(words)));
        }
        return known;
    }

    SessionOptions options_of(const LineWords &words) {
        SessionOptions options(words);
        if (options.has_secret() && file_.line_of_secret == 0) {
            file_.line_of_secret = line_;
        }
        return options;
    }

    std::string_view rest_;
    std::size_t line_ = 0;
    HostsFile file_;
    std::set<std::string> names_; // of groups
    std::shared_ptr<const SessionOptions> of_group_ = std::make_shared<const SessionOptions>();
    // What the words behind the group's agents mean.
    std::unordered_map<std::string, std::shared_ptr<const SessionOptions>> known_;
};

void check_groups(const std::vector<std::string> &wanted, const HostsFile &file,
                  const std::string &where) {
    const auto unknown = std::find_if(wanted.begin(), wanted.end(), [&](const std::string &group) {
        return std::find(file.groups.begin(), file.groups.end(), group) == file.groups.end();
    });
    if (unknown == wanted.end()) {
        return;
    }
    std::string known;
    for (const std::string &group : file.groups) {
        known.append(known.empty() ? ": there are " : ", ").append(group);
    }
    throw bad_usage("there is no group \"" + *unknown + "\" in " + where +
                    (known.empty() ? ", which has no groups" : known));
}

// Makes the settings of equal options once.
class SettingsOfAgents {
  public:
    explicit SettingsOfAgents(const SessionOptions &defaults) : defaults_(defaults) {}

    std::shared_ptr<const netsnmp_session> of(const std::shared_ptr<const SessionOptions> &own) {
        auto &settings = by_pointer_[own.get()];
        if (!settings) {
            auto &equal = by_options_[defaults_.with(*own)];
            if (!equal) {
                equal = settings_of(defaults_.with(*own));
                copy_client::keep_keys_of_settings(*equal);
            }
            settings = equal;
        }
        return settings;
    }

  private:
    const SessionOptions &defaults_;
    std::unordered_map<const SessionOptions *, std::shared_ptr<const netsnmp_session>> by_pointer_;
    std::map<SessionOptions, std::shared_ptr<netsnmp_session>> by_options_;
};

} // namespace

std::string name_of_hosts(const std::string &file) {
    return file == "-" ? "standard input" : "the hosts file " + file;
}

HostsFile hosts_in(std::string_view text, const std::string &where) {
    Reader reader(text);
    HostsFile file;
    try {
        file = reader.read();
    } catch (const Failure &failure) {
        throw bad_usage(location(where, reader.line()) + failure.what());
    }
    if (file.agents.empty()) {
        throw bad_usage(where + " lists no agent: write one per line");
    }
    return file;
}

std::vector<Agent> read_hosts(const std::string &file, const std::vector<std::string> &groups,
                              const SessionOptions &defaults) {
    const std::string where = name_of_hosts(file);
    TextFile content;
    try {
        content = read_text_file(file);
    } catch (const std::system_error &error) {
        throw bad_usage(where + " can't be read: " + error.code().message());
    }
    const HostsFile hosts = hosts_in(content.text, where);
    if (hosts.line_of_secret != 0 && content.is_readable_by_others) {
        throw bad_usage(
            location(where, hosts.line_of_secret) +
            "others may read the passphrases and communities in the file: chmod 600 it");
    }
    check_groups(groups, hosts, where);
    std::vector<Agent> agents;
    SettingsOfAgents settings(defaults);
    for (const ListedAgent &listed : hosts.agents) {
        if (!groups.empty() &&
            std::find(groups.begin(), groups.end(), listed.group) == groups.end()) {
            continue;
        }
        try {
            agents.push_back(
                {listed.name, listed.group, settings.of(listed.options), "", listed.options});
        } catch (const Failure &failure) {
            throw bad_usage(location(where, listed.line) + listed.name + ": " + failure.what());
        }
    }
    if (agents.empty()) {
        throw bad_usage("the chosen groups of " + where + " list no agent");
    }
    return agents;
}

} // namespace config_copy
