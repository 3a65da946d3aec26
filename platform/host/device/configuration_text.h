// The configuration of the embedded device and its text form, which docs/configuration-text.md
// describes for operators.
//
// One statement a line; words are separated by blanks (space, tab); keywords are written in full
// and in lower case. Sub-statements are indented below the `interface` or `vlan` line that they
// belong to. Blank lines and lines whose first visible character is '!' or '#' are comments and
// close no block.
//
//   hostname NAME                      at most 63 octets, labels as in RFC 1123, 2.1
//   banner TEXT                        at most 2048 octets
//   username NAME role ROLE            names of at most 32 letters, digits, '_', '-', '.'
//   vlan N                             1..4094
//     name TEXT                        at most 32 octets
//   interface NAME                     at most 64 letters, digits, '/', '.', ':', '_', '-'
//     description TEXT                 at most 254 octets
//     ip address A.B.C.D/N             a unicast address, N in 0..32; one an interface
//     shutdown
//   ntp server ADDRESS                 IPv4, IPv6 or a host name (at most 253 octets); any number
//   of servers snmp-server location|contact TEXT  at most 255 octets end only comments may follow
//
// `no` before a statement takes back what the statement sets; what is not there is taken back
// without complaint. Where a statement sets one value, the value may be left out after `no`.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ulmo {

// octets of a whole text, with its comments
inline constexpr std::size_t configuration_text_limit = std::size_t{128} * 1024 * 1024;
// octets of what a device keeps of it
inline constexpr std::size_t configuration_canonical_limit = std::size_t{8} * 1024 * 1024;
// octets of a line without its end
inline constexpr std::size_t configuration_line_limit = 4096;

// Why a configuration text was refused; what() says it in one line, with the line number when there
// is one. Every other exception means that the configuration was good and something else failed.
class ConfigurationError : public std::runtime_error {
  public:
    enum class Kind {
        bad_file, // no such file, unreadable, too large, or no text
        bad_line, // a line is no valid statement
    };
    ConfigurationError(Kind kind, const std::string &reason)
        : std::runtime_error(reason), kind_(kind) {}
    [[nodiscard]] Kind kind() const { return kind_; }

  private:
    Kind kind_;
};

// Orders fc1/2 before fc1/10, strverscmp(3).
struct NaturalOrder {
    bool operator()(const std::string &left, const std::string &right) const;
};

// An empty text means that the value is not set.
struct Configuration {
    struct Vlan {
        std::string name;
    };
    struct Interface {
        std::string description;
        std::string address;
        bool shutdown = false;
    };

    std::string hostname;
    std::string banner;
    std::map<std::string, std::string> user_roles;
    std::map<unsigned, Vlan> vlans;
    std::map<std::string, Interface, NaturalOrder> interfaces;
    std::set<std::string> ntp_servers;
    std::string snmp_location;
    std::string snmp_contact;
};

// Executes the statements of `text` on `configuration` in their order: ASCII or UTF-8, lines that
// end with LF or CR LF, no control characters but tab. Throws ConfigurationError, and the
// configuration is then partly changed: work on a copy.
void merge(Configuration &configuration, std::string_view text);

// The canonical form: each value once, in an order that depends on the values alone. Merging it
// into an empty configuration, or into `configuration` itself, gives the same configuration.
std::string to_text(const Configuration &configuration);

} // namespace ulmo
