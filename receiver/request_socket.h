// Sockets for the requests of clients, which say what address of ours a request was sent to.
#pragma once

#include "base/unique_fd.h"
#include "tftp/packet.h"

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace receiver {

// A datagram to one of our unicast addresses.
struct Incoming {
    std::vector<std::uint8_t> octets;
    sockaddr_storage source{};
    sockaddr_storage local{}; // the address that it was sent to, with port 0
};

class RequestSocket {
  public:
    // Binds all addresses of the family, AF_INET or AF_INET6. Throws.
    RequestSocket(int family, std::uint16_t port);

    [[nodiscard]] int descriptor() const { return socket_.get(); }

    // The next datagram that is no longer than a request; empty if there is none yet.
    std::optional<Incoming> receive();

    // Answers it from the address that it was sent to. What can't be sent is lost.
    void answer(const Incoming &incoming, ulmo::tftp::Octets packet);

  private:
    ulmo::UniqueFd socket_;
};

// Sockets of both families; of IPv4 alone on a machine without IPv6. Throws what keeps either from
// being bound.
std::vector<RequestSocket> bind_request_sockets(std::uint16_t port);

} // namespace receiver
