#include "config-copy/agents/agent_address.h"

#include "base/unique_fd.h"
#include "config-copy/agents/name_lookup.h"
#include "config-copy/failure.h"
#include "config-copy/interrupt.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

namespace config_copy {
namespace {

constexpr std::chrono::seconds connect_time(5);

enum class Family { any, ipv4, ipv6 };

struct Transport {
    std::string_view name;
    Family family;
    bool is_tcp;
};

// The transports' names, as in snmpcmd(1).
constexpr std::array<Transport, 10> transports{{{"", Family::any, false},
                                                {"udp:", Family::ipv4, false},
                                                {"udp6:", Family::ipv6, false},
                                                {"udpv6:", Family::ipv6, false},
                                                {"udpipv6:", Family::ipv6, false},
                                                {"tcp:", Family::ipv4, true},
                                                {"tcp6:", Family::ipv6, true},
                                                {"tcpv6:", Family::ipv6, true},
                                                {"tcpipv6:", Family::ipv6, true},
                                                {"udp,udp6:", Family::any, false}}};

const Transport *transport_of(std::string_view name) {
    const auto *found =
        std::find_if(transports.begin(), transports.end(),
                     [&](const Transport &transport) { return transport.name == name; });
    return found == transports.end() ? nullptr : found;
}

bool is_numeric(const std::string &text) {
    in6_addr octets{};
    return ::inet_pton(AF_INET, text.c_str(), &octets) == 1 ||
           ::inet_pton(AF_INET6, text.c_str(), &octets) == 1;
}

bool connects(const addrinfo &address, std::chrono::milliseconds limit) {
    const ulmo::UniqueFd connection(
        ::socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection) {
        return false;
    }
    int error = ::connect(connection.get(), address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        std::array<pollfd, 2> waited{
            {{connection.get(), POLLOUT, 0}, {interrupt_descriptor(), POLLIN, 0}}};
        error = ETIMEDOUT;
        if (::poll(waited.data(), waited.size(), static_cast<int>(limit.count())) > 0 &&
            waited[0].revents != 0) {
            socklen_t length = sizeof error;
            ::getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &length);
        }
    }
    if (interrupting_signal() != 0) {
        throw Interrupted{};
    }
    return error == 0;
}

} // namespace

AgentAddress parse_agent(const std::string &agent) {
    AgentAddress parts;
    std::string rest = agent;
    for (const Transport &transport : transports) {
        if (!transport.name.empty() && rest.starts_with(transport.name)) {
            parts.transport = transport.name;
            rest.erase(0, transport.name.size());
            break;
        }
    }
    if (rest.starts_with('[')) {
        const std::size_t end = rest.find(']');
        if (end == std::string::npos || (end + 1 < rest.size() && rest[end + 1] != ':')) {
            return parts;
        }
        parts.host = rest.substr(1, end - 1);
        parts.port = end + 1 < rest.size() ? rest.substr(end + 2) : "";
    } else if (is_numeric(rest)) { // also an IPv6 address without brackets
        parts.host = rest;
    } else {
        const std::size_t colon = rest.find(':');
        parts.host = rest.substr(0, colon);
        parts.port = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    parts.is_understood = !parts.host.empty() && parts.host.find('/') == std::string::npos &&
                          std::all_of(parts.port.begin(), parts.port.end(), is_digit);
    return parts;
}

std::string reachable_address(const std::string &agent, std::chrono::seconds limit) {
    const AgentAddress parts = parse_agent(agent);
    const Transport *transport = transport_of(parts.transport);
    if (!parts.is_understood || transport == nullptr) {
        return agent;
    }
    addrinfo hints{};
    hints.ai_socktype = transport->is_tcp ? SOCK_STREAM : SOCK_DGRAM;
    hints.ai_family = transport->family == Family::ipv4   ? AF_INET
                      : transport->family == Family::ipv6 ? AF_INET6
                                                          : AF_UNSPEC;
    const std::string port = parts.port.empty() ? "161" : parts.port;
    const Addresses list = look_up("agent", parts.host, port.c_str(), hints, limit);
    if (transport->is_tcp && !connects(*list, std::min(connect_time, limit))) {
        throw Failure(ExitStatus::unreachable,
                      "no connection to " + agent +
                          ": check the address, and whether the agent listens on TCP");
    }
    std::array<char, NI_MAXHOST> address{};
    ::getnameinfo(list->ai_addr, list->ai_addrlen, address.data(), address.size(), nullptr, 0,
                  NI_NUMERICHOST);
    const std::string family = list->ai_family == AF_INET6 ? "6:[" : ":";
    return (transport->is_tcp ? "tcp" : "udp") + family + address.data() +
           (list->ai_family == AF_INET6 ? "]:" : ":") + port;
}

} // namespace config_copy
