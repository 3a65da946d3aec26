// The datagrams between this client and one server: addressing, the server's transfer id, what the
// network reports, and the clock that says when to repeat and when to give up.
#pragma once

#include "base/unique_fd.h"
#include "tftp/packet.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ulmo::tftp {

using Clock = std::chrono::steady_clock;

// What the server says against a transfer. `result` is what the C interface returns for it
// (platform/tftp_client.h), what() says what happened, beyond the meaning of the result itself; it
// may be empty. What fails on this side or on the way is a std::system_error.
class TransferError : public std::runtime_error {
  public:
    TransferError(int result, const std::string &detail)
        : std::runtime_error(detail), result_(result) {}
    [[nodiscard]] int result() const { return result_; }

  private:
    int result_;
};

// What the C interface returns for an errno value. The same function tells the number of a result.
constexpr int system_result(int number) {
    return -(100 + number);
}

// The error that a server reported. Code 0 says no more than its text, and a code above 99 has no
// result of its own: both become EPROTO.
TransferError server_error(const Error &error);

// Where a server is, and how to talk to it.
struct Endpoint {
    sockaddr_storage address{}; // with the port that takes requests
    socklen_t address_octets = 0;
    // network device that the socket is bound to; empty: as routed
    std::string device;
    // how long without a step forward before the transfer is given up
    std::chrono::seconds patience{20};
    std::uint16_t block_size = largest_block_size; // upper bounds of what is asked for
    std::uint16_t window_size = 64;
};

// Whether both addresses name the same host, ports aside.
bool same_host(const sockaddr_storage &one, const sockaddr_storage &other);

// The UDP payload that fits into one packet on the way to the server, as far as the kernel knows
// the path. Sends nothing.
std::size_t path_payload(const Endpoint &server);

// One socket, and so one transfer id of ours.
class Channel {
  public:
    explicit Channel(const Endpoint &server);

    // Sends to the port that takes requests, or to the server's transfer id once that is known.
    void send(Octets packet);

    // The next packet of the server, or nothing at `until`. Before adopt(), that is any packet from
    // the server's host; afterwards, only those with the server's transfer id, and others from its
    // host are answered with error 5. Views into the packet hold until the next call. Throws what
    // the network reports: that nobody listens, or, as long as the server has not answered, that it
    // can't be reached.
    std::optional<Packet> receive(Clock::time_point until);

    // Makes the source port of the packet received last the server's transfer id.
    void adopt();

    // Told by the network since the server's last packet: the errno value, or 0.
    [[nodiscard]] int unreachable() const { return unreachable_; }

  private:
    std::optional<Octets> next_datagram();
    bool drain_errors();

    UniqueFd socket_;
    sockaddr_storage server_;
    socklen_t server_octets_;
    sockaddr_storage source_{};
    bool adopted_ = false;
    int unreachable_ = 0;
    // an errno value that ends the transfer once nothing of the server's is left to read ...
    int final_ = 0;
    Clock::time_point final_at_; // ... and this time has come
    std::vector<std::uint8_t> buffer_;
};

// When to repeat the last packet, and when to give up. The time to wait follows the measured round
// trip (RFC 6298) and doubles with each repetition; a packet that was repeated measures nothing.
class Retransmission {
  public:
    explicit Retransmission(std::chrono::seconds patience);

    // A packet that calls for an answer goes out for the first time.
    void sent();
    // A packet goes out again: the answer to it measures nothing.
    void resent();
    // The transfer went a step forward.
    void progressed();
    // When the wait ends.
    [[nodiscard]] Clock::time_point wake() const;
    // The wait ended: false if patience ended with it, otherwise the next wait has begun.
    bool repeat();
    // The smoothed round trip; until one was measured, the time to wait.
    [[nodiscard]] Clock::duration round_trip() const {
        return smoothed_ == Clock::duration::zero() ? wait_ : smoothed_;
    }

  private:
    Clock::duration patience_;
    Clock::duration wait_;
    Clock::duration smoothed_{};
    Clock::duration variation_{};
    std::optional<Clock::time_point> measured_from_;
    Clock::time_point repeat_at_;
    Clock::time_point give_up_at_;
};

} // namespace ulmo::tftp
