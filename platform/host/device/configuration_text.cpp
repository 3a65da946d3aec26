#include "platform/host/device/configuration_text.h"

#include "base/number.h"
#include "base/text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <utility>

namespace ulmo {
namespace {

constexpr std::size_t hostname_limit = 63;
constexpr std::size_t banner_limit = 2048;
constexpr std::size_t account_limit = 32;
constexpr std::size_t vlan_name_limit = 32;
constexpr std::size_t interface_name_limit = 64;
constexpr std::size_t description_limit = 254;
constexpr std::size_t server_name_limit = 253; // RFC 1035, 2.3.4
constexpr std::size_t label_limit = 63;
constexpr std::size_t snmp_text_limit = 255; // sysLocation and sysContact, RFC 3418
constexpr unsigned vlan_first = 1;
constexpr unsigned vlan_last = 4094;

constexpr std::string_view blanks = " \t";

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool consists_of_names(std::string_view text, std::string_view punctuation) {
    return std::all_of(text.begin(), text.end(), [&](char c) {
        return is_letter(c) || is_digit(c) || punctuation.find(c) != punctuation.npos;
    });
}

// Throws unless the line, without its end, is text.
void check_text(std::string_view line, std::size_t number) {
    for (std::size_t i = 0; i < line.size();) {
        const auto octet = static_cast<unsigned char>(line[i]);
        const std::size_t length = octet == '\t' ? 1 : printable_length(line.substr(i));
        if (length == 0) {
            std::array<char, 64> reason{};
            std::snprintf(reason.data(), reason.size(), "line %zu: not a text (octet 0x%02x)",
                          number, octet);
            throw ConfigurationError(ConfigurationError::Kind::bad_file, reason.data());
        }
        i += length;
    }
}

// Removes the next line from the front of `text` and returns it without its end.
std::string_view next_line(std::string_view &text) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (end != std::string_view::npos && !line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

// The unread rest of a line.
class Words {
  public:
    explicit Words(std::string_view line)
        : rest_(line.substr(0, line.find_last_not_of(blanks) + 1)) {
        skip_blanks();
    }
    [[nodiscard]] bool done() const { return rest_.empty(); }
    std::string_view next() {
        const std::string_view word = rest_.substr(0, rest_.find_first_of(blanks));
        rest_.remove_prefix(word.size());
        skip_blanks();
        return word;
    }
    std::string_view remainder() { return std::exchange(rest_, std::string_view{}); }

  private:
    void skip_blanks() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(blanks), rest_.size()));
    }
    std::string_view rest_;
};

// A word of the file as messages show it.
std::string in_quotes(std::string_view word) {
    constexpr std::size_t shown = 40;
    std::size_t length = std::min(word.size(), shown);
    while (length < word.size() && length > 0 &&
           (static_cast<unsigned char>(word[length]) & 0xC0U) == 0x80U) {
        --length; // never split a character
    }
    return "'" + std::string(word.substr(0, length)) + (length < word.size() ? "...'" : "'");
}

class Parser {
  public:
    explicit Parser(Configuration &configuration) : configuration_(configuration) {}

    void execute(std::string_view line, std::size_t number) {
        number_ = number;
        if (line.size() > configuration_line_limit) {
            refuse("longer than " + std::to_string(configuration_line_limit) + " octets");
        }
        Words words(line);
        if (words.done()) {
            return;
        }
        const bool indented = blanks.find(line.front()) != std::string_view::npos;
        std::string_view keyword = words.next();
        if (keyword.front() == '!' || keyword.front() == '#') {
            return;
        }
        if (ended_) {
            refuse("statement after 'end'");
        }
        const bool no = keyword == "no";
        if (no) {
            keyword = words.next();
        }
        if (!indented) {
            interface_ = nullptr;
            vlan_ = nullptr;
            top_statement(keyword, no, words);
        } else if (interface_ != nullptr) {
            interface_statement(keyword, no, words);
        } else if (vlan_ != nullptr) {
            vlan_statement(keyword, no, words);
        } else {
            refuse("indented, but no 'interface' or 'vlan' block is open");
        }
        if (!words.done()) {
            refuse("unexpected " + in_quotes(words.next()));
        }
    }

  private:
    [[noreturn]] void refuse(const std::string &reason) const {
        throw ConfigurationError(ConfigurationError::Kind::bad_line,
                                 "line " + std::to_string(number_) + ": " + reason);
    }

    [[noreturn]] void refuse_keyword(std::string_view keyword, const char *where) const {
        refuse(keyword.empty() ? "'no' needs a statement"
                               : "unknown statement " + in_quotes(keyword) + where);
    }

    void top_statement(std::string_view keyword, bool no, Words &words) {
        if (keyword == "hostname") {
            set(configuration_.hostname, no, words,
                [&] { return host_name(words, hostname_limit); });
        } else if (keyword == "banner") {
            set(configuration_.banner, no, words, [&] { return text(words, banner_limit); });
        } else if (keyword == "username") {
            username(no, words);
        } else if (keyword == "vlan") {
            vlan(no, words);
        } else if (keyword == "interface") {
            interface(no, words);
        } else if (keyword == "ntp") {
            expect(words, "server");
            ntp_server(no, words);
        } else if (keyword == "snmp-server") {
            snmp_server(no, words);
        } else if (keyword == "end" && !no) {
            ended_ = true;
        } else {
            refuse_keyword(keyword, "");
        }
    }

    void interface_statement(std::string_view keyword, bool no, Words &words) {
        if (keyword == "description") {
            set(interface_->description, no, words, [&] { return text(words, description_limit); });
        } else if (keyword == "ip") {
            expect(words, "address");
            set(interface_->address, no, words, [&] { return interface_address(words); });
        } else if (keyword == "shutdown") {
            interface_->shutdown = !no;
        } else {
            refuse_keyword(keyword, " in an interface block");
        }
    }

    void vlan_statement(std::string_view keyword, bool no, Words &words) {
        if (keyword == "name") {
            set(vlan_->name, no, words, [&] { return text(words, vlan_name_limit); });
        } else {
            refuse_keyword(keyword, " in a vlan block");
        }
    }

    // A statement that sets one value: after `no` the value is optional, and checked if present.
    template <typename Read> void set(std::string &field, bool no, const Words &words, Read read) {
        if (no && words.done()) {
            field.clear();
            return;
        }
        field = read();
        if (no) {
            field.clear();
        }
    }

    void username(bool no, Words &words) {
        const std::string name = account(words, "user name");
        if (no && words.done()) {
            configuration_.user_roles.erase(name);
            return;
        }
        expect(words, "role");
        std::string role = account(words, "role");
        if (no) {
            configuration_.user_roles.erase(name);
        } else {
            configuration_.user_roles.insert_or_assign(name, std::move(role));
        }
    }

    void vlan(bool no, Words &words) {
        const std::string_view word = words.next();
        const unsigned id = number(word, vlan_last);
        if (id < vlan_first || id > vlan_last) {
            refuse("vlan number expected, 1 to 4094, not " + in_quotes(word));
        }
        if (no) {
            configuration_.vlans.erase(id);
        } else {
            vlan_ = &configuration_.vlans[id];
        }
    }

    void interface(bool no, Words &words) {
        const std::string name(words.next());
        if (name.empty() || name.size() > interface_name_limit || !is_letter(name.front()) ||
            !consists_of_names(name, "/.:_-")) {
            refuse("interface name expected, not " + in_quotes(name));
        }
        if (no) {
            configuration_.interfaces.erase(name);
        } else {
            interface_ = &configuration_.interfaces[name];
        }
    }

    void ntp_server(bool no, Words &words) {
        std::string address = server_address(words);
        if (no) {
            configuration_.ntp_servers.erase(address);
        } else {
            configuration_.ntp_servers.insert(std::move(address));
        }
    }

    void snmp_server(bool no, Words &words) {
        const std::string_view what = words.next();
        if (what != "location" && what != "contact") {
            refuse("'location' or 'contact' expected, not " + in_quotes(what));
        }
        set(what == "location" ? configuration_.snmp_location : configuration_.snmp_contact, no,
            words, [&] { return text(words, snmp_text_limit); });
    }

    void expect(Words &words, std::string_view keyword) const {
        const std::string_view word = words.next();
        if (word != keyword) {
            refuse(in_quotes(keyword) + " expected, not " + in_quotes(word));
        }
    }

    std::string text(Words &words, std::size_t limit) const {
        std::string value(words.remainder());
        if (value.empty()) {
            refuse("text expected");
        }
        if (value.size() > limit) {
            refuse("text longer than " + std::to_string(limit) + " octets");
        }
        return value;
    }

    std::string account(Words &words, const char *what) const {
        std::string name(words.next());
        if (name.empty() || name.size() > account_limit ||
            !(is_letter(name.front()) || name.front() == '_') || !consists_of_names(name, "_-.")) {
            refuse(what + (" expected, not " + in_quotes(name)));
        }
        return name;
    }

    std::string host_name(Words &words, std::size_t limit) const {
        std::string name(words.next());
        if (!is_host_name(name, limit)) {
            refuse("host name expected, not " + in_quotes(name));
        }
        return name;
    }

    std::string server_address(Words &words) const {
        std::string address(words.next());
        std::array<unsigned char, sizeof(in6_addr)> octets{};
        std::array<char, INET6_ADDRSTRLEN> canonical{};
        if (inet_pton(AF_INET6, address.c_str(), octets.data()) == 1) {
            return inet_ntop(AF_INET6, octets.data(), canonical.data(), canonical.size());
        }
        // A last label of digits only means a dotted address, RFC 1123, 2.1.
        const std::string_view last = std::string_view(address).substr(address.rfind('.') + 1);
        const bool dotted = std::all_of(last.begin(), last.end(), is_digit);
        if (dotted ? inet_pton(AF_INET, address.c_str(), octets.data()) != 1
                   : !is_host_name(address, server_name_limit)) {
            refuse("server address expected, not " + in_quotes(address));
        }
        return address;
    }

    std::string interface_address(Words &words) const {
        constexpr unsigned prefix_limit = 32;
        const std::string_view word = words.next();
        const auto slash = word.find('/');
        const std::string host(word.substr(0, slash));
        in_addr address{};
        const bool good =
            slash != std::string_view::npos && inet_pton(AF_INET, host.c_str(), &address) == 1;
        const std::uint32_t first_octet = ntohl(address.s_addr) >> 24;
        const unsigned prefix =
            good ? number(word.substr(slash + 1), prefix_limit) : prefix_limit + 1;
        if (prefix > prefix_limit || first_octet == 0 || first_octet >= 224) {
            refuse("unicast address with prefix length expected, as in 192.0.2.1/24, not " +
                   in_quotes(word));
        }
        return host + "/" + std::to_string(prefix);
    }

    // A decimal number; limit + 1 if `word` is not a number or exceeds the limit.
    static unsigned number(std::string_view word, unsigned limit) {
        return parsed_number(word, 0U, limit).value_or(limit + 1);
    }

    static bool is_host_name(std::string_view name, std::size_t limit) {
        if (name.empty() || name.size() > limit) {
            return false;
        }
        for (;;) {
            const auto dot = name.find('.');
            const std::string_view label = name.substr(0, dot);
            if (label.empty() || label.size() > label_limit || label.front() == '-' ||
                label.back() == '-' || !consists_of_names(label, "-")) {
                return false;
            }
            if (dot == std::string_view::npos) {
                return true;
            }
            name.remove_prefix(dot + 1);
        }
    }

    Configuration &configuration_;
    Configuration::Interface *interface_ = nullptr; // the open block, at most one of the two
    Configuration::Vlan *vlan_ = nullptr;
    bool ended_ = false;
    std::size_t number_ = 0; // of the line being executed
};

void append(std::string &text, std::initializer_list<std::string_view> parts) {
    for (const std::string_view part : parts) {
        text += part;
    }
    text += '\n';
}

void append_value(std::string &text, std::string_view statement, std::string_view value) {
    if (!value.empty()) {
        append(text, {statement, value});
    }
}

} // namespace

bool NaturalOrder::operator()(const std::string &left, const std::string &right) const {
    return strverscmp(left.c_str(), right.c_str()) < 0;
}

void merge(Configuration &configuration, std::string_view text) {
    if (text.size() > configuration_text_limit) {
        throw ConfigurationError(ConfigurationError::Kind::bad_file,
                                 "larger than " + std::to_string(configuration_text_limit) +
                                     " octets");
    }
    constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    if (text.starts_with(byte_order_mark)) {
        text.remove_prefix(byte_order_mark.size());
    }
    // A file that is not text is reported as such, whatever its first lines look like.
    std::size_t number = 0;
    for (std::string_view rest = text; !rest.empty();) {
        check_text(next_line(rest), ++number);
    }
    Parser parser(configuration);
    number = 0;
    for (std::string_view rest = text; !rest.empty();) {
        parser.execute(next_line(rest), ++number);
    }
}

std::string to_text(const Configuration &configuration) {
    std::string text;
    append_value(text, "hostname ", configuration.hostname);
    append_value(text, "banner ", configuration.banner);
    for (const auto &[name, role] : configuration.user_roles) {
        append(text, {"username ", name, " role ", role});
    }
    for (const auto &[id, vlan] : configuration.vlans) {
        append(text, {"vlan ", std::to_string(id)});
        append_value(text, "  name ", vlan.name);
    }
    for (const auto &[name, interface] : configuration.interfaces) {
        append(text, {"interface ", name});
        append_value(text, "  description ", interface.description);
        append_value(text, "  ip address ", interface.address);
        if (interface.shutdown) {
            append(text, {"  shutdown"});
        }
    }
    for (const std::string &server : configuration.ntp_servers) {
        append(text, {"ntp server ", server});
    }
    append_value(text, "snmp-server location ", configuration.snmp_location);
    append_value(text, "snmp-server contact ", configuration.snmp_contact);
    append(text, {"end"});
    return text;
}

} // namespace ulmo
