// What endpoints and servers of msgbus share: the message, its form on a Unix-domain seqpacket
// connection (unix(7)), and who is trusted.
#pragma once

#include "base/unique_fd.h"
#include "platform/msgbus.h"

#include <sys/socket.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

// A message with its payload, which begins on a 32-bit boundary.
struct msgbus_message {
    msgbus_message(uint32_t message_opcode, uint32_t message_token, const void *payload,
                   uint32_t payload_length);

    uint32_t opcode;
    uint32_t token; // 0: belongs to no exchange
    uint32_t length;
    std::vector<uint32_t> words; // never empty
};

namespace ulmo {

// The folder of the access points' sockets, made when it is not there. Throws std::system_error.
std::filesystem::path msgbus_dir();
std::filesystem::path sap_path(uint32_t sap);

// A seqpacket socket that neither blocks nor survives an exec. Throws std::system_error.
UniqueFd make_bus_socket();

// The address of a socket file. Throws std::system_error with ENAMETOOLONG.
struct SocketAddress {
    explicit SocketAddress(const std::filesystem::path &path);
    [[nodiscard]] const sockaddr *get() const;
    [[nodiscard]] socklen_t length() const;

    sockaddr_storage storage{};
};

// A connection to who serves the access point, made without waiting; `error` is 0 or an errno
// value: ENOENT or ECONNREFUSED when nobody serves it, EPERM when it is somebody who is not
// trusted. Throws std::system_error.
UniqueFd connect_to(uint32_t sap, int &error);

// Sends one packet without waiting. Returns 0 or an errno value.
int send_packet(int connection, uint32_t opcode, uint32_t token, const void *payload,
                uint32_t length);

enum class Receipt {
    message,   // one message was taken
    none,      // nothing there yet
    closed,    // the peer is gone
    malformed, // what came is no message; it was taken and thrown away
};

// Takes one packet without waiting; `message` is set when there is one.
Receipt receive_packet(int connection, std::unique_ptr<msgbus_message> &message);

// The process at the other end, by the kernel's word: pid 0 and an impossible user when the kernel
// doesn't tell.
ucred peer_of(int connection);

// The superuser, the process's own user and the one to whom the run directory belongs, while it is
// there, are trusted, nobody else.
bool is_trusted(const ucred &peer);

} // namespace ulmo
