#include "platform/host/device/configuration_text.h"

#include <gtest/gtest.h>

#include <ctime>
#include <random>
#include <vector>

namespace {

using ulmo::Configuration;
using ulmo::ConfigurationError;
using Kind = ulmo::ConfigurationError::Kind;

std::string canonical(std::string_view text) {
    Configuration configuration;
    ulmo::merge(configuration, text);
    return ulmo::to_text(configuration);
}

// The result of merging `second` after `first`.
std::string merged(std::string_view first, std::string_view second) {
    Configuration configuration;
    ulmo::merge(configuration, first);
    ulmo::merge(configuration, second);
    return ulmo::to_text(configuration);
}

void expect_refused(std::string_view text, Kind kind, const std::string &reason) {
    Configuration configuration;
    try {
        ulmo::merge(configuration, text);
        ADD_FAILURE() << "accepted: " << text.substr(0, 80);
    } catch (const ConfigurationError &error) {
        EXPECT_EQ(error.kind(), kind) << text.substr(0, 80);
        EXPECT_EQ(error.what(), reason);
    }
}

std::string letters(std::size_t count) {
    return std::string(count, 'x');
}

TEST(ConfigurationText, EveryStatementHasItsCanonicalForm) {
    EXPECT_EQ(canonical("snmp-server contact  Ops  team \n"
                        "snmp-server\tlocation Hall 3, rack 12\n"
                        "ntp server ntp1.example.net\n"
                        "ntp server 192.0.2.7\n"
                        "ntp server 2001:DB8:0:0::1\n"
                        "interface fc1/10\n"
                        "interface fc1/2\n"
                        " shutdown\n"
                        "\tip  address 192.0.2.1/24\n"
                        "   description to \xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80 core\n"
                        "vlan 20\n"
                        "vlan 3\n"
                        " name servers\n"
                        "username zoe role operator\n"
                        "username adam role admin\n"
                        "banner ! authorised use only\n"
                        "hostname sw-1.example\n"),
              "hostname sw-1.example\n"
              "banner ! authorised use only\n"
              "username adam role admin\n"
              "username zoe role operator\n"
              "vlan 3\n"
              "  name servers\n"
              "vlan 20\n"
              "interface fc1/2\n"
              "  description to \xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80 core\n"
              "  ip address 192.0.2.1/24\n"
              "  shutdown\n"
              "interface fc1/10\n"
              "ntp server 192.0.2.7\n"
              "ntp server 2001:db8::1\n"
              "ntp server ntp1.example.net\n"
              "snmp-server location Hall 3, rack 12\n"
              "snmp-server contact Ops  team\n"
              "end\n");
}

TEST(ConfigurationText, EmptyTextsAndCommentsChangeNothing) {
    for (const char *text : {"", "\n", "\r\n", "!", "  ! indented\n# other\n\n   \n\t\n", "end",
                             "end\n! after\n\n", "\xEF\xBB\xBF"}) {
        EXPECT_EQ(merged("hostname a", text), "hostname a\nend\n") << text;
    }
}

TEST(ConfigurationText, LinesMayEndWithCrLfAndTheLastWithNothing) {
    EXPECT_EQ(canonical("\xEF\xBB\xBFhostname a\r\ninterface e1\r\n\r\n! c\r\n shutdown\r\nvlan 1"),
              "hostname a\nvlan 1\ninterface e1\n  shutdown\nend\n");
}

TEST(ConfigurationText, LaterStatementsReplaceValuesAndMergeBlocks) {
    EXPECT_EQ(merged("hostname a\ninterface e1\n description x\n ip address 10.0.0.1/8\n "
                     "shutdown\nvlan 5\n name old\nusername u role r\n",
                     "hostname b\ninterface e1\n ip address 10.0.0.2/16\n no shutdown\nvlan "
                     "5\nusername u role s\nvlan 5\n name new\n"),
              "hostname b\nusername u role s\nvlan 5\n  name new\ninterface e1\n  description x\n  "
              "ip address 10.0.0.2/16\nend\n");
}

TEST(ConfigurationText, NoTakesBackWhatWasSet) {
    constexpr std::string_view full =
        "hostname a\nbanner b\nusername u role r\nvlan 5\n name n\ninterface e1\n description d\n"
        " ip address 10.0.0.1/8\n shutdown\nntp server 10.0.0.9\nntp server 2001:db8::1\n"
        "snmp-server location l\nsnmp-server contact c\n";
    EXPECT_EQ(
        merged(full,
               "no hostname\nno banner\nno username u\nno vlan 5\nno interface e1\nno ntp server "
               "10.0.0.9\n"
               "no ntp server 2001:DB8::0:1\nno snmp-server location\nno snmp-server contact\n"),
        "end\n");
    EXPECT_EQ(merged(full, "no hostname a\nno banner b c\nno username u role r\nvlan 5\n no "
                           "name\ninterface e1\n no description d\n"
                           " no ip address 10.0.0.1/8\n no shutdown\nno ntp server 10.0.0.9\nno "
                           "snmp-server location x\n"
                           "no snmp-server contact y\n"),
              "vlan 5\ninterface e1\nntp server 2001:db8::1\nend\n");
    EXPECT_EQ(
        merged("hostname a",
               "no banner\nno username u\nno vlan 5\nno interface e1\nno ntp server 10.0.0.9\n"),
        "hostname a\nend\n");
}

TEST(ConfigurationText, LimitsAreInclusive) {
    const std::vector<std::string> accepted = {
        "hostname " + letters(63),
        "banner " + letters(2048),
        "username " + letters(32) + " role " + letters(32),
        "vlan 1",
        "vlan 4094\n name " + letters(32),
        "interface " + letters(64) + "\n description " + letters(254),
        "interface e\n ip address 1.0.0.0/0",
        "interface e\n ip address 223.255.255.255/32",
        "ntp server " + letters(63) + "." + letters(63) + "." + letters(63) + "." + letters(61),
        "snmp-server location " + letters(255),
        "snmp-server contact " + letters(255),
        "!" + letters(4095),
        "!" + letters(4095) + "\r\n",
    };
    for (const std::string &text : accepted) {
        EXPECT_NO_THROW(canonical(text)) << text;
    }
}

TEST(ConfigurationText, RefusedLinesAreNamedWithTheReason) {
    struct Case {
        std::string line;
        std::string reason;
    };
    const std::vector<Case> cases = {
        {"bogus", "unknown statement 'bogus'"},
        {"Hostname a", "unknown statement 'Hostname'"},
        {"description x", "unknown statement 'description'"},
        {"no", "'no' needs a statement"},
        {"no no", "unknown statement 'no'"},
        {"no end", "unknown statement 'end'"},
        {"end x", "unexpected 'x'"},
        {" shutdown", "indented, but no 'interface' or 'vlan' block is open"},
        {"hostname", "host name expected, not ''"},
        {"hostname a b", "unexpected 'b'"},
        {"hostname -a", "host name expected, not '-a'"},
        {"hostname a-", "host name expected, not 'a-'"},
        {"hostname a..b", "host name expected, not 'a..b'"},
        {"hostname a.", "host name expected, not 'a.'"},
        {"hostname a_b", "host name expected, not 'a_b'"},
        {"hostname " + letters(64), "host name expected, not '" + letters(40) + "...'"},
        {"banner", "text expected"},
        {"banner " + letters(2049), "text longer than 2048 octets"},
        {"username", "user name expected, not ''"},
        {"username 1a role b", "user name expected, not '1a'"},
        {"username " + letters(33) + " role b", "user name expected, not '" + letters(33) + "'"},
        {"username a", "'role' expected, not ''"},
        {"username a rule b", "'role' expected, not 'rule'"},
        {"username a role", "role expected, not ''"},
        {"username a role b c", "unexpected 'c'"},
        {"no username a b", "'role' expected, not 'b'"},
        {"vlan", "vlan number expected, 1 to 4094, not ''"},
        {"vlan 0", "vlan number expected, 1 to 4094, not '0'"},
        {"vlan 4095", "vlan number expected, 1 to 4094, not '4095'"},
        {"vlan 99999999999", "vlan number expected, 1 to 4094, not '99999999999'"},
        {"vlan -1", "vlan number expected, 1 to 4094, not '-1'"},
        {"vlan 1x", "vlan number expected, 1 to 4094, not '1x'"},
        {"interface", "interface name expected, not ''"},
        {"interface 1", "interface name expected, not '1'"},
        {"interface a%", "interface name expected, not 'a%'"},
        {"interface " + letters(65), "interface name expected, not '" + letters(40) + "...'"},
        {"interface a b", "unexpected 'b'"},
        {"ntp", "'server' expected, not ''"},
        {"ntp server", "server address expected, not ''"},
        {"ntp server 10.0.0", "server address expected, not '10.0.0'"},
        {"ntp server 10.0.0.256", "server address expected, not '10.0.0.256'"},
        {"ntp server 2001:db8::g", "server address expected, not '2001:db8::g'"},
        {"ntp server " + letters(64), "server address expected, not '" + letters(40) + "...'"},
        {"ntp server a." + std::string(300, '.'),
         "server address expected, not 'a." + std::string(38, '.') + "...'"},
        {"snmp-server", "'location' or 'contact' expected, not ''"},
        {"snmp-server community x", "'location' or 'contact' expected, not 'community'"},
        {"snmp-server contact", "text expected"},
        {"snmp-server contact " + letters(256), "text longer than 255 octets"},
        {"!" + letters(4096), "longer than 4096 octets"},
        // 39 octets and a two-octet character: the character is not split.
        {letters(39) + "\xC3\xBC", "unknown statement '" + letters(39) + "...'"},
    };
    for (const Case &refused : cases) {
        expect_refused("hostname ok\n\n" + refused.line + "\n", Kind::bad_line,
                       "line 3: " + refused.reason);
    }
    const std::vector<Case> in_interface = {
        {"bogus", "unknown statement 'bogus' in an interface block"},
        {"name x", "unknown statement 'name' in an interface block"},
        {"no", "'no' needs a statement"},
        {"description", "text expected"},
        {"description " + letters(255), "text longer than 254 octets"},
        {"shutdown now", "unexpected 'now'"},
        {"ip", "'address' expected, not ''"},
        {"ip route 1", "'address' expected, not 'route'"},
    };
    for (const Case &refused : in_interface) {
        expect_refused("interface e1\n " + refused.line, Kind::bad_line,
                       "line 2: " + refused.reason);
    }
    for (const char *address : {"", "10.0.0.1", "10.0.0.1/", "10.0.0.1/33", "10.0.0.1/-1",
                                "10.0.0/24", "10.0.0.256/24", "0.0.0.1/8", "224.0.0.1/4",
                                "255.255.255.255/32", "2001:db8::1/64", "10.0.0.1/24/1", "/24"}) {
        for (const char *no : {"", "no "}) {
            if (*no != '\0' && *address == '\0') {
                continue; // removes the address
            }
            expect_refused(
                "interface e1\n " + std::string(no) + "ip address " + address, Kind::bad_line,
                "line 2: unicast address with prefix length expected, as in 192.0.2.1/24, not '" +
                    std::string(address) + "'");
        }
    }
    expect_refused("interface e1\n ip address 10.0.0.1/8 secondary", Kind::bad_line,
                   "line 2: unexpected 'secondary'");
    expect_refused("vlan 1\n shutdown", Kind::bad_line,
                   "line 2: unknown statement 'shutdown' in a vlan block");
    expect_refused("vlan 1\n name " + letters(33), Kind::bad_line,
                   "line 2: text longer than 32 octets");
    expect_refused("vlan 1\nhostname a\n name x", Kind::bad_line,
                   "line 3: indented, but no 'interface' or 'vlan' block is open");
    expect_refused("interface e1\nno interface e1\n shutdown", Kind::bad_line,
                   "line 3: indented, but no 'interface' or 'vlan' block is open");
    expect_refused("vlan 1\nend\n name x", Kind::bad_line, "line 3: statement after 'end'");
}

TEST(ConfigurationText, InvalidTextIsABadFile) {
    const std::vector<std::pair<std::string, std::string>> octets = {
        {std::string(1, '\0'), "00"},
        {"\x01", "01"},
        {"\x1B", "1b"},
        {"\x7F", "7f"},
        {"\rx", "0d"},
        {"\x80", "80"},
        {"\xC0\x80", "c0"},         // overlong
        {"\xC2\x85", "c2"},         // C1 control
        {"\xE0\x9F\xBF", "e0"},     // overlong
        {"\xED\xA0\x80", "ed"},     // surrogate
        {"\xF0\x8F\xBF\xBF", "f0"}, // overlong
        {"\xF4\x90\x80\x80", "f4"}, // beyond U+10FFFF
        {"\xF5\x80\x80\x80", "f5"},
        {"\xE2\x82", "e2"}, // cut off
        {"\xE2\x82x", "e2"},
    };
    for (const auto &[text, octet] : octets) {
        expect_refused("bogus\nhostname ok\n! " + text + "\n", Kind::bad_file,
                       "line 3: not a text (octet 0x" + octet + ")");
    }
    expect_refused("hostname a\r", Kind::bad_file, "line 1: not a text (octet 0x0d)");
    expect_refused(std::string(ulmo::configuration_text_limit + 1, '\n'), Kind::bad_file,
                   "larger than 134217728 octets");
    std::string longest;
    longest.reserve(ulmo::configuration_text_limit);
    const std::string comment = '!' + std::string(4095, 'x') + '\n';
    while (longest.size() + comment.size() <= ulmo::configuration_text_limit) {
        longest += comment;
    }
    longest.append(ulmo::configuration_text_limit - longest.size(), '\n');
    EXPECT_EQ(canonical(longest), "end\n");
}

// Random statements, mostly valid, from a small range of values so that they affect each other.
class RandomConfiguration {
  public:
    explicit RandomConfiguration(unsigned seed) : random_(seed) {}

    std::string text() {
        std::string text;
        for (unsigned i = below(40); i > 0; --i) {
            text += statement();
        }
        return text;
    }

  private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    std::string no() { return below(4) == 0 ? "no " : ""; }
    std::string word() {
        return std::string(1, static_cast<char>('a' + below(4))) + std::to_string(below(12));
    }
    std::string address() {
        return std::to_string(1 + below(223)) + ".0." + std::to_string(below(256)) + ".1";
    }
    std::string phrase() { return below(2) == 0 ? word() : word() + "  ! \xC3\xA9 \t" + word(); }

    std::string statement() {
        switch (below(10)) {
        case 0:
            return no() + "hostname " + word() + "\n";
        case 1:
            return no() + "banner " + phrase() + "\r\n";
        case 2:
            return no() + "username " + word() + " role " + word() + "\n";
        case 3:
            return "no vlan " + std::to_string(1 + below(20)) + "\n";
        case 4:
            return "vlan " + std::to_string(1 + below(20)) + "\n" +
                   (below(2) == 0 ? "\t" + no() + "name " + phrase() + " \n" : "");
        case 5:
            return "no interface " + word() + "\n";
        case 6:
            return no() + "ntp server " +
                   (below(2) == 0   ? address()
                    : below(2) == 0 ? word()
                                    : "2001:DB8::" + std::to_string(below(99))) +
                   "\n";
        case 7:
            return no() + "snmp-server " + (below(2) == 0 ? "location " : "contact ") + phrase() +
                   "\n";
        case 8:
            return "\n! " + phrase() + "\n";
        default:
            return "interface " + word() + "\n" + sub_statements();
        }
    }

    std::string sub_statements() {
        std::string text;
        for (unsigned i = below(4); i > 0; --i) {
            switch (below(3)) {
            case 0:
                text += "  " + no() + "description " + phrase() + "\n";
                break;
            case 1:
                text +=
                    " " + no() + "ip address " + address() + "/" + std::to_string(below(33)) + "\n";
                break;
            default:
                text += "\t" + no() + "shutdown\n";
            }
        }
        return text;
    }

    std::mt19937 random_;
};

TEST(ConfigurationText, ApplyingTheShownConfigurationChangesNothing) {
    for (unsigned seed = 0; seed < 2000; ++seed) {
        RandomConfiguration random(seed);
        const std::string first = random.text();
        const std::string second = random.text();
        const std::string shown = merged(first, second);
        ASSERT_EQ(canonical(shown), shown) << "seed " << seed;
        ASSERT_EQ(merged(shown, shown), shown) << "seed " << seed;
        ASSERT_EQ(canonical(first + second), shown) << "seed " << seed;
        ASSERT_EQ(merged(shown, second), shown)
            << "the last statements a second time, seed " << seed;
    }
}

TEST(ConfigurationText, FiveMegabytesTakeLessThanASecond) {
    std::string text;
    for (unsigned i = 0; text.size() < 5'000'000; ++i) {
        text += "interface fc" + std::to_string(i * 7919 % 100'003) +
                "\n  description uplink number " + std::to_string(i) +
                "\n  ip address 10.1.2.3/24\n  shutdown\n";
    }
    const std::clock_t begin = std::clock();
    const std::string shown = canonical(text);
    const double seconds = static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
    EXPECT_GT(shown.size(), 4'000'000U);
    RecordProperty("milliseconds", static_cast<int>(seconds * 1000));
#ifndef CCM_SANITIZE
    EXPECT_LT(seconds, 1.0);
#endif
}

} // namespace
