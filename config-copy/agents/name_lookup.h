// Looking up host names.
#pragma once

#include "config-copy/failure.h"

#include <netdb.h>

#include <chrono>
#include <memory>
#include <string>

namespace config_copy {

using Addresses = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

// As getaddrinfo(3), which may wait for name servers for minutes.
using Resolver = int (*)(const char *host, const char *port, const addrinfo *hints,
                         addrinfo **list);

// Returns at least one address. `what` names the host's role to the user, such as "agent". Throws a
// Failure of unreachable, never of usage: a name that is unknown today may be known tomorrow.
// So it does after `limit`; a signal ends it with Interrupted.
Addresses look_up(const std::string &what, const std::string &host, const char *port,
                  const addrinfo &hints, std::chrono::seconds limit,
                  Resolver resolver = ::getaddrinfo);

// Parts of the implementation.

// The Failure for an error of getaddrinfo(3).
Failure not_found(const std::string &what, const std::string &host, int error);

} // namespace config_copy
