// Room: the program that copies local files to and from switches by TFTP, and what it is asked.
// Used by: config-copy.
// May use: base, tftp.
//
// Orders to that program and its reports, over a Unix-domain socket of type SOCK_SEQPACKET: a
// message each, whole or not at all. Each reader checks what it reads.
#pragma once

#include "base/unique_fd.h"

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace receiver {

// An address in network order, IPv4 as ::ffff:a.b.c.d.
using Peer = std::array<std::uint8_t, 16>;

// The address of an IPv4 or IPv6 socket address; its port and its scope are left out.
Peer peer_of(const sockaddr_storage &address);

struct Order {
    enum class Kind : std::uint32_t {
        serve,   // the file that comes with the order, under this name, for this peer
        withdraw // the order with this id; a transfer that runs for it ends within a second
    };
    enum class Direction : std::uint32_t {
        sends, // the switch reads our file
        takes  // the switch writes it
    };

    Kind kind = Kind::serve;
    std::uint32_t id = 0;   // of one order, for as long as the program runs
    std::uint64_t most = 0; // octets that are taken at most
    Direction direction = Direction::sends;
    Peer peer{};                 // whose requests are answered
    std::array<char, 64> name{}; // a text that nobody can guess, and no other order has
    std::uint32_t unused = 0;    // padding would carry what the memory held before
};

struct Report {
    enum class Kind : std::uint32_t {
        ready,   // requests are answered from now on
        failed,  // they can't be; the program ends
        ended,   // a transfer of this order; the peer may repeat one that has failed
        stranger // another address has asked for this order's name: once for each order
    };

    Kind kind = Kind::ready;
    std::uint32_t id = 0;
    std::uint64_t octets = 0; // that have been sent or stored
    std::int32_t error = 0;   // an errno value, or 0
    // One line: for `failed` what to do, for `stranger` its address, for `ended` the reason, which
    // is empty if the transfer was complete.
    std::array<char, 256> text{};
    std::uint32_t unused = 0;
};

// The beginning of a UTF-8 text that has `most` octets at most, and only whole characters.
std::string_view beginning_of(std::string_view text, std::size_t most);

// Puts a text into a field of a message. What does not fit before the NUL at the end is cut off.
template <std::size_t size> void put_text(std::array<char, size> &field, std::string_view text) {
    field.fill('\0');
    beginning_of(text, size - 1).copy(field.data(), size - 1);
}

// Each sends one message, and waits while the socket is full. Returns false if the other side has
// closed it. Throws other failures.
bool send(int socket, const Order &order);
bool send(int socket, const Order &order, int file); // a descriptor that goes with it
bool send(int socket, const Report &report);

// The same without waiting. Returns false if the report is not sent.
bool send_now(int socket, const Report &report);

struct ReceivedOrder {
    Order order;
    ulmo::UniqueFd file; // empty if none came with it
};

// Each waits for one message, which is then well-formed: each kind is one of those above, each text
// ends with NUL. Empty if the other side has closed the socket. Throws EPROTO for anything else,
// and other failures, such as EAGAIN if the socket does not wait.
std::optional<ReceivedOrder> receive_order(int socket);
std::optional<Report> receive_report(int socket);

} // namespace receiver
