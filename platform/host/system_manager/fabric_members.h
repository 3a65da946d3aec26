// The other switches of the fabric, from the settings: the targets of a fabric-wide save and the
// SNMPv3 user for each.
#pragma once

#include "platform/host/fabric/wwn.h"
#include "platform/inet_address.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace ulmo {

struct FabricMember {
    Wwn wwn{};
    inet_address address{};
    std::uint16_t port = 0;
    std::string user;
    std::string auth_protocol; // a Net-SNMP name such as SHA-256
    std::string auth_passphrase;
    std::string priv_protocol; // a Net-SNMP name such as AES
    std::string priv_passphrase;
};

// The members in the order of the settings, without this switch; empty if none is set. Throws
// std::runtime_error if a setting is bad, or if users other than the owner may read the
// passphrases; the text names the setting and never contains a passphrase.
std::vector<FabricMember> fabric_members();

// The time limit of one member's save, 1 to 300 s. Throws like fabric_members().
std::chrono::seconds fabric_time_limit();

} // namespace ulmo
