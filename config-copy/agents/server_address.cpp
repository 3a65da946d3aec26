#include "config-copy/agents/server_address.h"

#include "config-copy/agents/name_lookup.h"
#include "config-copy/failure.h"

#include <arpa/inet.h>
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

ServerAddress address_of(const sockaddr_storage &socket_address) {
    const auto octets = [](const auto &field) {
        return std::string(reinterpret_cast<const char *>(&field), sizeof field);
    };
    if (socket_address.ss_family == AF_INET6) {
        return {INET_ADDRESS_IPV6,
                octets(reinterpret_cast<const sockaddr_in6 &>(socket_address).sin6_addr)};
    }
    return {INET_ADDRESS_IPV4,
            octets(reinterpret_cast<const sockaddr_in &>(socket_address).sin_addr)};
}

std::optional<ServerAddress> parsed_address(const std::string &text) {
    std::string octets(sizeof(in6_addr), '\0');
    if (::inet_pton(AF_INET6, text.c_str(), octets.data()) == 1) {
        return ServerAddress{INET_ADDRESS_IPV6, octets};
    }
    octets.resize(sizeof(in_addr));
    if (::inet_pton(AF_INET, text.c_str(), octets.data()) == 1) {
        return ServerAddress{INET_ADDRESS_IPV4, octets};
    }
    return std::nullopt;
}

ServerAddress server_address(const std::string &host, std::chrono::seconds limit) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    const Addresses list = look_up("file server", host, nullptr, hints, limit);
    sockaddr_storage socket_address{};
    std::memcpy(&socket_address, list->ai_addr, list->ai_addrlen);
    if (list->ai_family == AF_INET6 &&
        reinterpret_cast<const sockaddr_in6 &>(socket_address).sin6_scope_id != 0) {
        throw bad_usage("the file server's address " + host +
                        " is valid on one link of this machine only: write a global address");
    }
    ServerAddress address = address_of(socket_address);
    if (leads_back(address)) {
        throw bad_usage("the file server \"" + host + "\" is " + address_text(address.octets) +
                        ", which on the switch is the switch itself: write the address by which "
                        "the switch reaches the server");
    }
    return address;
}

} // namespace config_copy
