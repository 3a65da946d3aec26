// Shared by the endpoints and servers of msgbus: the message, its form on a Unix-domain seqpacket
// connection (unix(7)), and the rule of trust.
#pragma once

#include "base/unique_fd.h"
#include "platform/msgbus.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

// A message with its payload, which is aligned to 32 bits.
struct msgbus_message {
    msgbus_message(uint32_t message_opcode, uint32_t message_token, const void *payload,
                   uint32_t payload_length);

    uint32_t opcode;
    uint32_t token; // 0: not part of an exchange
    uint32_t length;
    std::vector<uint32_t> words; // never empty
};

namespace ulmo {

// The folder of the access points' sockets, created if it does not exist. Throws std::system_error.
std::filesystem::path msgbus_dir();
std::filesystem::path sap_path(uint32_t sap);

// A seqpacket socket, non-blocking and close-on-exec. Throws std::system_error.
UniqueFd make_bus_socket();

// The address of a socket file. Throws std::system_error with ENAMETOOLONG.
struct SocketAddress {
    explicit SocketAddress(const std::filesystem::path &path);
    [[nodiscard]] const sockaddr *get() const;
    [[nodiscard]] socklen_t length() const;

    sockaddr_storage storage{};
};

// Connects to the server of the access point without blocking. `error` is 0 or an errno value:
// ENOENT or ECONNREFUSED if there is no server, EPERM if the server is not trusted. Throws
// std::system_error.
UniqueFd connect_to(uint32_t sap, int &error);

// The same, tried again until `deadline` as long as nobody serves the access point or its queue is
// full: either may pass within a moment.
UniqueFd connect_to(uint32_t sap, int &error, std::chrono::steady_clock::time_point deadline);

// Sends one packet without blocking. Returns 0 or an errno value.
int send_packet(int connection, uint32_t opcode, uint32_t token, const void *payload,
                uint32_t length);

enum class Receipt {
    message,   // one message was received
    none,      // nothing there yet
    closed,    // the peer is gone
    malformed, // a packet that is not a message was received and discarded
};

// Receives one packet without blocking; sets `message` if it is a message.
Receipt receive_packet(int connection, std::unique_ptr<msgbus_message> &message);

// The process at the other end, as the kernel reports it: pid 0 and an impossible user if it
// doesn't.
ucred peer_of(int connection);

// Trusts the superuser, the process's own user and the owner of the run directory, if that exists,
// and nobody else.
bool is_trusted(const ucred &peer);

} // namespace ulmo
