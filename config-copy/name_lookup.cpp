#include "config-copy/name_lookup.h"

namespace config_copy {

Failure not_found(const std::string &what, const std::string &host, int error) {
    return {ExitStatus::unreachable,
            "the " + what + " \"" + host + "\" can't be found: " + ::gai_strerror(error) +
                (error == EAI_AGAIN ? "; try again later, or write its address"
                                    : "; check its name, or write its address")};
}

Addresses look_up(const std::string &what, const std::string &host, const char *port,
                  const addrinfo &hints) {
    addrinfo *list = nullptr;
    const int error = ::getaddrinfo(host.c_str(), port, &hints, &list);
    if (error != 0) {
        throw not_found(what, host, error);
    }
    return {list, &::freeaddrinfo};
}

} // namespace config_copy
