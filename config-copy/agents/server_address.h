// The address of a file server in the copy table's form.
#pragma once

#include "base/address_text.h"
#include "config-copy/copy_table.h"

#include <sys/socket.h>

#include <chrono>
#include <optional>
#include <string>

namespace config_copy {

struct ServerAddress {
    inet_address_type type = INET_ADDRESS_IPV4;
    std::string octets; // network order; 4 or 16
};

// Throws a Failure of unreachable if the name can't be looked up, and of usage if it is this
// machine's loopback address, which would mean the switch itself there.
ServerAddress server_address(const std::string &host, std::chrono::seconds limit);

// Of IPv4 or IPv6; the port and the scope are left out.
ServerAddress address_of(const sockaddr_storage &socket_address);

// A numeric address; empty for any other text, and for an IPv6 address with a scope.
std::optional<ServerAddress> parsed_address(const std::string &text);

using ulmo::address_text;

} // namespace config_copy
