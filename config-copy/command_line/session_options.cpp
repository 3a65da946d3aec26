#include "config-copy/command_line/session_options.h"

#include "base/number.h"
#include "config-copy/failure.h"
#include "copy_client/session.h"
#include "copy_client/user.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace config_copy {
namespace {

bool is_one_of(const std::string &value, std::initializer_list<const char *> words) {
    return std::any_of(words.begin(), words.end(),
                       [&](const char *word) { return ::strcasecmp(value.c_str(), word) == 0; });
}

bool is_number(std::string_view text, long least) {
    constexpr long most = 0x7FFFFFFF;
    return ulmo::parsed_number(text, least, most).has_value();
}

bool is_time(const std::string &value) {
    constexpr double longest = 3600;
    char *end = nullptr;
    const double seconds = std::strtod(value.c_str(), &end);
    return !value.empty() && *end == '\0' && seconds > 0 && seconds <= longest;
}

// RFC 3411, section 5: 5 to 32 octets.
bool is_engine_id(std::string_view value) {
    if (value.starts_with("0x")) {
        value.remove_prefix(2);
    }
    return value.size() >= 10 && value.size() <= 64 && value.size() % 2 == 0 &&
           std::all_of(value.begin(), value.end(),
                       [](unsigned char c) { return std::isxdigit(c) != 0; });
}

bool is_boots_and_time(std::string_view value) {
    const std::size_t comma = value.find(',');
    return comma != std::string_view::npos && is_number(value.substr(0, comma), 0) &&
           is_number(value.substr(comma + 1), 0);
}

// What the option needs, if that is not what it has. For some of these values the library would
// give a vague error, or silently do something else.
const char *missing(char letter, const std::string &value) {
    constexpr std::size_t shortest_passphrase = 8; // RFC 3414, section 11.2
    switch (letter) {
    case 'v':
        return is_one_of(value, {"1", "2c", "3"}) ? nullptr : "the version of SNMP: 1, 2c or 3";
    case 'l':
        return is_one_of(value, {"noAuthNoPriv", "nanp", "authNoPriv", "anp", "authPriv", "ap"})
                   ? nullptr
                   : "the security level: noAuthNoPriv, authNoPriv or authPriv";
    case 'a':
        return ::usm_lookup_auth_type(value.c_str()) < 0
                   ? "an authentication protocol, such as SHA-256"
                   : nullptr;
    case 'x':
        return ::usm_lookup_priv_type(value.c_str()) < 0 ? "a privacy protocol, such as AES"
                                                         : nullptr;
    case 'A':
    case 'X':
        return value.size() < shortest_passphrase ? "a passphrase of at least 8 characters"
                                                  : nullptr;
    case 'e':
    case 'E':
        return is_engine_id(value) ? nullptr : "an engine id: 10 to 64 hexadecimal digits";
    case 't':
        return is_time(value) ? nullptr : "a time in seconds, at most 3600";
    case 'r':
        return is_number(value, 0) ? nullptr : "a number of repetitions";
    case 'Z':
        return is_boots_and_time(value) ? nullptr
                                        : "the engine's boots and time, separated by a comma";
    case 'T':
        return value.find('=') == std::string::npos ? "a transport's setting: NAME=VALUE" : nullptr;
    case 'c':
    case 'u':
        return value.empty() ? "a value that is not empty" : nullptr;
    default:
        return nullptr;
    }
}

// The session points into the words.
struct Settings {
    std::vector<std::string> words;
    netsnmp_session session{};

    Settings() = default;
    Settings(const Settings &) = delete;
    Settings &operator=(const Settings &) = delete;
    ~Settings() { // the library leaves these to us
        std::free(session.community);
        std::free(session.securityEngineID);
        std::free(session.contextEngineID);
    }
};

} // namespace

bool is_secret(char letter) {
    return letter == 'c' || letter == 'A' || letter == 'X';
}

SessionOptions::SessionOptions(const std::vector<std::string> &words) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string &word = words[i];
        if (word.size() < 2 || word[0] != '-') {
            throw bad_usage("a word is neither an option nor the value of one: quote a value with "
                            "blanks");
        }
        if (word[1] == '-' || session_letters.find(word[1]) == std::string_view::npos) {
            std::string known;
            for (const char letter : session_letters) {
                known += {' ', '-', letter};
            }
            throw bad_usage((word[1] == '-' ? "a long option" : word.substr(0, 2)) +
                            " can't stand here: only" + known +
                            " of snmpcmd(1) can, each apart from the others");
        }
        if (word.size() > 2) {
            set(word[1], word.substr(2));
        } else if (i + 1 < words.size()) {
            set(word[1], words[++i]);
        } else {
            throw bad_usage(word + " needs a value");
        }
    }
}

void SessionOptions::set(char letter, const std::string &value) {
    const std::string option{'-', letter};
    if (const char *what = missing(letter, value)) {
        throw bad_usage(option + " needs " + what);
    }
    values_[letter == 'T' ? option + value.substr(0, value.find('=')) : option] = value;
}

SessionOptions SessionOptions::with(const SessionOptions &over) const {
    SessionOptions both = over;
    both.values_.insert(values_.begin(), values_.end());
    return both;
}

bool SessionOptions::has_secret() const {
    return std::any_of(values_.begin(), values_.end(),
                       [](const auto &option) { return is_secret(option.first[1]); });
}

std::vector<std::string> SessionOptions::words() const {
    std::vector<std::string> words;
    for (const auto &[option, value] : values_) {
        words.insert(words.end(), {option.substr(0, 2), value});
    }
    return words;
}

const std::string *SessionOptions::value(const char *option) const {
    const auto found = values_.find(option);
    return found == values_.end() ? nullptr : &found->second;
}

std::shared_ptr<netsnmp_session> settings_of(const SessionOptions &options) {
    const auto settings = std::make_shared<Settings>();
    auto &words = settings->words;
    words = {"config-copy"};
    for (const auto &[option, value] : options.values_) {
        // Agents share passphrases even where other options differ: their keys are made below.
        if (option != "-A" && option != "-X") {
            words.insert(words.end(), {option.substr(0, 2), value});
        }
    }
    const bool has_community =
        options.value("-c") != nullptr ||
        ::netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_COMMUNITY) != nullptr;
    if (!has_community) { // the library refuses even a session that needs none
        words.insert(words.end(), {"-c", "-"});
    }
    words.emplace_back("-"); // each session gets its agent later, but the library wants one here
    std::vector<char *> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string &word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    netsnmp_session &session = settings->session;
    if (::netsnmp_parse_args(static_cast<int>(words.size()), pointers.data(), &session, nullptr,
                             nullptr,
                             NETSNMP_PARSE_ARGS_NOLOGGING | NETSNMP_PARSE_ARGS_NOZERO) < 0) {
        throw bad_usage("the SNMP options are not as in snmpcmd(1) (config-copy --help)");
    }
    session.peername = nullptr;
    if (session.version != SNMP_VERSION_3 && !has_community) {
        throw bad_usage("no community: give -c COMMUNITY, or defCommunity in snmp.conf");
    }
    if (session.version == SNMP_VERSION_3 && session.securityModel != SNMP_SEC_MODEL_TSM &&
        copy_client::security_name(session).empty()) {
        throw bad_usage("no SNMPv3 user: give -u USER, or defSecurityName in snmp.conf");
    }
    const std::string *const auth = options.value("-A");
    const std::string *const priv = options.value("-X");
    if (auth != nullptr || priv != nullptr) {
        copy_client::set_keys(session, auth, priv);
    }
    return {settings, &session};
}

} // namespace config_copy
