#include "platform/host/system_manager/fabric_members.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char *local = "wwn = 20:00:00:00:00:00:00:01\n";
constexpr const char *credentials = "fabric_user = operator\nfabric_auth_passphrase = for all of "
                                    "them\nfabric_priv_passphrase = for all too\n";
const std::string second_wwn = "20:00:00:00:00:00:00:02";

class FabricMembers : public testing::Test {
  protected:
    void configure(const std::string &text, mode_t mode = 0600) const {
        scratch.configure(local + text);
        ::chmod((scratch.root() / "platform.conf").c_str(), mode);
    }
    std::vector<ulmo::FabricMember> members(const std::string &text, mode_t mode = 0600) const {
        configure(text, mode);
        return ulmo::fabric_members();
    }
    std::string refusal(const std::string &text, mode_t mode = 0600) const {
        try {
            return "accepted " + std::to_string(members(text, mode).size());
        } catch (const std::runtime_error &error) {
            return error.what();
        }
    }
    // The refusal of one member's line, with credentials for all.
    std::string refusal_of_line(const std::string &line) const {
        return refusal(std::string(credentials) + "fabric_member = " + line + '\n');
    }
    std::string endpoint(const std::string &text) const {
        const auto all =
            members(std::string(credentials) + "fabric_member = " + second_wwn + ' ' + text + '\n');
        char address[64] = "-";
        ip_addr_to_str(&all.at(0).address, address, sizeof address);
        return std::string(address) + ' ' + std::to_string(all[0].port);
    }

    Scratch scratch;
};

TEST_F(FabricMembers, WithoutSettingsThereAreNoMembers) {
    EXPECT_TRUE(members("").empty());
    EXPECT_TRUE(members(credentials).empty());
    scratch.configure("wwn = x\n");
    EXPECT_TRUE(ulmo::fabric_members().empty())
        << "without members, the local name does not matter";
}

TEST_F(FabricMembers, ComeInOrderWithTheCredentialsOfAll) {
    const auto all =
        members(std::string(credentials) + "fabric_member = 20:00:00:00:00:00:00:03 192.0.2.3\n" +
                "fabric_member =  20:00:00:00:00:00:00:02\t2001:db8::2  \n");
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].wwn[7], 3);
    EXPECT_EQ(all[1].wwn[7], 2);
    for (const auto &member : all) {
        EXPECT_EQ(member.port, 161);
        EXPECT_EQ(member.user, "operator");
        EXPECT_EQ(member.auth_protocol, "SHA-256");
        EXPECT_EQ(member.auth_passphrase, "for all of them");
        EXPECT_EQ(member.priv_protocol, "AES");
        EXPECT_EQ(member.priv_passphrase, "for all too");
    }
}

TEST_F(FabricMembers, LineOverridesWhatHoldsForAll) {
    const auto all =
        members(std::string(credentials) +
                "fabric_auth_protocol = SHA-512\nfabric_priv_protocol = AES-256\nfabric_member = " +
                second_wwn +
                " 192.0.2.2 priv-passphrase=a=b=cdef user=second auth-passphrase=12345678 "
                "priv-protocol=DES auth-protocol=SHA\n" +
                "fabric_member = 20:00:00:00:00:00:00:03 192.0.2.3\n");
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].user, "second");
    EXPECT_EQ(all[0].auth_protocol, "SHA");
    EXPECT_EQ(all[0].auth_passphrase, "12345678");
    EXPECT_EQ(all[0].priv_protocol, "DES");
    EXPECT_EQ(all[0].priv_passphrase, "a=b=cdef");
    EXPECT_EQ(all[1].user, "operator");
    EXPECT_EQ(all[1].auth_protocol, "SHA-512");
    EXPECT_EQ(all[1].priv_protocol, "AES-256");
}

TEST_F(FabricMembers, AddressMayHaveAPort) {
    EXPECT_EQ(endpoint("192.0.2.2"), "192.0.2.2 161");
    EXPECT_EQ(endpoint("192.0.2.2:1161"), "192.0.2.2 1161");
    EXPECT_EQ(endpoint("2001:db8::2"), "2001:db8::2 161");
    EXPECT_EQ(endpoint("[2001:db8::2]"), "2001:db8::2 161");
    EXPECT_EQ(endpoint("[2001:db8::2]:65535"), "2001:db8::2 65535");
}

TEST_F(FabricMembers, InvalidAddressIsRefused) {
    for (const char *address :
         {"switch2", "192.0.2", "192.0.2.2:", "192.0.2.2:0", "192.0.2.2:65536", "192.0.2.2:1x",
          "192.0.2.2:-1", "[192.0.2.2]", "[192.0.2.2]:161", "[2001:db8::2", "2001:db8::2]",
          "[2001:db8::2]161", "[2001:db8::2]:", "[", "[]", "]", ":", ":161", "user=second"}) {
        EXPECT_EQ(refusal_of_line(second_wwn + ' ' + address),
                  "setting fabric_member " + second_wwn +
                      ": the second word must be an IPv4 or IPv6 address, with or without a port")
            << address;
    }
    EXPECT_EQ(refusal_of_line(second_wwn),
              "setting fabric_member " + second_wwn + ": there is no address");
}

TEST_F(FabricMembers, InvalidOrRepeatedNameIsRefused) {
    for (const char *line : {"", "192.0.2.2", "20:00:00:00:00:00:00 192.0.2.2", "x 192.0.2.2"}) {
        EXPECT_EQ(refusal_of_line(line),
                  "setting fabric_member: its line 1 does not begin with a world-wide name")
            << line;
    }
    EXPECT_EQ(refusal_of_line(second_wwn + " 192.0.2.2\nfabric_member = x 192.0.2.3"),
              "setting fabric_member: its line 2 does not begin with a world-wide name");
    EXPECT_EQ(
        refusal_of_line("00:00:00:00:00:00:00:00 192.0.2.2"),
        "setting fabric_member 00:00:00:00:00:00:00:00: a world-wide name can't be all zeros");
    EXPECT_EQ(refusal_of_line("20:00:00:00:00:00:00:01 192.0.2.2"),
              "setting fabric_member 20:00:00:00:00:00:00:01: that is this switch itself: remove "
              "the line");
    EXPECT_EQ(
        refusal_of_line(second_wwn + " 192.0.2.2\nfabric_member = " + second_wwn + " 192.0.2.3"),
        "setting fabric_member " + second_wwn + ": two lines have this name");
    EXPECT_EQ(refusal_of_line(second_wwn +
                              " 192.0.2.2\nfabric_member = 20:00:00:00:00:00:00:03 192.0.2.2:161"),
              "setting fabric_member 20:00:00:00:00:00:00:03: the address is also that of " +
                  second_wwn);
    EXPECT_EQ(refusal_of_line(second_wwn +
                              " 192.0.2.2\nfabric_member = 20:00:00:00:00:00:00:03 192.0.2.2:162"),
              "accepted 2");
}

TEST_F(FabricMembers, InvalidLocalNameIsRefused) {
    EXPECT_EQ(
        refusal(std::string(credentials) + "wwn = x\nfabric_member = " + second_wwn +
                " 192.0.2.2\n"),
        (scratch.root() / "platform.conf").string() +
            " line 5: wwn = x: must be a world-wide name, such as 20:00:00:00:00:00:00:01; saves "
            "in the fabric fail");
}

TEST_F(FabricMembers, UnknownKeyIsRefusedAndNotQuoted) {
    for (const char *word : {"User=x", "passphrase=secret-1", "use=x", "=x", "user", "secret-1"}) {
        EXPECT_EQ(refusal_of_line(second_wwn + " 192.0.2.2 user=second " + word),
                  "setting fabric_member " + second_wwn +
                      ": there is an unknown key; the keys are user, auth-protocol, "
                      "auth-passphrase, priv-protocol and priv-passphrase")
            << word;
    }
}

TEST_F(FabricMembers, EveryCredentialIsNeeded) {
    const std::string line = "fabric_member = " + second_wwn + " 192.0.2.2 ";
    const std::string what = "setting fabric_member " + second_wwn + ": ";
    EXPECT_EQ(refusal(line), what + "there is no user, neither there nor as fabric_user");
    EXPECT_EQ(refusal(line + "user=x"),
              what + "there is no auth-passphrase, neither there nor as fabric_auth_passphrase");
    EXPECT_EQ(refusal(line + "user=x auth-passphrase=secret-1"),
              what + "there is no priv-passphrase, neither there nor as fabric_priv_passphrase");
    EXPECT_EQ(refusal(line + "user=x auth-passphrase=secret-1 priv-passphrase=secret-2"),
              "accepted 1");
    EXPECT_EQ(refusal_of_line(second_wwn + " 192.0.2.2 auth-protocol="),
              what + "there is no auth-protocol, neither there nor as fabric_auth_protocol");
}

TEST_F(FabricMembers, InvalidCredentialIsRefused) {
    const std::string what = "setting fabric_member " + second_wwn + ": ";
    const auto refused = [&](const std::string &word) {
        return refusal_of_line(second_wwn + " 192.0.2.2 " + word);
    };
    EXPECT_EQ(refused("user=" + std::string(32, 'u')), "accepted 1");
    EXPECT_EQ(refused("user=" + std::string(33, 'u')),
              what + "the user's name has more than 32 octets");
    for (const char *protocol : {"SHA-257", "AES", "none", "noauth"}) {
        EXPECT_EQ(refused(std::string("auth-protocol=") + protocol),
                  what + "the auth-protocol is unknown")
            << protocol;
    }
    for (const char *protocol : {"AES-257", "SHA", "none", "nopriv"}) {
        EXPECT_EQ(refused(std::string("priv-protocol=") + protocol),
                  what + "the priv-protocol is unknown")
            << protocol;
    }
    EXPECT_EQ(refused("auth-passphrase=1234567"),
              what + "the auth-passphrase has less than 8 characters");
    EXPECT_EQ(refused("priv-passphrase=1234567"),
              what + "the priv-passphrase has less than 8 characters");
}

TEST_F(FabricMembers, PassphrasesAreForTheOwnerOnly) {
    REQUIRE_SUPERUSER("acts in the superuser's group");
    const std::string readable = (scratch.root() / "platform.conf").string() +
                                 " holds passphrases and is readable by other users";
    const std::string line = "fabric_member = " + second_wwn + " 192.0.2.2 ";
    for (const mode_t mode : {0640U, 0604U, 0644U}) {
        EXPECT_EQ(refusal(credentials + line, mode), readable);
        EXPECT_EQ(refusal("fabric_auth_passphrase = secret-1\n", mode), readable);
        EXPECT_EQ(refusal("fabric_priv_passphrase = secret-1\n", mode), readable);
        EXPECT_EQ(refusal(line + "auth-passphrase=secret-1\n", mode), readable);
        EXPECT_EQ(refusal("fabric_user = operator\n", mode), "accepted 0");
    }
    EXPECT_EQ(refusal(credentials + line, 0400), "accepted 1");
}

// Gives the superuser's process another group for the lifetime of the object.
class ActingInGroup {
  public:
    explicit ActingInGroup(gid_t group) : former_(::getegid()) { EXPECT_EQ(::setegid(group), 0); }
    ActingInGroup(const ActingInGroup &) = delete;
    ActingInGroup &operator=(const ActingInGroup &) = delete;
    ~ActingInGroup() { EXPECT_EQ(::setegid(former_), 0); }

  private:
    const gid_t former_;
};

TEST_F(FabricMembers, PassphrasesMayBeForTheOwnGroupToo) {
    REQUIRE_SUPERUSER("acts in another group");
    constexpr gid_t own_group = 4712;
    const std::string readable = (scratch.root() / "platform.conf").string() +
                                 " holds passphrases and is readable by other users";
    const std::string text =
        std::string(credentials) + "fabric_member = " + second_wwn + " 192.0.2.2\n";
    const ActingInGroup group(own_group);
    EXPECT_EQ(refusal(text, 0644), readable);
    EXPECT_EQ(refusal(text, 0640), "accepted 1");
    ASSERT_EQ(::chown((scratch.root() / "platform.conf").c_str(), 0, own_group + 1), 0);
    EXPECT_EQ(refusal(text, 0640), readable);
}

TEST_F(FabricMembers, TimeLimitIsTenSecondsOrWhatIsSet) {
    const auto limit = [&](const std::string &text) {
        configure("fabric_time_limit = " + text + '\n');
        return ulmo::fabric_time_limit().count();
    };
    configure("");
    EXPECT_EQ(ulmo::fabric_time_limit().count(), 10);
    EXPECT_EQ(limit("1"), 1);
    EXPECT_EQ(limit("300"), 300);
    for (const char *text : {"0", "301", "-1", "", "ten", "10s", "1.5", "99999999999"}) {
        try {
            limit(text);
            ADD_FAILURE() << text;
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(error.what(),
                      (scratch.root() / "platform.conf").string() +
                          " line 2: fabric_time_limit = " + text +
                          ": must be a number from 1 to 300; saves in the fabric fail");
        }
    }
}

} // namespace
