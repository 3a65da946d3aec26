// The options of snmpcmd(1) that say how to talk to an agent. They come from the command line, from
// a profile, and from a group or an agent of a hosts file; a later one of these counts.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

inline constexpr std::string_view session_letters = "vculaAxXeEntrZT";

class SessionOptions;

// What the library makes of the options and of snmp.conf: everything except the agent's address.
// The library must be initialised. Throws a Failure of usage.
std::shared_ptr<netsnmp_session> settings_of(const SessionOptions &options);

class SessionOptions {
  public:
    SessionOptions() = default;

    // Words such as -v 2c -clab. Throws a Failure of usage, which shows no value because it may be
    // a secret.
    explicit SessionOptions(const std::vector<std::string> &words);

    // Replaces an earlier value. Throws like the constructor.
    void set(char letter, const std::string &value);

    // These, and those of `over`, which count where both have one.
    [[nodiscard]] SessionOptions with(const SessionOptions &over) const;

    // Whether there is a passphrase or a community.
    [[nodiscard]] bool has_secret() const;

    // In the order of their letters.
    [[nodiscard]] std::vector<std::string> words() const;

    bool operator==(const SessionOptions &other) const { return values_ == other.values_; }
    bool operator<(const SessionOptions &other) const { return values_ < other.values_; }

  private:
    friend std::shared_ptr<netsnmp_session> settings_of(const SessionOptions &options);

    // Null if the option is not given.
    [[nodiscard]] const std::string *value(const char *option) const;

    // By the option, which for -T includes the name of the transport's setting.
    std::map<std::string, std::string> values_;
};

bool is_secret(char letter);

} // namespace config_copy
