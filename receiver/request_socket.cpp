#include "receiver/request_socket.h"

#include "base/posix.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace receiver {
namespace {

socklen_t octets_of(int family) {
    return family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

struct alignas(cmsghdr) Control {
    std::array<std::uint8_t, CMSG_SPACE(sizeof(in6_pktinfo))> octets{};
};

template <typename Info> Info info_of(const cmsghdr *header) {
    Info info{};
    std::memcpy(&info, CMSG_DATA(header), sizeof info);
    return info;
}

// The address of ours that the datagram was sent to; empty for a broadcast or a multicast.
std::optional<sockaddr_storage> unicast_address(const cmsghdr *header) {
    sockaddr_storage address{};
    if (header == nullptr) {
        return std::nullopt;
    }
    if (header->cmsg_level == IPPROTO_IP && header->cmsg_type == IP_PKTINFO) {
        const auto info = info_of<in_pktinfo>(header);
        if (info.ipi_spec_dst.s_addr != info.ipi_addr.s_addr) {
            return std::nullopt;
        }
        auto &ipv4 = reinterpret_cast<sockaddr_in &>(address);
        ipv4.sin_family = AF_INET;
        ipv4.sin_addr = info.ipi_addr;
        return address;
    }
    if (header->cmsg_level == IPPROTO_IPV6 && header->cmsg_type == IPV6_PKTINFO) {
        const auto info = info_of<in6_pktinfo>(header);
        if (IN6_IS_ADDR_MULTICAST(&info.ipi6_addr)) {
            return std::nullopt;
        }
        auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(address);
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_addr = info.ipi6_addr;
        if (IN6_IS_ADDR_LINKLOCAL(&info.ipi6_addr)) {
            ipv6.sin6_scope_id = info.ipi6_ifindex;
        }
        return address;
    }
    return std::nullopt;
}

// Sets what goes with a message, which has room for it.
template <typename Info> void put_info(msghdr &message, int level, int type, const Info &info) {
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (header == nullptr) {
        return;
    }
    message.msg_controllen = CMSG_SPACE(sizeof info);
    header->cmsg_level = level;
    header->cmsg_type = type;
    header->cmsg_len = CMSG_LEN(sizeof info);
    std::memcpy(CMSG_DATA(header), &info, sizeof info);
}

} // namespace

RequestSocket::RequestSocket(int family, std::uint16_t port)
    : socket_(ulmo::check(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0), "cannot open a socket")) {
    const int yes = 1;
    const bool is_ipv6 = family == AF_INET6;
    if (is_ipv6) {
        ulmo::check(::setsockopt(socket_.get(), IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof yes));
    }
    ulmo::check(::setsockopt(socket_.get(), is_ipv6 ? IPPROTO_IPV6 : IPPROTO_IP,
                             is_ipv6 ? IPV6_RECVPKTINFO : IP_PKTINFO, &yes, sizeof yes));
    // For many switches that ask at once; the kernel limits it to its configured maximum.
    constexpr int receive_buffer = 512 * 1024;
    ulmo::check(
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer));
    sockaddr_storage any{}; // the wildcard of both families
    any.ss_family = static_cast<sa_family_t>(family);
    // The port is at the same place for both address families.
    reinterpret_cast<sockaddr_in &>(any).sin_port = htons(port);
    ulmo::check(::bind(socket_.get(), reinterpret_cast<const sockaddr *>(&any), octets_of(family)));
}

std::optional<Incoming> RequestSocket::receive() {
    for (;;) {
        std::array<std::uint8_t, ulmo::tftp::largest_request> buffer;
        Incoming incoming;
        iovec part{buffer.data(), buffer.size()};
        Control control;
        msghdr header{};
        header.msg_name = &incoming.source;
        header.msg_namelen = sizeof incoming.source;
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control.octets.data();
        header.msg_controllen = control.octets.size();
        const ssize_t octets = ::recvmsg(socket_.get(), &header, MSG_DONTWAIT);
        if (octets < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::nullopt;
        }
        const auto local = unicast_address(CMSG_FIRSTHDR(&header));
        if (!local || (header.msg_flags & MSG_TRUNC) != 0) {
            continue;
        }
        incoming.local = *local;
        incoming.octets.assign(buffer.begin(), buffer.begin() + octets);
        return incoming;
    }
}

void RequestSocket::answer(const Incoming &incoming, ulmo::tftp::Octets packet) {
    iovec part{const_cast<std::uint8_t *>(packet.data()), packet.size()};
    Control control;
    msghdr header{};
    header.msg_name = const_cast<sockaddr_storage *>(&incoming.source);
    header.msg_namelen = octets_of(incoming.source.ss_family);
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.octets.data();
    header.msg_controllen = control.octets.size();
    if (incoming.local.ss_family == AF_INET6) {
        const auto &local = reinterpret_cast<const sockaddr_in6 &>(incoming.local);
        put_info(header, IPPROTO_IPV6, IPV6_PKTINFO,
                 in6_pktinfo{local.sin6_addr, local.sin6_scope_id});
    } else {
        in_pktinfo info{};
        info.ipi_spec_dst = reinterpret_cast<const sockaddr_in &>(incoming.local).sin_addr;
        put_info(header, IPPROTO_IP, IP_PKTINFO, info);
    }
    ::sendmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::vector<RequestSocket> bind_request_sockets(std::uint16_t port) {
    std::vector<RequestSocket> sockets;
    sockets.emplace_back(AF_INET, port);
    try {
        sockets.emplace_back(AF_INET6, port);
    } catch (const std::system_error &failure) {
        if (failure.code().value() != EAFNOSUPPORT && failure.code().value() != EADDRNOTAVAIL) {
            throw;
        }
    }
    return sockets;
}

} // namespace receiver
