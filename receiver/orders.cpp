#include "receiver/orders.h"

#include "base/posix.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <type_traits>

namespace receiver {
namespace {

static_assert(std::has_unique_object_representations_v<Order> && sizeof(Order) == 104);
static_assert(std::has_unique_object_representations_v<Report> && sizeof(Report) == 280);

// Room for one descriptor.
struct alignas(cmsghdr) Control {
    std::array<std::uint8_t, CMSG_SPACE(sizeof(int))> octets{};
};

template <typename Message>
bool send_message(int socket, const Message &message, int file, int flags) {
    iovec part{const_cast<Message *>(&message), sizeof message};
    Control control;
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (file >= 0) {
        header.msg_control = control.octets.data();
        header.msg_controllen = control.octets.size();
        cmsghdr *descriptor = CMSG_FIRSTHDR(&header);
        descriptor->cmsg_level = SOL_SOCKET;
        descriptor->cmsg_type = SCM_RIGHTS;
        descriptor->cmsg_len = CMSG_LEN(sizeof file);
        std::memcpy(CMSG_DATA(descriptor), &file, sizeof file);
    }
    while (::sendmsg(socket, &header, MSG_NOSIGNAL | flags) < 0) {
        if (errno == EPIPE || errno == ECONNRESET) {
            return false;
        }
        if (errno != EINTR) {
            ulmo::throw_errno("cannot send a message");
        }
    }
    return true;
}

// Returns false if the other side has closed the socket.
template <typename Message>
bool receive_message(int socket, Message &message, ulmo::UniqueFd *file) {
    iovec part{&message, sizeof message};
    Control control;
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (file != nullptr) {
        header.msg_control = control.octets.data();
        header.msg_controllen = CMSG_LEN(sizeof(int)); // the kernel closes all others
    }
    ssize_t octets = 0;
    while ((octets = ::recvmsg(socket, &header, MSG_CMSG_CLOEXEC)) < 0) {
        if (errno == ECONNRESET) {
            return false;
        }
        if (errno != EINTR) {
            ulmo::throw_errno("cannot receive a message");
        }
    }
    const cmsghdr *descriptor = CMSG_FIRSTHDR(&header);
    if (file != nullptr && descriptor != nullptr && descriptor->cmsg_type == SCM_RIGHTS) {
        int received = -1;
        std::memcpy(&received, CMSG_DATA(descriptor), sizeof received);
        file->reset(received);
    }
    if (octets == 0) {
        return false;
    }
    if (octets != sizeof message || (header.msg_flags & MSG_TRUNC) != 0) {
        ulmo::throw_error(EPROTO, "a message of the wrong size");
    }
    return true;
}

// A value from outside may be none of its enumerators.
template <typename Kind> void check_kind(Kind kind, Kind last) {
    if (static_cast<std::uint32_t>(kind) > static_cast<std::uint32_t>(last)) {
        ulmo::throw_error(EPROTO, "a message of an unknown kind");
    }
}

} // namespace

Peer peer_of(const sockaddr_storage &address) {
    Peer peer{};
    if (address.ss_family == AF_INET6) {
        const auto &ipv6 = reinterpret_cast<const sockaddr_in6 &>(address);
        std::memcpy(peer.data(), &ipv6.sin6_addr, peer.size());
    } else if (address.ss_family == AF_INET) {
        const auto &ipv4 = reinterpret_cast<const sockaddr_in &>(address);
        constexpr std::size_t before = 12;
        peer[before - 2] = peer[before - 1] = 0xff;
        std::memcpy(&peer[before], &ipv4.sin_addr, sizeof ipv4.sin_addr);
    }
    return peer;
}

std::string_view beginning_of(std::string_view text, std::size_t most) {
    const auto continues = [](char octet) {
        return (static_cast<unsigned char>(octet) >> 6U) == 2;
    };
    std::size_t end = std::min(most, text.size());
    while (end > 0 && end < text.size() && continues(text[end])) {
        --end;
    }
    return text.substr(0, end);
}

bool send(int socket, const Order &order) {
    return send_message(socket, order, -1, 0);
}

bool send(int socket, const Order &order, int file) {
    return send_message(socket, order, file, 0);
}

bool send(int socket, const Report &report) {
    return send_message(socket, report, -1, 0);
}

bool send_now(int socket, const Report &report) {
    try {
        return send_message(socket, report, -1, MSG_DONTWAIT);
    } catch (const std::system_error &failure) {
        if (failure.code().value() == EAGAIN) {
            return false;
        }
        throw;
    }
}

std::optional<ReceivedOrder> receive_order(int socket) {
    ReceivedOrder received;
    if (!receive_message(socket, received.order, &received.file)) {
        return std::nullopt;
    }
    check_kind(received.order.kind, Order::Kind::withdraw);
    check_kind(received.order.direction, Order::Direction::takes);
    received.order.name.back() = '\0';
    return received;
}

std::optional<Report> receive_report(int socket) {
    Report report;
    if (!receive_message(socket, report, nullptr)) {
        return std::nullopt;
    }
    check_kind(report.kind, Report::Kind::stranger);
    report.text.back() = '\0';
    return report;
}

} // namespace receiver
