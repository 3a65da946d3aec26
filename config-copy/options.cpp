#include "config-copy/options.h"

#include "base/number.h"
#include "config-copy/failure.h"
#include "config-copy/likeness.h"
#include "config-copy/local_file.h"
#include "config-copy/server_address.h"
#include "copy_client/session.h"
#include "copy_client/user.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <string_view>
#include <utility>

namespace config_copy {
namespace {

constexpr std::string_view letters_with_value = "YmMOIPDvrtcZeEnulxXaApT3LsS"; // as in snmpcmd(1)
constexpr long longest_wait = 7L * 24 * 3600;
constexpr long most_jobs = 1000;

long number_of(std::string_view what, std::string_view text, long least, long most) {
    const auto value = ulmo::parsed_number(text, least, most);
    if (!value) {
        throw bad_usage(std::string(what) + " needs a number from " + std::to_string(least) +
                        " to " + std::to_string(most) + ", not \"" + std::string(text) + '"');
    }
    return *value;
}

// An option of ours. An option with a value may be given only once, because it would not be clear
// which of two values counts.
struct OwnOption {
    std::string_view name;
    bool takes_value;
    void (*take)(Options &options, std::string_view name, const std::string &value);
};

constexpr std::array<OwnOption, 17> own_options{
    {{"--hosts", true,
      [](Options &options, std::string_view, const std::string &value) {
          options.hosts_file = value;
      }},
     {"--jobs", true,
      [](Options &options, std::string_view name, const std::string &value) {
          options.jobs = static_cast<int>(number_of(name, value, 1, most_jobs));
      }},
     {"--password-file", true,
      [](Options &options, std::string_view, const std::string &value) {
          options.password_file = value;
      }},
     {"--wait-turn", true,
      [](Options &options, std::string_view name, const std::string &value) {
          options.wait_turn = std::chrono::seconds(number_of(name, value, 0, longest_wait));
      }},
     {"--time-limit", true,
      [](Options &options, std::string_view name, const std::string &value) {
          options.time_limit = std::chrono::seconds(number_of(name, value, 1, longest_wait));
      }},
     {"--local-address", true,
      [](Options &options, std::string_view, const std::string &value) {
          options.local_address = value;
      }},
     {"--replace", false,
      [](Options &options, std::string_view, const std::string &) {
          options.is_replacement = true;
      }},
     {"--save", false,
      [](Options &options, std::string_view, const std::string &) {
          options.keeping = std::max(options.keeping, Keeping::save);
      }},
     {"--confirm", false,
      [](Options &options, std::string_view, const std::string &) {
          options.keeping = Keeping::confirm;
      }},
     {"--dry-run", false,
      [](Options &options, std::string_view, const std::string &) { options.is_dry_run = true; }},
     {"--verbose", false,
      [](Options &options, std::string_view, const std::string &) { options.is_verbose = true; }},
     {"-q", false,
      [](Options &options, std::string_view, const std::string &) { options.is_quiet = true; }},
     {"--quiet", false,
      [](Options &options, std::string_view, const std::string &) { options.is_quiet = true; }},
     {"--json", false,
      [](Options &options, std::string_view, const std::string &) { options.is_json = true; }},
     {"--help", false,
      [](Options &options, std::string_view, const std::string &) {
          options.command = Command::help;
      }},
     {"-h", false,
      [](Options &options, std::string_view, const std::string &) {
          options.command = Command::help;
      }},
     {"--version", false, [](Options &options, std::string_view, const std::string &) {
          options.command = Command::version;
      }}}};

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

// Checks values for which the library would give a vague error, or silently do something else.
void check_value(char letter, const std::string &value) {
    constexpr std::size_t shortest_passphrase = 8; // RFC 3414, section 11.2
    const std::string option = std::string("-") + letter;
    if (letter == 'v' && value != "1" && ::strcasecmp(value.c_str(), "2c") != 0 && value != "3") {
        throw bad_usage("-v needs the version of SNMP, 1, 2c or 3, not \"" + value + '"');
    }
    if (letter == 'a' && ::usm_lookup_auth_type(value.c_str()) < 0) {
        throw bad_usage("-a needs an authentication protocol, such as SHA-256, not \"" + value +
                        '"');
    }
    if (letter == 'x' && ::usm_lookup_priv_type(value.c_str()) < 0) {
        throw bad_usage("-x needs a privacy protocol, such as AES, not \"" + value + '"');
    }
    if ((letter == 'A' || letter == 'X') && value.size() < shortest_passphrase) {
        throw bad_usage(option + " needs a passphrase of at least " +
                        std::to_string(shortest_passphrase) + " characters");
    }
}

// Checks a word of single-letter options of the library, such as -dv2c, the last of which may have
// its value in the next word. Returns whether it has.
bool takes_next_word(std::string_view word, const char *next) {
    if (word == "-Lf" || word == "-Ls") {
        return next != nullptr;
    }
    const std::size_t at = word.find_first_of(letters_with_value, 1);
    // The library would take this for a long option.
    if (const std::size_t hyphen = word.find('-', 1); hyphen < at) {
        throw bad_usage("in " + std::string(word.substr(0, hyphen + 1)) +
                        " a hyphen follows a letter: write a long option apart, with two hyphens");
    }
    if (at == std::string_view::npos) {
        return false;
    }
    const bool is_next = at + 1 == word.size();
    if (is_next && next == nullptr) {
        throw bad_usage(std::string("-") + word[at] + " needs a value (config-copy --help)");
    }
    check_value(word[at], is_next ? std::string(next) : std::string(word.substr(at + 1)));
    return is_next;
}

std::string name_of_hosts(const std::string &file) {
    return file == "-" ? "standard input" : "the hosts file " + file;
}

const std::string &agent_of(const std::string &argument) {
    if (argument.empty()) {
        throw bad_usage("AGENT is empty: write the switch's name or address");
    }
    return argument;
}

void check_local(const Options &options) {
    const bool is_diff = options.command == Command::diff;
    const bool is_local = options.from.is_local() || options.to.is_local() || is_diff;
    if (options.local_address && (!is_local || !parsed_address(*options.local_address))) {
        throw bad_usage("--local-address needs the IP address of this machine as the switch sees "
                        "it, and FROM or TO that is a file of this machine");
    }
    if (options.keeping != Keeping::no && options.to.type != FileType::running) {
        throw bad_usage("--save and --confirm are for copies to running");
    }
    if (options.is_replacement &&
        !(options.from.is_local() && options.to.type == FileType::running)) {
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

void parse_copy(const std::vector<std::string> &arguments, Options &options) {
    const std::size_t expected = options.hosts_file ? 2 : 3;
    if (arguments.size() != expected) {
        throw bad_usage(options.hosts_file ? "with --hosts, name FROM and TO, and no AGENT"
                                           : "name AGENT, FROM and TO (config-copy --help)");
    }
    options.from = parse_endpoint(arguments[expected - 2]);
    options.to = parse_endpoint(arguments[expected - 1]);
    if (options.command == Command::diff) {
        check_comparison(options.from, options.to);
    } else {
        check_pair(options.from, options.to);
    }
    check_local(options);
    if (!options.hosts_file) {
        options.agents = {agent_of(arguments[0])};
        return;
    }
    if (options.hosts_file == "-" && options.password_file == "-") {
        throw bad_usage("standard input can't hold both the agents and the password: name a file "
                        "for one of them");
    }
    options.agents = read_hosts(*options.hosts_file);
    if (options.to.type == FileType::network && options.command == Command::copy &&
        options.agents.size() > 1 && !has_template(options.to, "host")) {
        throw bad_usage("every agent would write the same file: put {host} into the path");
    }
    std::set<std::string> seen;
    for (const std::string &agent : options.agents) {
        if (!seen.insert(host_value(agent)).second) {
            throw bad_usage(agent + " is listed twice in " + name_of_hosts(*options.hosts_file) +
                            ", or looks like another agent there in a file's name");
        }
    }
}

bool is_command(const std::string &word) {
    return word == "list" || word == "errors" || word == "abort" || word == "diff";
}

void parse_arguments(std::vector<std::string> arguments, Options &options) {
    if (arguments.empty() || !is_command(arguments[0])) {
        if (arguments.size() > 1 && is_command(arguments[1])) {
            throw bad_usage("the command comes before the agent: write config-copy " +
                            arguments[1] + ' ' + arguments[0]);
        }
        parse_copy(arguments, options);
        return;
    }
    if (options.is_dry_run || options.is_replacement || options.keeping != Keeping::no) {
        throw bad_usage("--dry-run, --replace, --save and --confirm are for copies only");
    }
    const std::string name = arguments[0];
    if (name == "diff") {
        options.command = Command::diff;
        arguments.erase(arguments.begin());
        parse_copy(arguments, options);
        return;
    }
    options.command = name == "list"     ? Command::list
                      : name == "errors" ? Command::errors
                                         : Command::abort;
    const std::size_t most = options.command == Command::list ? 2 : 3;
    const std::size_t least = options.command == Command::abort ? 3 : 2;
    if (arguments.size() < least || arguments.size() > most || options.hosts_file) {
        throw bad_usage("write config-copy " + name +
                        (name == "list"     ? " AGENT"
                         : name == "errors" ? " AGENT [INDEX]"
                                            : " AGENT INDEX"));
    }
    options.agents = {agent_of(arguments[1])};
    if (arguments.size() == 3) {
        options.index =
            static_cast<oid>(number_of("INDEX", arguments[2], 1, static_cast<long>(largest_index)));
    }
}

} // namespace

const char *const usage_text =
    R"(usage: config-copy [OPTIONS] AGENT FROM TO
       config-copy [OPTIONS] --hosts FILE [--jobs N] FROM TO
       config-copy [OPTIONS] diff AGENT A B
       config-copy [OPTIONS] list AGENT
       config-copy [OPTIONS] errors AGENT [INDEX]
       config-copy [OPTIONS] abort AGENT INDEX

Copies the configuration of a switch over SNMP. FROM and TO are running,
startup, fabric-startup (TO only), all-startup (TO only), or one of
  ./FILE                 a file of this machine; - is standard input or output
  tftp://HOST/PATH       ftp://USER@HOST/PATH
  sftp://USER@HOST/PATH  scp://USER@HOST/PATH
with percent-encoding; {host} and {date} in PATH and FILE are filled in.
diff compares running, startup and files of this machine.

options: those of snmpcmd(1), such as
  -v 3 -u USER -l authPriv -a SHA-256 -A PASSPHRASE -x AES -X PASSPHRASE,
whose defaults come from snmp.conf, and
  --hosts FILE           copy on each agent that FILE lists, one per line;
                         standard input for -
  --jobs N               on up to N agents at a time (default: 50)
  --password-file FILE   the file server's password is the first line of FILE,
                         of standard input for -; otherwise it is asked for
  --replace              FROM replaces the running configuration, instead of
                         being merged into it
  --save                 save the restored configuration to startup
  --confirm              the same if the agent still answers; otherwise the
                         switch goes back by itself (its setting confirm_limit)
  --local-address ADDR   the address at which the switch reaches this machine
  --wait-turn SECONDS    wait up to SECONDS for another copy to end
  --time-limit SECONDS   give up a copy that takes longer (default: 600)
  --dry-run              ask the agent, print what would be done, set nothing
  -q, --quiet            print errors only
  --verbose              print each SNMP message on standard error
  --json                 print JSON, one object per line
  -h, --help             print this
  --version              print the version

exit status: 0 done, 1 the copy failed (diff: they differ; 6 the copy failed), 2 bad usage, 3 refused by the agent,
  4 agent not reachable or name not found, 5 another copy is in progress
)";

Words split_words(int count, char **words, Options &options) {
    Words result;
    std::set<std::string_view> given;
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
        const auto *own =
            std::find_if(own_options.begin(), own_options.end(),
                         [&](const OwnOption &option) { return option.name == name; });
        if (own != own_options.end()) {
            std::string value;
            if (!own->takes_value) {
                if (equals != std::string_view::npos) {
                    throw bad_usage(std::string(name) + " takes no value");
                }
            } else if (!given.insert(name).second) {
                throw bad_usage(std::string(name) + " is given twice");
            } else if (equals != std::string_view::npos) {
                value = word.substr(equals + 1);
            } else if (i + 1 == count) {
                throw bad_usage(std::string(name) + " needs a value (config-copy --help)");
            } else {
                value = words[++i];
            }
            own->take(options, name, value);
            continue;
        }
        if (word.starts_with("--")) {
            result.long_options.emplace_back(word.substr(0, word.find_first_of("= \t")));
        }
        // The words themselves, not copies: the library blanks the passphrases in them, because
        // other users can see them.
        result.library.push_back(words[i]);
        if (!word.starts_with("--") &&
            takes_next_word(word, i + 1 < count ? words[i + 1] : nullptr)) {
            result.library.push_back(words[++i]);
        }
    }
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
        std::size_t least = 3; // words that differ by more are not alike
        std::string nearest;
        const auto consider = [&](const std::string &known) {
            if (const std::size_t far = distance(name, known); far < least) {
                least = far;
                nearest = known;
            }
        };
        for (const OwnOption &option : own_options) {
            if (option.name.starts_with("--")) {
                consider(std::string(option.name));
            }
        }
        for (const config_line *token : tokens) {
            consider("--" + std::string(token->config_token));
        }
        throw bad_usage(
            "there is no option " + name +
            (nearest.empty() ? " (config-copy --help)" : ": did you mean " + nearest + '?'));
    }
}

bool asks_for_json(int count, char **words) {
    char **const end = std::find(words + 1, words + count, std::string_view("--"));
    return std::find(words + 1, end, std::string_view("--json")) != end;
}

std::vector<std::string> read_hosts(const std::string &file) {
    const std::string where = name_of_hosts(file);
    std::ifstream opened;
    if (file != "-") {
        opened.open(file);
    }
    if (!opened) {
        throw bad_usage(where + " can't be read: " + std::strerror(errno));
    }
    return hosts_in(file == "-" ? std::cin : opened, where);
}

std::vector<std::string> hosts_in(std::istream &text, const std::string &where) {
    std::vector<std::string> hosts;
    const auto refused = [&](const std::string &line) {
        return bad_usage("in " + where + " \"" + line +
                         "\" is more than one agent: write one per line");
    };
    constexpr std::string_view blanks = " \t\r";
    for (std::string line; std::getline(text, line);) {
        line.erase(std::min(line.find('#'), line.size()));
        line.erase(line.find_last_not_of(blanks) + 1);
        line.erase(0, std::min(line.find_first_not_of(blanks), line.size()));
        if (line.find_first_of(blanks) != std::string::npos) {
            throw refused(line);
        }
        if (!line.empty()) {
            hosts.push_back(line);
        }
    }
    if (hosts.empty()) {
        throw bad_usage(where + " lists no agent: write one per line");
    }
    return hosts;
}

std::optional<Options> parse_options(int count, char **words) {
    Options options;
    Words split = split_words(count, words, options);
    if (options.command == Command::help || options.command == Command::version) {
        return options;
    }
    const bool is_for_library =
        std::any_of(split.library.begin() + 1, split.library.end(),
                    [](std::string_view word) { return word == "-V" || word == "-H"; });
    // Each session gets its agent later, but the library wants one here.
    std::string agent = "-";
    split.library.push_back(agent.data());
    split.library.push_back(nullptr);
    ::setenv("MIBS", "", 1); // only numbers are needed
    if (!is_for_library) {   // -V and -H answer through the log
        ::netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    }
    const int result =
        ::netsnmp_parse_args(static_cast<int>(split.library.size()) - 1, split.library.data(),
                             &options.session, nullptr, nullptr, NETSNMP_PARSE_ARGS_NOLOGGING);
    options.community.reset(options.session.community, &std::free);
    if (result == NETSNMP_PARSE_ARGS_SUCCESS_EXIT) {
        return std::nullopt;
    }
    if (result < 0) {
        throw bad_usage("the SNMP options are not as in snmpcmd(1) (config-copy --help)");
    }
    options.session.peername = nullptr;
    check_long_options(split.long_options);
    parse_arguments(split.arguments, options);
    if (options.session.version == SNMP_VERSION_3 &&
        options.session.securityModel != SNMP_SEC_MODEL_TSM &&
        security_name(options.session).empty()) {
        throw bad_usage("no SNMPv3 user: give -u USER, or defSecurityName in snmp.conf");
    }
    if (options.hosts_file && options.session.version == SNMP_VERSION_3) {
        keep_keys_of_settings(options.session);
    }
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
