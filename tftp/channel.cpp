#include "tftp/channel.h"

#include "base/posix.h"
#include "base/timespec.h"

#include <linux/errqueue.h>
#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace ulmo::tftp {
namespace {

constexpr std::size_t udp_header = 8;
constexpr std::size_t ipv4_header = 20;
constexpr std::size_t ipv6_header = 40;

constexpr Clock::duration first_wait = std::chrono::seconds(1);
constexpr Clock::duration least_wait = std::chrono::milliseconds(100);
constexpr Clock::duration longest_wait = std::chrono::seconds(8);

// How much earlier than the server's last packet the report that its port is closed may arrive.
constexpr Clock::duration last_words = std::chrono::milliseconds(200);

// Room for a window that arrives while the file system is busy. The kernel limits it to its
// configured maximum.
constexpr int receive_buffer = 512 * 1024;

const sockaddr *plain(const sockaddr_storage &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}
sockaddr *plain(sockaddr_storage &address) {
    return reinterpret_cast<sockaddr *>(&address);
}
const sockaddr_in &ipv4(const sockaddr_storage &address) {
    return reinterpret_cast<const sockaddr_in &>(address);
}
const sockaddr_in6 &ipv6(const sockaddr_storage &address) {
    return reinterpret_cast<const sockaddr_in6 &>(address);
}

// The port is at the same place for both address families.
in_port_t port(const sockaddr_storage &address) {
    return ipv4(address).sin_port;
}

void set_option(const UniqueFd &socket, int level, int name, int value) {
    check(::setsockopt(socket.get(), level, name, &value, sizeof value),
          "cannot set up the socket");
}

UniqueFd open_socket(const Endpoint &server) {
    UniqueFd opened(check(::socket(server.address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0),
                          "cannot open a socket"));
    if (!server.device.empty() &&
        ::setsockopt(opened.get(), SOL_SOCKET, SO_BINDTODEVICE, server.device.c_str(),
                     static_cast<socklen_t>(server.device.size())) != 0) {
        throw_errno("cannot bind to", server.device);
    }
    if (server.local.ss_family != AF_UNSPEC) {
        check(::bind(opened.get(), plain(server.local), server.address_octets),
              "cannot bind the socket");
    }
    return opened;
}

timespec remaining(Clock::time_point until) {
    return timespec_of(
        std::max(std::chrono::nanoseconds(until - Clock::now()), std::chrono::nanoseconds(0)));
}

bool is_unreachable(int number) {
    return number == ENETUNREACH || number == EHOSTUNREACH || number == EHOSTDOWN ||
           number == EACCES || number == ENONET || number == EPROTO || number == ENOPROTOOPT;
}

// An unreachable host is reported as an unreachable network: either way there is no route to the
// server.
int without_host(int number) {
    return number == EHOSTUNREACH || number == EHOSTDOWN ? ENETUNREACH : number;
}

} // namespace

TransferError reported_error(const Error &error, const std::string &peer) {
    const std::string detail = "the " + peer + " reports error " + std::to_string(error.code) +
                               (error.text.empty() ? "" : ", " + error.text);
    if (error.code == 0 || error.code > 99) {
        return {system_result(EPROTO), detail};
    }
    return {-static_cast<int>(error.code), detail};
}

bool same_host(const sockaddr_storage &one, const sockaddr_storage &other) {
    if (one.ss_family != other.ss_family) {
        return false;
    }
    if (one.ss_family == AF_INET) {
        return ipv4(one).sin_addr.s_addr == ipv4(other).sin_addr.s_addr;
    }
    // The kernel reports a scope only for link-local addresses.
    const auto one_scope = ipv6(one).sin6_scope_id;
    const auto other_scope = ipv6(other).sin6_scope_id;
    return std::memcmp(&ipv6(one).sin6_addr, &ipv6(other).sin6_addr, sizeof(in6_addr)) == 0 &&
           (one_scope == other_scope || one_scope == 0 || other_scope == 0);
}

std::size_t path_payload(const Endpoint &server) {
    const UniqueFd probe = open_socket(server);
    if (::connect(probe.get(), plain(server.address), server.address_octets) != 0) {
        throw_error(without_host(errno));
    }
    const bool is_ipv6 = server.address.ss_family == AF_INET6;
    int mtu = 0;
    socklen_t octets = sizeof mtu;
    if (::getsockopt(probe.get(), is_ipv6 ? IPPROTO_IPV6 : IPPROTO_IP, is_ipv6 ? IPV6_MTU : IP_MTU,
                     &mtu, &octets) != 0) {
        throw_errno("cannot tell the path's MTU");
    }
    const std::size_t headers = (is_ipv6 ? ipv6_header : ipv4_header) + udp_header;
    return static_cast<std::size_t>(mtu) > headers ? static_cast<std::size_t>(mtu) - headers : 0;
}

// The socket can't be connected, because the server answers from another port than the one for
// requests. So the kernel must be asked to queue ICMP errors.
Channel::Channel(const Endpoint &server, bool is_transfer_id)
    : socket_(open_socket(server)), server_(server.address), server_octets_(server.address_octets),
      adopted_(is_transfer_id), buffer_(largest_packet) {
    const bool is_ipv6 = server_.ss_family == AF_INET6;
    set_option(socket_, is_ipv6 ? IPPROTO_IPV6 : IPPROTO_IP, is_ipv6 ? IPV6_RECVERR : IP_RECVERR,
               1);
    set_option(socket_, SOL_SOCKET, SO_RCVBUF, receive_buffer);
}

void Channel::send(Octets packet) {
    // A send may fail because of a report about an earlier packet, and then sends nothing. Several
    // reports may be queued.
    constexpr int attempts = 4;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (::sendto(socket_.get(), packet.data(), packet.size(), 0, plain(server_),
                     server_octets_) >= 0) {
            return;
        }
        const int problem = errno;
        if (problem == ENOBUFS || problem == ENOMEM) {
            return; // treat it as lost on the way
        }
        if (!drain_errors() && problem != EINTR) {
            throw_error(without_host(problem));
        }
    }
}

std::optional<Packet> Channel::receive(Clock::time_point until) {
    for (;;) {
        if (const auto datagram = next_datagram()) {
            if (!same_host(source_, server_)) {
                continue;
            }
            auto packet = decode(*datagram);
            if (adopted_ && port(source_) != port(server_)) {
                // An error must not be answered with an error, or two confused programs would never
                // stop.
                if (packet && !std::holds_alternative<Error>(*packet)) {
                    const auto refusal =
                        encode_error(ErrorCode::unknown_transfer_id, "Unknown transfer ID");
                    ::sendto(socket_.get(), refusal.data(), refusal.size(), 0, plain(source_),
                             server_octets_);
                }
                continue;
            }
            if (packet) {
                unreachable_ = 0;
                return packet;
            }
            continue;
        }
        const auto now = Clock::now();
        if (final_ != 0 && now >= final_at_) { // and no packet of the server is left
            throw_error(final_);
        }
        if (now >= until) {
            return std::nullopt;
        }
        pollfd readable{socket_.get(), POLLIN, 0};
        const timespec left = remaining(final_ != 0 ? std::min(until, final_at_) : until);
        if (::ppoll(&readable, 1, &left, nullptr) < 0 && errno != EINTR) {
            throw_errno("cannot wait for the server");
        }
        if ((readable.revents & POLLERR) != 0) {
            drain_errors();
        }
    }
}

void Channel::adopt() {
    server_ = source_;
    adopted_ = true;
}

std::optional<Octets> Channel::next_datagram() {
    for (;;) {
        socklen_t octets = sizeof source_;
        const ssize_t received = ::recvfrom(socket_.get(), buffer_.data(), buffer_.size(),
                                            MSG_DONTWAIT, plain(source_), &octets);
        if (received >= 0) {
            return Octets(buffer_.data(), static_cast<std::size_t>(received));
        }
        const int problem = errno;
        if (problem == EAGAIN || problem == EINTR) {
            return std::nullopt;
        }
        // A report arrives before the datagrams that are queued: read on.
        if (!drain_errors()) {
            throw_error(problem, "cannot receive");
        }
    }
}

// Reads what the network reported about packets of this socket. Returns false if there was nothing.
bool Channel::drain_errors() {
    bool any = false;
    for (;;) {
        alignas(cmsghdr) std::array<std::uint8_t, 512> control{};
        sockaddr_storage destination{};
        msghdr message{};
        message.msg_name = &destination;
        message.msg_namelen = sizeof destination;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        if (::recvmsg(socket_.get(), &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) {
            return any;
        }
        any = true;
        for (cmsghdr *header = CMSG_FIRSTHDR(&message); header != nullptr;
             header = CMSG_NXTHDR(&message, header)) {
            const bool is_report =
                (header->cmsg_level == IPPROTO_IP && header->cmsg_type == IP_RECVERR) ||
                (header->cmsg_level == IPPROTO_IPV6 && header->cmsg_type == IPV6_RECVERR);
            // Ignore reports about the refusals that we send to foreign ports.
            if (!is_report || !same_host(destination, server_) ||
                port(destination) != port(server_)) {
                continue;
            }
            sock_extended_err report{};
            std::memcpy(&report, CMSG_DATA(header), sizeof report);
            const int number = without_host(static_cast<int>(report.ee_errno));
            // A server that refuses a transfer sends the reason and closes its port. The reason may
            // still be queued or on its way.
            if (number == ECONNREFUSED || (is_unreachable(number) && !adopted_)) {
                final_at_ = final_ == 0 ? Clock::now() + last_words : final_at_;
                final_ = number;
            } else if (is_unreachable(number)) {
                unreachable_ = number; // the route may come back during the transfer
            }
        }
    }
}

Retransmission::Retransmission(std::chrono::seconds timeout)
    : timeout_(timeout), wait_(std::min(first_wait, timeout_ / 4)),
      repeat_at_(Clock::now() + wait_), give_up_at_(Clock::now() + timeout_) {}

void Retransmission::sent() {
    measured_from_ = Clock::now();
    repeat_at_ = *measured_from_ + wait_;
}

void Retransmission::resent() {
    measured_from_.reset();
    repeat_at_ = Clock::now() + wait_;
}

void Retransmission::progressed() {
    const auto now = Clock::now();
    if (measured_from_) {
        const Clock::duration sample = now - *measured_from_;
        if (smoothed_ == Clock::duration::zero()) {
            smoothed_ = std::max(sample, Clock::duration(1));
            variation_ = sample / 2;
        } else {
            const Clock::duration difference =
                sample > smoothed_ ? sample - smoothed_ : smoothed_ - sample;
            variation_ = (3 * variation_ + difference) / 4;
            smoothed_ = (7 * smoothed_ + sample) / 8;
        }
        wait_ = std::clamp(smoothed_ + 4 * variation_, least_wait, longest_wait);
        measured_from_.reset();
    }
    repeat_at_ = now + wait_;
    give_up_at_ = now + timeout_;
}

Clock::time_point Retransmission::wake() const {
    return std::min(repeat_at_, give_up_at_);
}

bool Retransmission::repeat() {
    const auto now = Clock::now();
    if (now >= give_up_at_) {
        return false;
    }
    wait_ = std::min(2 * wait_, longest_wait);
    resent();
    return true;
}

} // namespace ulmo::tftp
