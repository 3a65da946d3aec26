// The command line: SNMP options are those of snmpcmd(1) and are read by the Net-SNMP library,
// together with snmp.conf.
#pragma once

#include "config-copy/copy_side.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace config_copy {

enum class Command { copy, list, errors, abort, help, version };

struct Options {
    Command command = Command::copy;
    std::vector<std::string> agents; // one, unless hosts_file is given
    std::optional<std::string> hosts_file;
    int jobs = 50;
    CopySide from;
    CopySide to;
    std::optional<oid> index;
    bool is_dry_run = false;
    bool is_quiet = false;
    bool is_json = false;
    bool is_verbose = false;
    std::optional<std::string> password_file;
    std::chrono::seconds wait_turn{0};
    std::chrono::seconds time_limit{600};
    netsnmp_session session{};         // all but the agent
    std::shared_ptr<u_char> community; // the session's, which the library leaves to us
};

// Throws a Failure of usage. Sets the Net-SNMP library up for the process. Nothing when the library
// did what an option asked for, such as -V.
std::optional<Options> parse_options(int count, char **words);

// Whether what we write to the agent can be read on the way to it.
bool is_readable_on_the_way(const netsnmp_session &session, const std::string &agent);

extern const char *const usage_text;

// --- parts ---

// Whether the words ask for JSON, be the others right or not.
bool asks_for_json(int count, char **words);

// Our own options and the arguments apart from the options that are the library's.
struct Words {
    std::vector<char *> library;           // the program's name first
    std::vector<std::string> long_options; // the names of those in `library`, with their hyphens
    std::vector<std::string> arguments;
};
Words split_words(int count, char **words, Options &options);

// Throws a Failure of usage when the library knows no such token of snmp.conf(5). The library must
// have been initialised.
void check_long_options(const std::vector<std::string> &names);

// The agents of a hosts file, or of standard input for "-". Throws a Failure of usage.
std::vector<std::string> read_hosts(const std::string &file);

// The agents that a text lists: one a line, blank lines and what follows a '#' left out. Throws a
// Failure of usage that says where the text came from.
std::vector<std::string> hosts_in(std::istream &text, const std::string &where);

} // namespace config_copy
