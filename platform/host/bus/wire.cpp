#include "platform/host/bus/wire.h"

#include "base/folders.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "platform/host/history/log.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

msgbus_message::msgbus_message(uint32_t message_opcode, uint32_t message_token, const void *payload,
                               uint32_t payload_length)
    : opcode(message_opcode), token(message_token), length(payload_length),
      words(payload_length / sizeof(uint32_t) + 1) {
    if (length > 0) {
        std::memcpy(words.data(), payload, length);
    }
}

namespace ulmo {
namespace {

constexpr uint32_t packet_magic = 0x6d736762; // "msgb"
constexpr uint32_t packet_version = 1;

// Both ends are on one host, so the words are in its byte order.
struct PacketHeader {
    uint32_t magic;
    uint32_t version;
    uint32_t opcode;
    uint32_t token;
    uint32_t length; // octets of payload that follow
};
static_assert(sizeof(PacketHeader) == 20);

} // namespace

std::filesystem::path msgbus_dir() {
    const auto run = run_dir();
    const ActingAsOwner owner(run);
    auto directory = run / "msgbus";
    struct stat status {};
    const bool there = (::mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST) &&
                       ::stat(directory.c_str(), &status) == 0;
    if (!there || !S_ISDIR(status.st_mode)) {
        throw_error(there ? ENOTDIR : errno, "message bus", directory.native());
    }
    return directory;
}

std::filesystem::path sap_path(uint32_t sap) {
    return msgbus_dir() / std::to_string(sap);
}

UniqueFd make_bus_socket() {
    constexpr int type = SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK;
    return UniqueFd(check(::socket(AF_UNIX, type, 0), "message bus socket"));
}

SocketAddress::SocketAddress(const std::filesystem::path &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.native().size() >= sizeof address.sun_path) {
        throw_error(ENAMETOOLONG, path.native());
    }
    std::memcpy(address.sun_path, path.c_str(), path.native().size());
    std::memcpy(&storage, &address, sizeof address);
}

const sockaddr *SocketAddress::get() const {
    return reinterpret_cast<const sockaddr *>(&storage);
}

socklen_t SocketAddress::length() const {
    return sizeof(sockaddr_un);
}

UniqueFd connect_to(uint32_t sap, int &error) {
    UniqueFd connection = make_bus_socket();
    const SocketAddress address(sap_path(sap));
    error = 0;
    if (::connect(connection.get(), address.get(), address.length()) != 0) {
        error = errno;
    } else if (const ucred server = peer_of(connection.get()); !is_trusted(server)) {
        log_error("msgbus: access point %u is served by user %u, process %d: not trusted", sap,
                  server.uid, server.pid);
        error = EPERM;
    }
    return connection;
}

UniqueFd connect_to(uint32_t sap, int &error, std::chrono::steady_clock::time_point deadline) {
    constexpr std::chrono::milliseconds pause{5};
    for (;;) {
        UniqueFd connection = connect_to(sap, error);
        const bool may_pass = error == EAGAIN || error == ENOENT || error == ECONNREFUSED;
        if (!may_pass || std::chrono::steady_clock::now() + pause >= deadline) {
            return connection;
        }
        std::this_thread::sleep_for(pause);
    }
}

int send_packet(int connection, uint32_t opcode, uint32_t token, const void *payload,
                uint32_t length) {
    PacketHeader header{packet_magic, packet_version, opcode, token, length};
    std::array<iovec, 2> parts{{{&header, sizeof header}, {const_cast<void *>(payload), length}}};
    msghdr packet{};
    packet.msg_iov = parts.data();
    packet.msg_iovlen = parts.size();
    return ::sendmsg(connection, &packet, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0 ? 0 : errno;
}

Receipt receive_packet(int connection, std::unique_ptr<msgbus_message> &message) {
    std::array<std::byte, sizeof(PacketHeader) + MSGBUS_PAYLOAD_MAX> packet;
    const ssize_t received =
        ::recv(connection, packet.data(), packet.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (received < 0) {
        return errno == EAGAIN || errno == EINTR ? Receipt::none : Receipt::closed;
    }
    if (received == 0) {
        return Receipt::closed;
    }
    // the length of the packet, which may exceed what was copied
    const auto size = static_cast<size_t>(received);
    PacketHeader header{};
    std::memcpy(&header, packet.data(), std::min(size, sizeof header));
    if (size < sizeof header || size > packet.size() || header.magic != packet_magic ||
        header.version != packet_version || header.length != size - sizeof header) {
        return Receipt::malformed;
    }
    message = std::make_unique<msgbus_message>(header.opcode, header.token,
                                               packet.data() + sizeof header, header.length);
    return Receipt::message;
}

ucred peer_of(int connection) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return ucred{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    }
    return peer;
}

bool is_trusted(const ucred &peer) {
    return peer.uid == 0 || peer.uid == ::geteuid() || peer.uid == owner_of(run_path());
}

} // namespace ulmo
