// The addresses behind a host's name.
#pragma once

#include "config-copy/failure.h"

#include <netdb.h>

#include <memory>
#include <string>

namespace config_copy {

using Addresses = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

// At least one address. `what` is what the host is for the user, such as "agent". Throws a Failure
// of unreachable: a name that is not known today may be known tomorrow, so it is never bad usage.
Addresses look_up(const std::string &what, const std::string &host, const char *port,
                  const addrinfo &hints);

// --- parts ---

// The Failure for an error of getaddrinfo(3).
Failure not_found(const std::string &what, const std::string &host, int error);

} // namespace config_copy
