// Addresses in the platform's format, read and written by inet_pton(3) and inet_ntop(3).
#include "platform/inet_address.h"

#include "base/address_text.h"
#include "base/c_boundary.h"

#include <arpa/inet.h>

#include <array>
#include <cerrno>
#include <cstring>

static_assert(sizeof(in6_addr) == sizeof(inet_address::octets) && sizeof(in_addr) == 4);

namespace ulmo {

std::string address_text(std::string_view octets) {
    const int family = octets.size() == sizeof(in_addr) ? AF_INET : AF_INET6;
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (octets.size() != sizeof(in_addr) && octets.size() != sizeof(in6_addr)) {
        return "?";
    }
    ::inet_ntop(family, octets.data(), text.data(), text.size());
    return text.data();
}

std::string address_text(const inet_address &address) {
    const std::size_t length = address.type == INET_ADDRESS_IPV4   ? sizeof(in_addr)
                               : address.type == INET_ADDRESS_IPV6 ? sizeof(in6_addr)
                                                                   : 0;
    return address_text({reinterpret_cast<const char *>(address.octets), length});
}

} // namespace ulmo

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
    if (address->type != INET_ADDRESS_IPV4 && address->type != INET_ADDRESS_IPV6) {
        return EAFNOSUPPORT;
    }
    return ulmo::errno_of([=] {
        // Formatted separately, so that the caller's buffer is unchanged when it is too small.
        const std::string whole = ulmo::address_text(*address);
        if (whole.size() + 1 > size) {
            return ENOSPC;
        }
        std::memcpy(text, whole.c_str(), whole.size() + 1);
        return 0;
    });
}
