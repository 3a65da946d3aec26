// Datagrams between us and one peer: addressing, the peer's transfer id, network errors, and the
// timer for retransmission and giving up. Where we are the client, the peer is a server; where we
// answer a request, it is the client, and what follows says "server" for it all the same.
#pragma once

#include "base/unique_fd.h"
#include "tftp/packet.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <vector>

namespace ulmo::tftp {

using Clock = std::chrono::steady_clock;

// A failure that the server reports. `result` is what the C interface returns for it
// (platform/tftp_client.h). what() gives details beyond the meaning of the result, and may be
// empty. Failures on this side or on the way are std::system_error.
class TransferError : public std::runtime_error {
  public:
    TransferError(int result, const std::string &detail)
        : std::runtime_error(detail), result_(result) {}
    [[nodiscard]] int result() const { return result_; }

  private:
    int result_;
};

// The C interface's result for an errno value; applied to a result, it gives the errno value back.
constexpr int system_result(int number) {
    return -(100 + number);
}

// The exception for an error that the peer reported, which its text calls by that name. Code 0
// means no more than its text, and a code above 99 has no result of its own: both become EPROTO.
TransferError reported_error(const Error &error, const std::string &peer);

constexpr std::chrono::seconds unlimited{1'000'000'000};

// What a transfer must keep to.
struct Limits {
    std::chrono::seconds idle{unlimited};  // in which least_progress octets must move
    std::chrono::seconds total{unlimited}; // for the whole transfer
    std::uint64_t received_octets = std::numeric_limits<std::uint64_t>::max();
};

// One block of plain TFTP. A server may send 8 octets at a time and still never be silent.
constexpr std::uint64_t least_progress = default_block_size;

// A server's address, and how to talk to it.
struct Endpoint {
    sockaddr_storage address{}; // with the port for requests
    socklen_t address_octets = 0;
    // network device that the socket is bound to; empty: as routed
    std::string device;
    // address that the socket is bound to, with port 0; of no family: as routed
    sockaddr_storage local{};
    std::string name = "server"; // in texts
    std::stop_token stop{};      // ends the transfer with ECANCELED, within a quarter of a second
    // how long a transfer may make no progress before it is given up
    std::chrono::seconds timeout{20};
    std::uint16_t block_size = largest_block_size; // upper bounds of the requested options
    std::uint16_t window_size = 170;
    Limits limits{};
};

// Whether both addresses are of the same host, ignoring the ports.
bool same_host(const sockaddr_storage &one, const sockaddr_storage &other);

// The UDP payload that fits into one packet to the server, as far as the kernel knows the path's
// MTU. Sends nothing.
std::size_t path_payload(const Endpoint &server);

// One socket, and therefore one transfer id of this client.
class Channel {
  public:
    // `is_transfer_id`: that is what the server's port is already.
    explicit Channel(const Endpoint &server, bool is_transfer_id = false);

    // Sends to the server's transfer id if it is known, otherwise to the port for requests.
    void send(Octets packet);

    // The next packet from the server; empty at `until`. Before adopt(), any packet from the
    // server's host counts. Afterwards only those with the server's transfer id do, and others from
    // its host are answered with error 5. Views into the packet are valid until the next call.
    // Throws network errors: that no process listens on the port, or, before the server's first
    // answer, that the host is unreachable.
    std::optional<Packet> receive(Clock::time_point until);

    // Takes the source port of the last received packet as the server's transfer id.
    void adopt();

    // The errno value that the network has reported since the server's last packet, or 0.
    [[nodiscard]] int unreachable() const { return unreachable_; }

  private:
    std::optional<Octets> next_datagram();
    bool drain_errors();

    UniqueFd socket_;
    sockaddr_storage server_;
    socklen_t server_octets_;
    sockaddr_storage source_{};
    bool adopted_;
    int unreachable_ = 0;
    // an errno value that ends the transfer once there is nothing left to read from the server ...
    int final_ = 0;
    Clock::time_point final_at_; // ... and this time has come
    std::vector<std::uint8_t> buffer_;
};

// When to repeat the last packet, and when to give up. The waiting time follows the measured round
// trip (RFC 6298) and doubles with each repetition. A packet that was repeated gives no
// measurement.
class Retransmission {
  public:
    explicit Retransmission(std::chrono::seconds timeout);

    // A packet that needs an answer is sent for the first time.
    void sent();
    // A packet is sent again: its answer gives no measurement.
    void resent();
    // The transfer has made progress.
    void progressed();
    // When the current wait ends.
    [[nodiscard]] Clock::time_point wake() const;
    // The wait is over. Returns false if the timeout is over too; otherwise the next wait has
    // begun.
    bool repeat();
    // The smoothed round trip; the waiting time until one has been measured.
    [[nodiscard]] Clock::duration round_trip() const {
        return smoothed_ == Clock::duration::zero() ? wait_ : smoothed_;
    }

  private:
    Clock::duration timeout_;
    Clock::duration wait_;
    Clock::duration smoothed_{};
    Clock::duration variation_{};
    std::optional<Clock::time_point> measured_from_;
    Clock::time_point repeat_at_;
    Clock::time_point give_up_at_;
};

} // namespace ulmo::tftp
