// The command line. SNMP options are those of snmpcmd(1); the Net-SNMP library reads them, together
// with snmp.conf.
#pragma once

#include "config-copy/agents/agent.h"
#include "config-copy/command_line/session_options.h"
#include "config-copy/copies/endpoint.h"
#include "config-copy/copies/keep.h"
#include "config-copy/copies/retries.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

enum class Command { completion, copy, diff, list, errors, abort, report, help, version };

struct Options {
    Command command = Command::copy;
    std::vector<Agent> agents; // one, unless hosts_file is set
    std::optional<std::string> hosts_file;
    std::vector<std::string> groups; // of the hosts file; none: all agents
    int jobs = 50;
    Retries retries;
    std::string profile; // empty: none
    Endpoint from;
    Endpoint to;
    std::optional<std::string> other_to; // instead of the profile's
    std::optional<oid> index;
    bool is_dry_run = false;
    bool is_quiet = false;
    bool is_json = false;
    bool is_verbose = false;
    bool is_replacement = false;   // the restored file replaces the whole configuration
    Keeping keeping = Keeping::no; // of a restored configuration
    std::optional<std::string> local_address;
    std::optional<std::string> password_file;
    // What is written and run after all copies.
    std::optional<std::string> failed_hosts;
    std::optional<std::string> metrics;
    std::optional<std::string> outcomes;
    std::optional<std::string> on_done;
    // Of the command report: what it is about, and the folder that it makes.
    std::string report_folder;
    std::optional<std::string> report_output;
    std::string completion; // what is to be printed for a shell
    std::chrono::seconds wait_turn{0};
    std::chrono::seconds time_limit{600};
};

// Throws a Failure of usage. Initialises the Net-SNMP library for the process. Empty if the library
// itself did what an option requested, such as -V.
std::optional<Options> parse_options(int count, char **words);

// Whether others can read what we send to the agent.
bool is_readable_on_the_way(const netsnmp_session &session, const std::string &agent);

std::string usage_text();

// What an option of ours is for; in a configuration file it is passed over in other runs.
enum class Use { everything, copies_and_diff, copies, itself };

// Whether an argument that is called so is the name of a file.
constexpr bool takes_file(std::string_view argument) {
    return argument == "FILE" || argument == "FOLDER" || argument == "PROGRAM";
}

// An option of ours. All but those that are for themselves may stand in a configuration file.
struct OwnOption {
    std::string_view name;     // without hyphens
    char letter;               // its short form, or 0
    std::string_view argument; // what its value is called; empty: it takes no value
    std::string_view help;     // one line or more; empty: the help leaves it out
    Use use;
    // `name` is how the user wrote it. Throws a Failure of usage.
    void (*take)(Options &options, std::string_view name, const std::string &value);
    // Whether it applies to the agents, FROM and TO of a copy; null: to all.
    bool (*applies)(const Options &options) = nullptr;
    std::string_view applies_to = {};

    [[nodiscard]] bool takes_value() const { return !argument.empty(); }
    [[nodiscard]] bool is_hidden() const { return help.empty(); }
};
std::span<const OwnOption> own_options();

// The letters of snmpcmd(1) that take a value.
inline constexpr std::string_view letters_with_value = "YmMOIPDvrtcZeEnulxXaApT3LsS";

// Parts of the implementation.

// Whether the words ask for JSON, even if other words are wrong.
bool asks_for_json(int count, char **words);

// Our own options and the arguments, separated from the library's options.
struct Words {
    SessionOptions session;
    std::vector<char *> library; // its other options, after the program's name
    std::vector<std::string>
        long_options; // names of the long ones in `library`, with their hyphens
    std::vector<std::string> arguments;
    std::set<std::string_view> given; // names of our options
};

// Passphrases and communities are blanked in `words`, because other users can see those.
Words split_words(int count, char **words, Options &options);

// Throws a Failure of usage if the library has no such token in snmp.conf(5). The library must be
// initialised.
void check_long_options(const std::vector<std::string> &names);

} // namespace config_copy
