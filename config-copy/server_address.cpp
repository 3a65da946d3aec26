#include "config-copy/server_address.h"

#include "config-copy/failure.h"
#include "config-copy/name_lookup.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace config_copy {
namespace {

bool leads_back(const ServerAddress &address) {
    if (address.type == INET_ADDRESS_IPV4) {
        return address.octets[0] == 127 || address.octets == std::string(4, '\0');
    }
    in6_addr octets{};
    std::memcpy(&octets, address.octets.data(), sizeof octets);
    return IN6_IS_ADDR_LOOPBACK(&octets) || IN6_IS_ADDR_UNSPECIFIED(&octets);
}

} // namespace

ServerAddress server_address(const std::string &host, std::chrono::seconds limit) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    const Addresses list = look_up("file server", host, nullptr, hints, limit);
    ServerAddress address;
    if (list->ai_family == AF_INET6) {
        sockaddr_in6 socket_address{};
        std::memcpy(&socket_address, list->ai_addr, sizeof socket_address);
        if (socket_address.sin6_scope_id != 0) {
            throw bad_usage("the file server's address " + host +
                            " is valid on one link of this machine only: write a global address");
        }
        address = {INET_ADDRESS_IPV6,
                   std::string(reinterpret_cast<const char *>(&socket_address.sin6_addr),
                               sizeof socket_address.sin6_addr)};
    } else {
        sockaddr_in socket_address{};
        std::memcpy(&socket_address, list->ai_addr, sizeof socket_address);
        address = {INET_ADDRESS_IPV4,
                   std::string(reinterpret_cast<const char *>(&socket_address.sin_addr),
                               sizeof socket_address.sin_addr)};
    }
    if (leads_back(address)) {
        throw bad_usage("the file server \"" + host + "\" is " + address_text(address.octets) +
                        ", which on the switch is the switch itself: write the address by which "
                        "the switch reaches the server");
    }
    return address;
}

} // namespace config_copy
