// Addresses as texts.
#pragma once

#include "platform/inet_address.h"

#include <string>
#include <string_view>

namespace ulmo {

// An address of 4 or 16 octets in network order; "?" for any other number of octets.
std::string address_text(std::string_view octets);

// The same for an address that carries its type; "?" when the type is not known.
std::string address_text(const inet_address &address);

} // namespace ulmo
