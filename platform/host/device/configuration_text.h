// The configuration of the embedded device and its text form, which docs/configuration-text.md
// describes for operators.
//
// One statement a line; words are separated by blanks (space, tab); keywords are in lower case and
// can't be abbreviated. Sub-statements are indented below their `interface` or `vlan` line. Blank
// lines and lines whose first visible character is '!' or '#' are comments; they do not close a
// block.
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
//   ntp server ADDRESS                 IPv4, IPv6 or a host name (at most 253 octets);
//                                      any number of servers
//   snmp-server location|contact TEXT  at most 255 octets
//   end                                only comments may follow
//
// `no` before a statement removes what the statement sets; removing what does not exist is not an
// error. For a statement that sets one value, the value may be omitted after `no`.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ulmo {

// octets of a whole text, comments included
inline constexpr std::size_t configuration_text_limit = std::size_t{128} * 1024 * 1024;
// octets of the canonical form that a device stores
inline constexpr std::size_t configuration_canonical_limit = std::size_t{8} * 1024 * 1024;
// octets of a line, line end not included
inline constexpr std::size_t configuration_line_limit = 4096;

// Why a configuration text was refused. what() is one line, with the line number if there is one.
// Any other exception means that the text was valid and something else failed.
class ConfigurationError : public std::runtime_error {
  public:
    enum class Kind {
        bad_file, // the file does not exist, can't be read, is too large or is not text
        bad_line, // a line is not a valid statement
    };
    ConfigurationError(Kind kind, const std::string &reason)
        : std::runtime_error(reason), kind_(kind) {}
    [[nodiscard]] Kind kind() const { return kind_; }

  private:
    Kind kind_;
};

// Sorts fc1/2 before fc1/10, strverscmp(3).
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

// Executes the statements of `text` on `configuration` in order. The text is ASCII or UTF-8 with
// lines that end in LF or CR LF, without control characters except tab. Throws ConfigurationError
// and leaves `configuration` partly changed: pass a copy.
void merge(Configuration &configuration, std::string_view text);

// The canonical form: each value once, in an order that depends only on the values. Merging it into
// an empty configuration, or into `configuration` itself, gives the same configuration.
std::string to_text(const Configuration &configuration);

} // namespace ulmo
