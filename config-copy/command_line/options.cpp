#include "config-copy/command_line/options.h"

#include "base/number.h"
#include "config-copy/agents/server_address.h"
#include "config-copy/command_line/hosts_file.h"
#include "config-copy/command_line/profiles.h"
#include "config-copy/command_line/text_file.h"
#include "config-copy/copies/local_file.h"
#include "config-copy/failure.h"
#include "config-copy/likeness.h"
#include "copy_client/session.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace config_copy {
namespace {

constexpr long longest_wait = 7L * 24 * 3600;
constexpr long most_jobs = 1000;
constexpr long most_retries = 100;

long number_of(std::string_view what, std::string_view text, long least, long most) {
    const auto value = ulmo::parsed_number(text, least, most);
    if (!value) {
        throw bad_usage(std::string(what) + " needs a number from " + std::to_string(least) +
                        " to " + std::to_string(most) + ", not \"" + std::string(text) + '"');
    }
    return *value;
}

// Which runs some options are for.
bool has_hosts(const Options &options) {
    return options.hosts_file.has_value();
}

bool is_to_running(const Options &options) {
    return options.to.type == FileType::running;
}

bool is_local_to_running(const Options &options) {
    return options.from.is_local() && is_to_running(options);
}

bool is_local(const Options &options) {
    return options.from.is_local() || options.to.is_local() || options.command == Command::diff;
}

constexpr std::string_view for_hosts = "copies on the agents of a hosts file";
constexpr std::string_view for_running = "copies to running";
constexpr std::string_view for_local_to_running = "copies of a file of this machine to running";
constexpr std::string_view for_local = "copies from or to a file of this machine";

constexpr std::array<OwnOption, 25> options_of_ours{
    {{"hosts", 0, "FILE",
      "copy on each agent that FILE lists, one per line;\n"
      "standard input for -",
      Use::copies_and_diff,
      [](Options &options, std::string_view, const std::string &value) {
          options.hosts_file = value;
      }},
     {"group", 0, "NAME",
      "only on agents of this group of the hosts file; may be\n"
      "given several times",
      Use::copies_and_diff,
      [](Options &options, std::string_view, const std::string &value) {
          options.groups.push_back(value);
      }},
     {"to", 0, "TO",
      "copy FROM of the profile, or running, to TO instead of\n"
      "the profile's TO",
      Use::copies,
      [](Options &options, std::string_view, const std::string &value) {
          options.other_to = value;
      }},
     {"jobs", 0, "N", "on up to N agents at a time (default: 50)", Use::copies_and_diff,
      [](Options &options, std::string_view name, const std::string &value) {
          options.jobs = static_cast<int>(number_of(name, value, 1, most_jobs));
      }},
     {"retries", 0, "N",
      "try again up to N times, after the others, where the\n"
      "cause may pass: not reachable, busy, timeout",
      Use::copies_and_diff,
      [](Options &options, std::string_view name, const std::string &value) {
          options.retries.count = static_cast<int>(number_of(name, value, 0, most_retries));
      }},
     {"retry-pause", 0, "SECONDS",
      "wait so long before each of these attempts (default:\n"
      "10)",
      Use::copies_and_diff,
      [](Options &options, std::string_view name, const std::string &value) {
          options.retries.pause = std::chrono::seconds(number_of(name, value, 0, longest_wait));
      }},
     {"failed-hosts", 0, "FILE", "list the agents that failed in FILE, a hosts file", Use::copies,
      [](Options &options, std::string_view, const std::string &value) {
          options.failed_hosts = value;
      },
      has_hosts, for_hosts},
     {"metrics", 0, "FILE", "write the outcomes into FILE for Prometheus", Use::copies,
      [](Options &options, std::string_view, const std::string &value) {
          options.metrics = value;
      }},
     {"outcomes", 0, "FILE", "append the outcomes to FILE, as JSON", Use::copies,
      [](Options &options, std::string_view, const std::string &value) {
          options.outcomes = value;
      }},
     {"on-done", 0, "PROGRAM",
      "run PROGRAM for each agent at the end, with the outcome\n"
      "in its environment",
      Use::copies,
      [](Options &options, std::string_view, const std::string &value) {
          options.on_done = std::filesystem::absolute(value).lexically_normal();
      }},
     {"password-file", 0, "FILE",
      "the file server's password is the first line of FILE,\n"
      "of standard input for -; otherwise it is asked for",
      Use::copies,
      [](Options &options, std::string_view, const std::string &value) {
          options.password_file = value;
      }},
     {"wait-turn", 0, "SECONDS", "wait up to SECONDS for another copy to end", Use::copies_and_diff,
      [](Options &options, std::string_view name, const std::string &value) {
          options.wait_turn = std::chrono::seconds(number_of(name, value, 0, longest_wait));
      }},
     {"time-limit", 0, "SECONDS", "give up a copy that takes longer (default: 600)",
      Use::everything,
      [](Options &options, std::string_view name, const std::string &value) {
          options.time_limit = std::chrono::seconds(number_of(name, value, 1, longest_wait));
      }},
     {"replace", 0, "",
      "FROM replaces the running configuration, instead of\n"
      "being merged into it",
      Use::copies,
      [](Options &options, std::string_view, const std::string &) {
          options.is_replacement = true;
      },
      is_local_to_running, for_local_to_running},
     {"save", 0, "", "save the restored configuration to startup", Use::copies,
      [](Options &options, std::string_view, const std::string &) {
          options.keeping = std::max(options.keeping, Keeping::save);
      },
      is_to_running, for_running},
     {"confirm", 0, "",
      "the same if the agent still answers; otherwise the\n"
      "switch goes back by itself (its setting confirm_limit)",
      Use::copies,
      [](Options &options, std::string_view, const std::string &) {
          options.keeping = Keeping::confirm;
      },
      is_to_running, for_running},
     {"local-address", 0, "ADDR", "the address at which the switch reaches this machine",
      Use::copies_and_diff,
      [](Options &options, std::string_view, const std::string &value) {
          options.local_address = value;
      },
      is_local, for_local},
     {"dry-run", 0, "", "ask the agent, print what would be done, set nothing", Use::copies,
      [](Options &options, std::string_view, const std::string &) { options.is_dry_run = true; }},
     {"quiet", 'q', "", "print errors only", Use::everything,
      [](Options &options, std::string_view, const std::string &) { options.is_quiet = true; }},
     {"verbose", 0, "", "print each SNMP message on standard error", Use::everything,
      [](Options &options, std::string_view, const std::string &) { options.is_verbose = true; }},
     {"json", 0, "", "print JSON, one object per line", Use::everything,
      [](Options &options, std::string_view, const std::string &) { options.is_json = true; }},
     {"output", 'o', "FOLDER", "the folder that report makes", Use::itself,
      [](Options &options, std::string_view, const std::string &value) {
          options.report_output = value;
      }},
     {"help", 'h', "", "print this", Use::itself,
      [](Options &options, std::string_view, const std::string &) {
          options.command = Command::help;
      }},
     {"version", 0, "", "print the version", Use::itself,
      [](Options &options, std::string_view, const std::string &) {
          options.command = Command::version;
      }},
     // It only helps to build and use the completions.
     {"completion", 0, "SHELL", "", Use::itself,
      [](Options &options, std::string_view, const std::string &value) {
          options.command = Command::completion;
          options.completion = value;
      }}}};

// Our option as the user wrote it, with its hyphens; null if it is not ours.
const OwnOption *own_option(std::string_view word) {
    const auto *found =
        std::find_if(options_of_ours.begin(), options_of_ours.end(), [&](const OwnOption &option) {
            return word.starts_with("--") ? option.name == word.substr(2)
                                          : word.size() == 2 && option.letter == word[1];
        });
    return found == options_of_ours.end() ? nullptr : found;
}

// The option that `word` takes back, as in --no-save; null if it takes back none.
const OwnOption *taken_back(std::string_view word) {
    constexpr std::string_view prefix = "--no-";
    if (!word.starts_with(prefix)) {
        return nullptr;
    }
    const OwnOption *option = own_option("--" + std::string(word.substr(prefix.size())));
    return option == nullptr || option->takes_value() || option->use == Use::itself ? nullptr
                                                                                    : option;
}

// The lines of the help about an option.
std::string help_of(const OwnOption &option) {
    constexpr std::size_t column = 25;
    std::string line = "  ";
    if (option.letter != 0) {
        line += {'-', option.letter, ',', ' '};
    }
    line += "--" + std::string(option.name);
    if (option.takes_value()) {
        line += ' ' + std::string(option.argument);
    }
    std::string text;
    const auto end_line = [&] { text += std::exchange(line, "") + '\n'; };
    if (line.size() + 2 > column) {
        end_line();
    }
    for (std::string_view rest = option.help; !rest.empty();) {
        const std::size_t end = rest.find('\n');
        line.resize(column, ' ');
        line += rest.substr(0, end);
        end_line();
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return text;
}

// The library stores every long option as a line of snmp.conf, and only warns about one that it
// does not know.
std::vector<const config_line *> library_tokens() {
    std::vector<const config_line *> tokens;
    for (const char *type : {"snmp", NETSNMP_APPLICATION_CONFIG_TYPE}) {
        for (const config_line *line = ::read_config_get_handlers(type); line != nullptr;
             line = line->next) {
            tokens.push_back(line);
        }
    }
    return tokens;
}

// Takes a word of single-letter options of the library, such as -dv2c, the last of which may have
// its value in the next word. Returns whether it has.
bool take_letters(Words &result, char *word, char *next) {
    const std::string_view text = word;
    if (text == "-Lf" || text == "-Ls") {
        result.library.push_back(word);
        if (next != nullptr) {
            result.library.push_back(next);
        }
        return next != nullptr;
    }
    const std::size_t at = text.find_first_of(letters_with_value, 1);
    // The library would take this for a long option.
    if (const std::size_t hyphen = text.find('-', 1); hyphen < at) {
        throw bad_usage("in " + std::string(text.substr(0, hyphen + 1)) +
                        " a hyphen follows a letter: write a long option apart, with two hyphens");
    }
    if (at == std::string_view::npos) {
        result.library.push_back(word);
        return false;
    }
    const bool is_next = at + 1 == text.size();
    if (is_next && next == nullptr) {
        throw bad_usage(std::string("-") + text[at] + " needs a value (config-copy --help)");
    }
    const char letter = text[at];
    if (session_letters.find(letter) == std::string_view::npos) {
        result.library.push_back(word);
        if (is_next) {
            result.library.push_back(next);
        }
        return is_next;
    }
    char *value = is_next ? next : word + at + 1;
    result.session.set(letter, value);
    if (is_secret(letter)) {
        std::fill_n(value, std::strlen(value), '\0');
    }
    if (at > 1) { // the letters before it
        word[at] = '\0';
        result.library.push_back(word);
    }
    return is_next;
}

// Whether something in the options needs a group of the agents.
bool uses_groups(const Options &options) {
    return !options.groups.empty() || has_template(options.from, "group") ||
           has_template(options.to, "group");
}

// Each agent must have a file of its own. Switches of the same sysName are noticed later.
void check_file_of_each(const Options &options) {
    const std::string where = name_of_hosts(*options.hosts_file);
    if (options.to.type == FileType::network && options.command == Command::copy &&
        options.agents.size() > 1 && !has_template(options.to, "host") &&
        !has_template(options.to, "name")) {
        throw bad_usage(
            "every agent would write the same file: put {host} or {name} into the path");
    }
    std::unordered_set<std::string> seen;
    for (const Agent &agent : options.agents) {
        if (!seen.insert(host_value(agent.name)).second) {
            throw bad_usage(agent.name + " is listed twice in " + where +
                            ", or looks like another agent there in a file's name");
        }
        if (agent.group.empty() && uses_groups(options)) {
            throw bad_usage(agent.name + " is in no group of " + where +
                            ", so {group} can't be filled in");
        }
    }
}

const std::string &agent_of(const std::string &argument) {
    if (argument.empty()) {
        throw bad_usage("AGENT is empty: write the switch's name or address");
    }
    if (argument[0] == '@') {
        throw bad_usage("a profile comes first: write config-copy " + argument + " ...");
    }
    return argument;
}

void check_local(const Options &options) {
    const bool is_diff = options.command == Command::diff;
    if (options.local_address && (!is_local(options) || !parsed_address(*options.local_address))) {
        throw bad_usage("--local-address needs the IP address of this machine as the switch sees "
                        "it, and FROM or TO that is a file of this machine");
    }
    if (options.keeping != Keeping::no && !is_to_running(options)) {
        throw bad_usage("--save and --confirm are for copies to running");
    }
    if (options.is_replacement && !is_local_to_running(options)) {
        throw bad_usage("--replace is for copies of a file of this machine to running; a file on a "
                        "server replaces if its first line is \"" +
                        std::string(replace_line) + '"');
    }
    if (options.to.local == standard_stream && !is_diff &&
        (options.hosts_file || options.is_json)) {
        throw bad_usage(options.is_json ? "--json prints on standard output: name a file as TO"
                                        : "the configurations of several agents do not go to "
                                          "standard output: name a file such as {host}.cfg as TO");
    }
    if (options.from.local == standard_stream && options.hosts_file == standard_stream) {
        throw bad_usage("standard input can't hold both the agents and FROM: name a file for one "
                        "of them");
    }
}

// What the configuration files add to the options and arguments.
struct Chosen {
    std::string profile; // empty: none
    SessionOptions session;
    std::optional<Setting> from;
    std::optional<Setting> to;
    std::optional<std::string> hosts_file; // of the profile, also if it is not for all its agents
    std::vector<Setting> for_some_runs;    // that count if they apply to FROM and TO
};

// Calls `take`, and adds the setting's place to a Failure of it.
template <typename Take> void take_setting(const Setting &setting, Take take) {
    try {
        take();
    } catch (const Failure &failure) {
        throw bad_usage(location(setting) + failure.what());
    }
}

void take_value(const Setting &setting, const OwnOption &option, Options &options) {
    for (const std::string &value : setting.values) {
        option.take(options, setting.key,
                    takes_file(option.argument) ? file_in(setting, value) : value);
    }
}

Endpoint endpoint_in(const Setting &setting) {
    Endpoint endpoint;
    take_setting(setting, [&] {
        endpoint = parse_endpoint(setting.values.front());
        if (endpoint.is_local()) {
            endpoint.local = file_in(setting, endpoint.local);
        }
    });
    return endpoint;
}

// Takes FROM and TO from the arguments or the profile.
void take_endpoints(const std::vector<std::string> &arguments, const Chosen &chosen,
                    Options &options) {
    const std::size_t agents = options.hosts_file ? 0 : 1;
    if (options.other_to && options.command == Command::copy) {
        if (arguments.size() != agents) {
            const bool has_none = arguments.empty() && !chosen.profile.empty();
            throw bad_usage(has_none ? "the profile @" + chosen.profile +
                                           " has no `hosts`: add it, or name the AGENT"
                            : options.hosts_file ? "with --to name no FROM"
                                                 : "with --to name the AGENT, and no FROM");
        }
        options.from = chosen.from ? endpoint_in(*chosen.from) : parse_endpoint("running");
        options.to = parse_endpoint(*options.other_to);
    } else if (arguments.size() == agents + 2) {
        options.from = parse_endpoint(arguments[agents]);
        options.to = parse_endpoint(arguments[agents + 1]);
    } else if (arguments.size() == agents && chosen.from && chosen.to) {
        options.from = endpoint_in(*chosen.from);
        options.to = endpoint_in(*chosen.to);
    } else if (chosen.profile.empty()) {
        const std::string both = options.command == Command::diff ? "A and B" : "FROM and TO";
        throw bad_usage(options.hosts_file ? "with --hosts, name " + both +
                                                 ", or before them one AGENT of the file"
                                           : "name AGENT, " + both + " (config-copy --help)");
    } else if (arguments.size() == agents) {
        throw bad_usage("the profile @" + chosen.profile + " has no " +
                        (chosen.from ? "`to`" : "`from`") + ": add it, or name FROM and TO");
    } else {
        throw bad_usage(
            "behind the profile @" + chosen.profile + " name " +
            (options.hosts_file ? "an AGENT only if it is one of the hosts file" : "the AGENT") +
            ", and FROM and TO only in place of the profile's");
    }
}

// It is better to learn that before all copies than after them.
void check_results(const Options &options) {
    if (options.failed_hosts && !options.hosts_file) {
        throw bad_usage("--failed-hosts lists agents of a hosts file: give --hosts FILE");
    }
    if (options.on_done && ::access(options.on_done->c_str(), X_OK) != 0) {
        throw bad_usage("--on-done: " + *options.on_done +
                        " can't be run: " + std::strerror(errno));
    }
}

// Profiles are for copies in both directions, so a setting that does not apply is no mistake.
void take_what_applies(const Chosen &chosen, Options &options) {
    for (const Setting &setting : chosen.for_some_runs) {
        const OwnOption &option = *own_option("--" + setting.key);
        if (option.applies(options)) {
            take_value(setting, option, options);
        } else if (options.is_verbose) {
            std::cerr << "config-copy: " << location(setting) << setting.key
                      << " does not apply here: it is for " << option.applies_to << '\n';
        }
    }
}

std::optional<Agent> listed_agent(const std::string &name, const std::string &file,
                                  const std::vector<std::string> &groups, const Chosen &chosen) {
    const auto agents = read_hosts(file, groups, chosen.session);
    const auto found = std::find_if(agents.begin(), agents.end(),
                                    [&](const Agent &agent) { return agent.name == name; });
    return found == agents.end() ? std::nullopt : std::optional(*found);
}

// The one agent of the hosts file that an argument in front of FROM and TO names, if there is one.
std::optional<Agent> agent_of_hosts(const std::vector<std::string> &arguments, const Chosen &chosen,
                                    const Options &options) {
    const bool has_endpoints = options.other_to || (chosen.from && chosen.to);
    if (!options.hosts_file || options.hosts_file == "-" ||
        !(arguments.size() == 3 || (arguments.size() == 1 && has_endpoints))) {
        return std::nullopt;
    }
    auto found = listed_agent(arguments.front(), *options.hosts_file, options.groups, chosen);
    if (!found) {
        throw bad_usage(arguments.front() + " is not in " +
                        (options.groups.empty() ? "" : "the chosen groups of ") +
                        name_of_hosts(*options.hosts_file));
    }
    return found;
}

void parse_copy(const std::vector<std::string> &arguments, const Chosen &chosen, Options &options) {
    const std::optional<Agent> listed = agent_of_hosts(arguments, chosen, options);
    if (listed) { // all else is as if the user had written its options
        options.hosts_file.reset();
        options.groups.clear();
    }
    take_endpoints(arguments, chosen, options);
    take_what_applies(chosen, options);
    check_results(options);
    if (options.command == Command::diff) {
        check_comparison(options.from, options.to);
    } else {
        check_pair(options.from, options.to);
    }
    check_local(options);
    if (!options.hosts_file) {
        options.agents = {
            listed ? *listed : Agent{agent_of(arguments[0]), "", settings_of(chosen.session), ""}};
        if (uses_groups(options) && options.agents.front().group.empty()) {
            throw bad_usage("only the agents of a hosts file have groups: give --hosts FILE");
        }
        return;
    }
    if (options.hosts_file == "-" && options.password_file == "-") {
        throw bad_usage("standard input can't hold both the agents and the password: name a file "
                        "for one of them");
    }
    options.agents = read_hosts(*options.hosts_file, options.groups, chosen.session);
    check_file_of_each(options);
}

bool is_command(const std::string &word) {
    return word == "list" || word == "errors" || word == "abort" || word == "diff" ||
           word == "report";
}

constexpr const char *how_to_report = "write config-copy report FOLDER -o REPORT";

// It needs no agent, no profile and nothing of the library.
void take_report(const Words &words, Options &options) {
    options.command = Command::report;
    if (words.library.size() > 1 || !words.session.words().empty() ||
        std::any_of(words.given.begin(), words.given.end(),
                    [](std::string_view name) { return name != "output" && name != "quiet"; })) {
        throw bad_usage("the options of report are --output and --quiet");
    }
    if (words.arguments.size() != 2 || words.arguments.back().empty() || !options.report_output ||
        options.report_output->empty()) {
        throw bad_usage(how_to_report);
    }
    options.report_folder = words.arguments.back();
}

// Whether a setting for these runs counts in this one.
bool counts(Use use, const std::vector<std::string> &arguments) {
    const bool is_copy = arguments.empty() || !is_command(arguments.front());
    return use == Use::everything || is_copy ||
           (use == Use::copies_and_diff && arguments.front() == "diff");
}

bool is_yes(const Setting &setting) {
    const std::string &value = setting.values.front();
    if (value != "yes" && value != "no") {
        throw bad_usage(setting.key + " needs yes or no");
    }
    return value == "yes";
}

// Takes the setting unless the command line has the option.
void take(const Setting &setting, const Words &words, Options &options, Chosen &chosen) {
    if (setting.key == "snmp") {
        chosen.session = setting.session.with(words.session);
    } else if (setting.key == "from") {
        chosen.from = setting;
    } else if (setting.key == "to") {
        chosen.to = setting;
    } else {
        if (setting.key == "hosts") {
            chosen.hosts_file = file_in(setting, setting.values.front());
        }
        const OwnOption &option = *own_option("--" + setting.key);
        if (words.given.contains(option.name) || !counts(option.use, words.arguments) ||
            (!option.takes_value() && !is_yes(setting))) {
            return;
        }
        if (option.applies != nullptr) {
            chosen.for_some_runs.push_back(setting);
        } else {
            take_value(setting, option, options);
        }
    }
}

// The settings of the configuration files; the profile is taken out of the arguments.
Chosen chosen_in(Words &words, Options &options) {
    Chosen chosen;
    chosen.session = words.session;
    auto &arguments = words.arguments;
    if (!arguments.empty() && arguments.front().starts_with('@')) {
        chosen.profile = arguments.front().substr(1);
        if (!is_plain_name(chosen.profile)) {
            throw bad_usage("a profile is written @NAME");
        }
        arguments.erase(arguments.begin());
    }
    for (const Setting &setting : Profiles(configuration_files()).settings(chosen.profile)) {
        take_setting(setting, [&] { take(setting, words, options, chosen); });
    }
    return chosen;
}

void parse_arguments(std::vector<std::string> arguments, const Chosen &chosen, Options &options) {
    if (arguments.empty() || !is_command(arguments[0])) {
        if (arguments.size() > 1 && is_command(arguments[1])) {
            throw bad_usage("the command comes before the agent: write config-copy " +
                            arguments[1] + ' ' + arguments[0]);
        }
        parse_copy(arguments, chosen, options);
        return;
    }
    if (options.is_dry_run || options.is_replacement || options.keeping != Keeping::no) {
        throw bad_usage("--dry-run, --replace, --save and --confirm are for copies only");
    }
    if (options.other_to) {
        throw bad_usage("--to is for copies only");
    }
    if (options.failed_hosts || options.metrics || options.outcomes || options.on_done) {
        throw bad_usage("--failed-hosts, --metrics, --outcomes and --on-done are for copies only");
    }
    const std::string name = arguments[0];
    if (name == "report") { // behind a profile
        throw bad_usage(how_to_report);
    }
    if (name == "diff") {
        options.command = Command::diff;
        arguments.erase(arguments.begin());
        parse_copy(arguments, chosen, options);
        return;
    }
    options.command = name == "list"     ? Command::list
                      : name == "errors" ? Command::errors
                                         : Command::abort;
    const std::size_t most = options.command == Command::list ? 2 : 3;
    const std::size_t least = options.command == Command::abort ? 3 : 2;
    if (arguments.size() < least || arguments.size() > most || options.hosts_file ||
        uses_groups(options)) {
        throw bad_usage("write config-copy " + name +
                        (name == "list"     ? " AGENT"
                         : name == "errors" ? " AGENT [INDEX]"
                                            : " AGENT INDEX"));
    }
    std::optional<Agent> listed;
    if (chosen.hosts_file && chosen.hosts_file != "-") {
        listed = listed_agent(arguments[1], *chosen.hosts_file, {}, chosen);
    }
    options.agents = {listed ? *listed
                             : Agent{agent_of(arguments[1]), "", settings_of(chosen.session), ""}};
    if (arguments.size() == 3) {
        options.index =
            static_cast<oid>(number_of("INDEX", arguments[2], 1, static_cast<long>(largest_index)));
    }
}

// Initialises the library, with the options that are not for a session. Returns false if one of
// them, such as -V, was all that was asked for.
bool initialise_library(std::vector<char *> words) {
    const bool is_answer = std::any_of(words.begin() + 1, words.end(), [](std::string_view word) {
        return word == "-V" || word == "-H";
    });
    ::setenv("MIBS", "", 1); // only numbers are needed
    if (!is_answer) {        // -V and -H answer through the log
        ::netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    }
    // It wants the options of some session, too.
    std::array<std::string, 3> session{"-v1", "-c-", "-"};
    for (std::string &word : session) {
        words.push_back(word.data());
    }
    words.push_back(nullptr);
    netsnmp_session unused{};
    const int result =
        ::netsnmp_parse_args(static_cast<int>(words.size()) - 1, words.data(), &unused, nullptr,
                             nullptr, NETSNMP_PARSE_ARGS_NOLOGGING | NETSNMP_PARSE_ARGS_NOZERO);
    std::free(unused.community);
    if (result != NETSNMP_PARSE_ARGS_SUCCESS_EXIT && result < 0) {
        throw bad_usage("the SNMP options are not as in snmpcmd(1) (config-copy --help)");
    }
    return result != NETSNMP_PARSE_ARGS_SUCCESS_EXIT;
}

// Options that are not to count, not even by a profile.
void take_back(const std::set<std::string_view> &without, std::set<std::string_view> &given) {
    const auto check = [&](std::string_view name, std::string_view other) {
        if (given.contains(other)) {
            throw bad_usage("--no-" + std::string(name) + " contradicts --" + std::string(other));
        }
    };
    for (const std::string_view name : without) {
        check(name, name);
    }
    if (without.contains("save")) {
        check("save", "confirm"); // which saves, too
        given.insert("confirm");
    }
    given.insert(without.begin(), without.end());
}

} // namespace

std::span<const OwnOption> own_options() {
    return options_of_ours;
}

std::string usage_text() {
    std::string text =
        R"(usage: config-copy [OPTIONS] AGENT FROM TO
       config-copy [OPTIONS] --hosts FILE [--group NAME] [AGENT] FROM TO
       config-copy [OPTIONS] @PROFILE [AGENT] [FROM TO]
       config-copy [OPTIONS] diff [AGENT] A B
       config-copy [OPTIONS] list AGENT
       config-copy [OPTIONS] errors AGENT [INDEX]
       config-copy [OPTIONS] abort AGENT INDEX
       config-copy report FOLDER -o REPORT

Copies the configuration of a switch over SNMP. FROM and TO are running,
startup, fabric-startup (TO only), all-startup (TO only), or one of
  ./FILE                 a file of this machine; - is standard input or output
  tftp://HOST/PATH       ftp://USER@HOST/PATH
  sftp://USER@HOST/PATH  scp://USER@HOST/PATH
with percent-encoding. {host}, {name} (the switch's sysName), {group}, {date},
{time} and {datetime} in PATH and FILE are filled in.
diff compares running, startup and files of this machine. report makes pages
for a browser from a folder of backups and its history.

options: those of snmpcmd(1), such as
  -v 3 -u USER -l authPriv -a SHA-256 -A PASSPHRASE -x AES -X PASSPHRASE,
whose defaults come from snmp.conf, and
)";
    for (const OwnOption &option : options_of_ours) {
        text += option.is_hidden() ? "" : help_of(option);
    }
    return text + R"(--no-NAME takes back the option NAME of a profile if it has no value, as in
--no-save.

exit status: 0 done, 1 the copy failed (diff: they differ; 6 the copy failed),
  2 bad usage, 3 refused by the agent,
  4 agent not reachable or name not found, 5 another copy is in progress
)";
}

Words split_words(int count, char **words, Options &options) {
    Words result;
    std::set<std::string_view> without; // options that a profile may have
    result.library.push_back(words[0]);
    for (int i = 1; i < count; ++i) {
        const std::string_view word = words[i];
        if (word == "--") {
            result.arguments.insert(result.arguments.end(), words + i + 1, words + count);
            break;
        }
        if (word.size() < 2 || word[0] != '-') {
            result.arguments.emplace_back(word);
            continue;
        }
        const std::size_t equals = word.find('=');
        const std::string_view name = word.substr(0, equals);
        if (name == "--password") {
            throw bad_usage("a password in an argument can be seen by others: use --password-file, "
                            "standard input or the prompt");
        }
        // An option with a value may be given only once, because it would not be clear which of two
        // values counts.
        if (const OwnOption *own = taken_back(name)) {
            if (equals != std::string_view::npos) {
                throw bad_usage(std::string(name) + " takes no value");
            }
            without.insert(own->name);
            continue;
        }
        if (const OwnOption *own = own_option(name)) {
            std::string value;
            if (!own->takes_value()) {
                if (equals != std::string_view::npos) {
                    throw bad_usage(std::string(name) + " takes no value");
                }
            } else if (result.given.contains(own->name) && own->name != "group") {
                throw bad_usage(std::string(name) + " is given twice");
            } else if (equals != std::string_view::npos) {
                value = word.substr(equals + 1);
            } else if (i + 1 == count) {
                throw bad_usage(std::string(name) + " needs a value (config-copy --help)");
            } else {
                value = words[++i];
            }
            result.given.insert(own->name);
            own->take(options, name, value);
            continue;
        }
        if (word.starts_with("--")) {
            result.long_options.emplace_back(word.substr(0, word.find_first_of("= \t")));
            result.library.push_back(words[i]);
        } else if (take_letters(result, words[i], i + 1 < count ? words[i + 1] : nullptr)) {
            ++i;
        }
    }
    take_back(without, result.given);
    return result;
}

void check_long_options(const std::vector<std::string> &names) {
    const auto tokens = library_tokens();
    for (const std::string &name : names) {
        if (std::any_of(tokens.begin(), tokens.end(), [&](const config_line *token) {
                return ::strcasecmp(name.c_str() + 2, token->config_token) == 0;
            })) {
            continue;
        }
        std::vector<std::string> known;
        known.reserve(options_of_ours.size() + tokens.size());
        for (const OwnOption &option : options_of_ours) {
            if (!option.is_hidden()) {
                known.emplace_back(option.name);
            }
        }
        for (const config_line *token : tokens) {
            known.emplace_back(token->config_token);
        }
        const std::string like = nearest(name.substr(2), known);
        throw bad_usage(
            "there is no option " + name +
            (like.empty() ? " (config-copy --help)" : ": did you mean --" + like + '?'));
    }
}

bool asks_for_json(int count, char **words) {
    char **const end = std::find(words + 1, words + count, std::string_view("--"));
    return std::find(words + 1, end, std::string_view("--json")) != end;
}

std::optional<Options> parse_options(int count, char **words) {
    Options options;
    Words split = split_words(count, words, options);
    if (options.command == Command::help || options.command == Command::version ||
        options.command == Command::completion) {
        return options;
    }
    if (!split.arguments.empty() && split.arguments.front() == "report") {
        take_report(split, options);
        return options;
    }
    if (options.report_output) {
        throw bad_usage("--output is for config-copy report FOLDER");
    }
    if (!initialise_library(split.library)) {
        return std::nullopt;
    }
    check_long_options(split.long_options);
    const Chosen chosen = chosen_in(split, options);
    options.profile = chosen.profile;
    parse_arguments(split.arguments, chosen, options);
    return options;
}

bool is_readable_on_the_way(const netsnmp_session &session, const std::string &agent) {
    const auto is_over = [&](std::string_view transport) { return agent.starts_with(transport); };
    if (is_over("dtls") || is_over("tls") || is_over("ssh") || is_over("unix")) {
        return false;
    }
    return session.version != SNMP_VERSION_3 || security_level(session) != SNMP_SEC_LEVEL_AUTHPRIV;
}

} // namespace config_copy
