#include "fake_inet_address.h"

#include <arpa/inet.h>
#include <cerrno>

InetAddressFake fake_inet_address;

void InetAddressFake::reset() {
    to_str_error = 0;
    from_str_error = 0;
    written.clear();
    sizes.clear();
}

extern "C" {

int ip_addr_from_str(const char *text, struct inet_address *address) {
    if (fake_inet_address.from_str_error != 0) {
        return fake_inet_address.from_str_error;
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
    fake_inet_address.written.push_back(*address);
    fake_inet_address.sizes.push_back(size);
    if (fake_inet_address.to_str_error != 0) {
        return fake_inet_address.to_str_error;
    }
    if (address->type != INET_ADDRESS_IPV4 && address->type != INET_ADDRESS_IPV6) {
        return EAFNOSUPPORT;
    }
    const int family = address->type == INET_ADDRESS_IPV4 ? AF_INET : AF_INET6;
    return inet_ntop(family, address->octets, text, static_cast<socklen_t>(size)) == nullptr ? errno
                                                                                             : 0;
}

} // extern "C"
