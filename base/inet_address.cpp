#include "platform/inet_address.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

static_assert(sizeof(in6_addr) == sizeof(inet_address::octets) && sizeof(in_addr) == 4);

int ip_addr_from_str(const char *text, struct inet_address *address) {
    if (text == nullptr || address == nullptr) {
        return EINVAL;
    }
    inet_address parsed{};
    if (inet_pton(AF_INET, text, parsed.octets) == 1) {
        parsed.type = INET_ADDRESS_IPV4;
    } else if (inet_pton(AF_INET6, text, parsed.octets) == 1) {
        parsed.type = INET_ADDRESS_IPV6;
    } else {
        return EINVAL;
    }
    *address = parsed;
    return 0;
}

int ip_addr_to_str(const struct inet_address *address, char *text, size_t size) {
    if (address == nullptr || text == nullptr) {
        return EINVAL;
    }
    int family = AF_UNSPEC;
    if (address->type == INET_ADDRESS_IPV4) {
        family = AF_INET;
    } else if (address->type == INET_ADDRESS_IPV6) {
        family = AF_INET6;
    } else {
        return EAFNOSUPPORT;
    }
    // Formatted aside, so that a caller whose room does not suffice keeps what he had.
    char whole[INET6_ADDRSTRLEN];
    if (inet_ntop(family, address->octets, whole, sizeof whole) == nullptr) {
        return errno;
    }
    const size_t needed = std::strlen(whole) + 1;
    if (needed > size) {
        return ENOSPC;
    }
    std::memcpy(text, whole, needed);
    return 0;
}
