#include "manager/options.h"

#include "manager/failure.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <set>
#include <string_view>

namespace config_copy {
namespace {

constexpr std::string_view letters_with_value = "YmMOIPDvrtcZeEnulxXaApT3LsS"; // of snmpcmd(1)
constexpr long longest_wait = 7L * 24 * 3600;
constexpr long most_jobs = 1000;

long number_of(std::string_view what, std::string_view text, long least, long most) {
    long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < least || value > most) {
        throw bad_usage(std::string(what) + " wants a number from " + std::to_string(least) + " to " + std::to_string(most) + ", not \"" +
                        std::string(text) + '"');
    }
    return value;
}

// Takes one of our own options. `value` returns what follows it. False when the option is none of ours.
bool take_option(std::string_view name, const std::function<std::string()> &value, Options &options) {
    if (name == "--quiet") {
        options.is_quiet = true;
    } else if (name == "--json") {
        options.is_json = true;
    } else if (name == "--help" || name == "-h") {
        options.command = Command::help;
    } else if (name == "--version") {
        options.command = Command::version;
    } else if (name == "--wait-turn") {
        options.wait_turn = std::chrono::seconds(number_of(name, value(), 0, longest_wait));
    } else if (name == "--time-limit") {
        options.time_limit = std::chrono::seconds(number_of(name, value(), 1, longest_wait));
    } else if (name == "--jobs") {
        options.jobs = static_cast<int>(number_of(name, value(), 1, most_jobs));
    } else if (name == "--hosts") {
        options.hosts_file = value();
    } else if (name == "--password-file") {
        options.password_file = value();
    } else if (name == "--password") {
        throw bad_usage("no password belongs into an argument, where others see it: use --password-file, standard input or the prompt");
    } else {
        return false;
    }
    return true;
}

// Whether the last option in a word such as -dv takes the next word as its value.
bool wants_next_word(std::string_view word) {
    if (word == "-Lf" || word == "-Ls") {
        return true;
    }
    const std::size_t at = word.find_first_of(letters_with_value, 1);
    return at != std::string_view::npos && at + 1 == word.size();
}

void parse_copy(const std::vector<std::string> &arguments, Options &options) {
    const std::size_t expected = options.hosts_file ? 2 : 3;
    if (arguments.size() != expected) {
        throw bad_usage(options.hosts_file ? "with --hosts, name FROM and TO, and no AGENT"
                                           : "name AGENT, FROM and TO (config-copy --help)");
    }
    options.from = parse_side(arguments[expected - 2]);
    options.to = parse_side(arguments[expected - 1]);
    check_pair(options.from, options.to);
    if (!options.hosts_file) {
        options.agents = {arguments[0]};
        return;
    }
    options.agents = read_hosts(*options.hosts_file);
    if (options.to.type == FileType::network && options.agents.size() > 1 && !has_template(options.to.url, "host")) {
        throw bad_usage("every agent would write the same file: put {host} into the path");
    }
    std::set<std::string> seen;
    for (const std::string &agent : options.agents) {
        if (!seen.insert(host_value(agent)).second) {
            throw bad_usage(agent + " is listed twice in " + *options.hosts_file + ", or looks like another agent there in a file's name");
        }
    }
}

void parse_arguments(std::vector<std::string> arguments, Options &options) {
    const bool has_command = !arguments.empty() && (arguments[0] == "list" || arguments[0] == "errors" || arguments[0] == "abort");
    if (!has_command) {
        parse_copy(arguments, options);
        return;
    }
    const std::string name = arguments[0];
    options.command = name == "list" ? Command::list : name == "errors" ? Command::errors : Command::abort;
    const std::size_t most = options.command == Command::list ? 2 : 3;
    const std::size_t least = options.command == Command::abort ? 3 : 2;
    if (arguments.size() < least || arguments.size() > most || options.hosts_file) {
        throw bad_usage("write config-copy " + name + (name == "list" ? " AGENT" : name == "errors" ? " AGENT [INDEX]" : " AGENT INDEX"));
    }
    options.agents = {arguments[1]};
    if (arguments.size() == 3) {
        options.index = static_cast<oid>(number_of("INDEX", arguments[2], 1, static_cast<long>(largest_index)));
    }
}

std::string default_text(int which) {
    const char *text = ::netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, which);
    return text == nullptr ? "" : text;
}

} // namespace

const char *const usage_text =
    R"(usage: config-copy [OPTIONS] AGENT FROM TO
       config-copy [OPTIONS] --hosts FILE [--jobs N] FROM TO
       config-copy [OPTIONS] list AGENT
       config-copy [OPTIONS] errors AGENT [INDEX]
       config-copy [OPTIONS] abort AGENT INDEX

Copies the configuration of a switch over SNMP. FROM and TO are running, startup, fabric-startup (TO only), all-startup (TO only), or one of
  tftp://HOST/PATH  ftp://USER@HOST/PATH  sftp://USER@HOST/PATH  scp://USER@HOST/PATH
with percent-encoding; {host} and {date} in PATH are filled in.

options: those of snmpcmd(1), such as -v 3 -l authPriv -u USER -A PASSPHRASE -X PASSPHRASE, whose defaults come from snmp.conf, and
  --hosts FILE           copy on each agent that FILE lists, one a line
  --jobs N               on so many agents at a time (default: 50)
  --password-file FILE   the file server's password is the first line of FILE, of standard input for -; otherwise it is asked for
  --wait-turn SECONDS    wait so long for another copy on the switch to end
  --time-limit SECONDS   give a copy up after so long (default: 600)
  --quiet                print nothing but what went wrong
  --json                 print one JSON object a line
  --help, --version

exit status: 0 done, 1 the copy failed, 2 bad usage, 3 refused by the agent, 4 agent not reachable, 5 another copy is in progress
)";

Words split_words(int count, char **words, Options &options) {
    Words result;
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
        const auto value = [&]() -> std::string {
            if (equals != std::string_view::npos) {
                return std::string(word.substr(equals + 1));
            }
            if (i + 1 == count) {
                throw bad_usage(std::string(name) + " wants a value (config-copy --help)");
            }
            return words[++i];
        };
        if (take_option(name, value, options)) {
            continue;
        }
        // The words themselves, not copies: the library blanks the passphrases in them, which others see.
        result.library.push_back(words[i]);
        if (!word.starts_with("--") && wants_next_word(word) && i + 1 < count) {
            result.library.push_back(words[++i]);
        }
    }
    return result;
}

std::vector<std::string> read_hosts(const std::string &file) {
    std::ifstream stream(file);
    if (!stream) {
        throw bad_usage("the hosts file " + file + " can't be read: " + std::strerror(errno));
    }
    std::vector<std::string> hosts;
    const auto refused = [&](const std::string &line) {
        return bad_usage("in the hosts file " + file + " \"" + line + "\" is not one agent: write one a line");
    };
    constexpr std::string_view blanks = " \t\r";
    for (std::string line; std::getline(stream, line);) {
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
        throw bad_usage("the hosts file " + file + " lists no agent: write one a line");
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
        std::any_of(split.library.begin() + 1, split.library.end(), [](std::string_view word) { return word == "-V" || word == "-H"; });
    if (!is_for_library) {
        parse_arguments(split.arguments, options);
    }
    // The agent is told to each session; the library only wants to see one.
    std::string agent = options.agents.empty() ? "-" : options.agents.front();
    split.library.push_back(agent.data());
    split.library.push_back(nullptr);
    ::setenv("MIBS", "", 1); // numbers are all that is needed
    if (!is_for_library) {   // which logs what it is asked for
        ::netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    }
    const int result = ::netsnmp_parse_args(static_cast<int>(split.library.size()) - 1, split.library.data(), &options.session, nullptr,
                                            nullptr, NETSNMP_PARSE_ARGS_NOLOGGING);
    options.community.reset(options.session.community, &std::free);
    if (result == NETSNMP_PARSE_ARGS_SUCCESS_EXIT) {
        return std::nullopt;
    }
    if (result < 0) {
        throw bad_usage("the SNMP options are not as in snmpcmd(1) (config-copy --help)");
    }
    options.session.peername = nullptr;
    if (options.session.version == SNMP_VERSION_3 && options.session.securityModel != SNMP_SEC_MODEL_TSM &&
        options.session.securityNameLen == 0 && default_text(NETSNMP_DS_LIB_SECNAME).empty()) {
        throw bad_usage("no SNMPv3 user: give -u USER, or defSecurityName in snmp.conf");
    }
    return options;
}

bool is_readable_on_the_way(const netsnmp_session &session, const std::string &agent) {
    const auto is_over = [&](std::string_view transport) { return agent.starts_with(transport); };
    if (is_over("dtls") || is_over("tls") || is_over("ssh") || is_over("unix")) {
        return false;
    }
    const int level =
        session.securityLevel > 0 ? session.securityLevel : ::netsnmp_ds_get_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_SECLEVEL);
    return session.version != SNMP_VERSION_3 || level != SNMP_SEC_LEVEL_AUTHPRIV;
}

} // namespace config_copy
