#include "platform/host/system_manager/fabric_members.h"

#include "base/folders.h"
#include "base/number.h"
#include "base/settings.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace ulmo {
namespace {

constexpr std::uint16_t snmp_port = 161;

// A key that a member's line may set, and the setting with its value for all members.
struct Key {
    std::string_view name;
    TextSetting setting;
    std::string FabricMember::*field;
};
constexpr std::array<Key, 5> keys{{
    {"user", "fabric_user", &FabricMember::user},
    {"auth-protocol", "fabric_auth_protocol", &FabricMember::auth_protocol},
    {"auth-passphrase", "fabric_auth_passphrase", &FabricMember::auth_passphrase},
    {"priv-protocol", "fabric_priv_protocol", &FabricMember::priv_protocol},
    {"priv-passphrase", "fabric_priv_passphrase", &FabricMember::priv_passphrase},
}};

[[noreturn]] void refuse(const std::string &setting, const std::string &reason) {
    throw std::runtime_error("setting " + setting + ": " + reason);
}

// ADDRESS, ADDRESS:PORT with IPv4, [ADDRESS]:PORT with IPv6.
bool read_endpoint(const std::string &text, FabricMember &member) {
    std::string address = text;
    member.port = snmp_port;
    const bool is_bracketed = text.front() == '[';
    const bool is_bare_ipv6 = !is_bracketed && std::count(text.begin(), text.end(), ':') > 1;
    if (const auto colon = text.rfind(':');
        colon != std::string::npos && !is_bare_ipv6 && text.back() != ']') {
        const auto port = parsed_number<std::uint16_t>(std::string_view(text).substr(colon + 1), 1);
        if (!port) {
            return false;
        }
        member.port = *port;
        address.resize(colon);
    }
    if (is_bracketed) {
        if (address.back() != ']') {
            return false;
        }
        address = address.substr(1, address.size() - 2);
    }
    return ip_addr_from_str(address.c_str(), &member.address) == 0 &&
           member.address.type ==
               (is_bracketed || is_bare_ipv6 ? INET_ADDRESS_IPV6 : INET_ADDRESS_IPV4);
}

// Reads the words of a line after the address. An unknown word may be a misplaced passphrase, so it
// is not quoted.
void read_keys(std::istream &words, const std::string &line, FabricMember &member) {
    for (std::string word; words >> word;) {
        const auto equals = word.find('=');
        const auto key = std::find_if(keys.begin(), keys.end(), [&](const Key &each) {
            return word.compare(0, equals, each.name) == 0;
        });
        if (equals == std::string::npos || key == keys.end()) {
            refuse(line, "there is an unknown key; the keys are user, auth-protocol, "
                         "auth-passphrase, priv-protocol and priv-passphrase");
        }
        member.*key->field = word.substr(equals + 1);
    }
}

void check_credentials(const std::string &line, const FabricMember &member) {
    for (const Key &key : keys) {
        const std::string &value = member.*key.field;
        if (value.empty()) {
            refuse(line, std::string("there is no ") + std::string(key.name) +
                             ", neither there nor as " + std::string((*key.setting).name));
        }
    }
    if (member.user.size() > 32) { // SnmpAdminString of usmUserName, RFC 3414
        refuse(line, "the user's name has more than 32 octets");
    }
    if (usm_lookup_auth_type(member.auth_protocol.c_str()) <= NETSNMP_USMAUTH_NOAUTH) {
        refuse(line, "the auth-protocol is unknown");
    }
    if (usm_lookup_priv_type(member.priv_protocol.c_str()) <= USM_CREATE_USER_PRIV_NONE) {
        refuse(line, "the priv-protocol is unknown");
    }
    for (const auto &[name, passphrase] : {std::pair("auth-passphrase", &member.auth_passphrase),
                                           {"priv-passphrase", &member.priv_passphrase}}) {
        if (passphrase->size() < USM_LENGTH_P_MIN) {
            refuse(line, std::string("the ") + name + " has less than 8 characters");
        }
    }
}

// `number`: which line of this setting it is, from 1 on.
FabricMember member_from(const std::string &text, std::size_t number,
                         const FabricMember &defaults) {
    FabricMember member = defaults;
    std::istringstream words(text);
    std::string name;
    std::string endpoint;
    words >> name >> endpoint;
    const auto wwn = wwn_from_text(name);
    if (!wwn) {
        refuse("fabric_member",
               "its line " + std::to_string(number) + " does not begin with a world-wide name");
    }
    member.wwn = *wwn;
    const std::string line = "fabric_member " + wwn_to_text(*wwn);
    if (*wwn == Wwn{}) {
        refuse(line, "a world-wide name can't be all zeros");
    }
    if (endpoint.empty()) {
        refuse(line, "there is no address");
    }
    if (!read_endpoint(endpoint, member)) {
        refuse(line, "the second word must be an IPv4 or IPv6 address, with or without a port");
    }
    read_keys(words, line, member);
    check_credentials(line, member);
    return member;
}

// The group of the system manager does not count as others, so that the file can belong to the
// superuser.
bool is_read_by_others() {
    struct stat status {};
    if (::stat(settings_file().c_str(), &status) != 0) {
        return false;
    }
    const bool is_own_group = ::getegid() != 0 && status.st_gid == ::getegid();
    return (status.st_mode & (is_own_group ? S_IROTH : S_IRGRP | S_IROTH)) != 0;
}

} // namespace

std::vector<FabricMember> fabric_members() {
    FabricMember defaults;
    for (const Key &key : keys) {
        defaults.*key.field = text_setting(key.setting);
    }
    const std::vector<std::string> lines = list_setting("fabric_member");
    const bool holds_passphrases =
        !defaults.auth_passphrase.empty() || !defaults.priv_passphrase.empty() ||
        std::any_of(lines.begin(), lines.end(), [](const std::string &line) {
            return line.find("-passphrase=") != std::string::npos;
        });
    if (holds_passphrases && is_read_by_others()) {
        throw std::runtime_error(settings_file().string() +
                                 " holds passphrases and is readable by other users");
    }
    std::vector<FabricMember> members;
    if (lines.empty()) {
        return members;
    }
    const Wwn local = local_wwn();
    for (const std::string &line : lines) {
        FabricMember member = member_from(line, members.size() + 1, defaults);
        const std::string name = "fabric_member " + wwn_to_text(member.wwn);
        if (member.wwn == local) {
            refuse(name, "that is this switch itself: remove the line");
        }
        for (const FabricMember &other : members) {
            if (other.wwn == member.wwn) {
                refuse(name, "two lines have this name");
            }
            if (std::memcmp(&other.address, &member.address, sizeof member.address) == 0 &&
                other.port == member.port) {
                refuse(name, "the address is also that of " + wwn_to_text(other.wwn));
            }
        }
        members.push_back(std::move(member));
    }
    return members;
}

std::chrono::seconds fabric_time_limit() {
    return std::chrono::seconds(number_setting("fabric_time_limit").value());
}

} // namespace ulmo
