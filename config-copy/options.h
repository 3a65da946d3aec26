// The command line. SNMP options are those of snmpcmd(1); the Net-SNMP library reads them, together
// with snmp.conf.
#pragma once

#include "config-copy/endpoint.h"
#include "config-copy/keep.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace config_copy {

enum class Command { copy, diff, list, errors, abort, help, version };

struct Options {
    Command command = Command::copy;
    std::vector<std::string> agents; // one, unless hosts_file is set
    std::optional<std::string> hosts_file;
    int jobs = 50;
    Endpoint from;
    Endpoint to;
    std::optional<oid> index;
    bool is_dry_run = false;
    bool is_quiet = false;
    bool is_json = false;
    bool is_verbose = false;
    bool is_replacement = false;   // the restored file replaces the whole configuration
    Keeping keeping = Keeping::no; // of a restored configuration
    std::optional<std::string> local_address;
    std::optional<std::string> password_file;
    std::chrono::seconds wait_turn{0};
    std::chrono::seconds time_limit{600};
    netsnmp_session session{};         // everything except the agent
    std::shared_ptr<u_char> community; // used by the session; the library leaves it to us to free
};

// Throws a Failure of usage. Initialises the Net-SNMP library for the process. Empty if the library
// itself did what an option requested, such as -V.
std::optional<Options> parse_options(int count, char **words);

// Whether others can read what we send to the agent.
bool is_readable_on_the_way(const netsnmp_session &session, const std::string &agent);

extern const char *const usage_text;

// Parts of the implementation.

// Whether the words ask for JSON, even if other words are wrong.
bool asks_for_json(int count, char **words);

// Our own options and the arguments, separated from the library's options.
struct Words {
    std::vector<char *> library; // starts with the program's name
    std::vector<std::string>
        long_options; // names of the long ones in `library`, with their hyphens
    std::vector<std::string> arguments;
};
Words split_words(int count, char **words, Options &options);

// Throws a Failure of usage if the library has no such token in snmp.conf(5). The library must be
// initialised.
void check_long_options(const std::vector<std::string> &names);

// The agents listed in a hosts file, or on standard input for "-". Throws a Failure of usage.
std::vector<std::string> read_hosts(const std::string &file);

// The agents that a text lists, one per line; blank lines and text after '#' are skipped. Throws a
// Failure of usage that names the text's origin.
std::vector<std::string> hosts_in(std::istream &text, const std::string &where);

} // namespace config_copy
