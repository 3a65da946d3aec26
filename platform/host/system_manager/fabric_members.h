// The other switches of the fabric, from the settings: whom a save in the whole fabric is asked of,
// and as which SNMPv3 user.
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
    std::string auth_protocol; // a name that Net-SNMP knows, such as SHA-256
    std::string auth_passphrase;
    std::string priv_protocol; // likewise, such as AES
    std::string priv_passphrase;
};

// The members in the order of the settings, without this switch; none when none is set. Throws
// std::runtime_error when a setting is amiss, or when users other than the owner may read the
// passphrases; the text names the setting and never holds a passphrase.
std::vector<FabricMember> fabric_members();

// How long the save of one member may take, 1 to 300 s. Throws as above.
std::chrono::seconds fabric_time_limit();

} // namespace ulmo
