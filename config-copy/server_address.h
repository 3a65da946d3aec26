// The address of a file server, as the copy table takes it.
#pragma once

#include "base/address_text.h"
#include "config-copy/copy_table.h"

#include <string>

namespace config_copy {

struct ServerAddress {
    inet_address_type type = INET_ADDRESS_IPV4;
    std::string octets; // in network order, 4 or 16
};

// Throws a Failure of unreachable when the name can't be looked up, and of usage when it is this
// machine's own loopback, which on the switch would be another one.
ServerAddress server_address(const std::string &host);

using ulmo::address_text;

} // namespace config_copy
