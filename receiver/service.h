// The answers to switches: which request is served, refused or ignored.
#pragma once

#include "base/unique_fd.h"
#include "receiver/orders.h"
#include "receiver/request_socket.h"
#include "tftp/packet.h"

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace receiver {

// How long a client may be silent.
constexpr std::chrono::seconds usual_silence{20};

// Transfers that run at a time. Requests beyond that are ignored: clients repeat them.
constexpr std::size_t most_transfers = 1100;

// One thread, and one more for each transfer.
//
// A request is served if an order names its file and its client's address. Before that is certain,
// nothing is kept of a request; a stranger's costs a look-up in two maps and no answer.
class Service {
  public:
    // `orders` is the socket of receiver/orders.h. A transfer is given up when its client has been
    // silent for that long.
    Service(int orders, std::vector<RequestSocket> sockets,
            std::chrono::seconds silence = usual_silence, std::size_t transfers = most_transfers);
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;
    // Ends the transfers that still run.
    ~Service();

    // Returns when the socket for orders is closed. Throws what makes going on impossible.
    void run();

  private:
    class Transfer;

    // An order until it is withdrawn.
    struct Standing {
        Order order;
        std::shared_ptr<ulmo::UniqueFd> file; // a transfer that is leaving needs it, too
        std::unique_ptr<Transfer> transfer;   // the last one
        bool stranger_reported = false;
    };

    bool take_orders(); // all that have come; false if their socket is closed
    void serve(ReceivedOrder received);
    void withdraw(std::uint32_t id);
    void take_request(RequestSocket &socket, const Incoming &incoming);
    void take_request_for(Standing &standing, RequestSocket &socket, const Incoming &incoming,
                          const ulmo::tftp::Request &request);
    void begin(Standing &standing, const Incoming &incoming);

    int orders_;
    std::vector<RequestSocket> sockets_;
    std::chrono::seconds silence_;
    std::size_t transfers_;
    std::atomic<std::size_t> running_ = 0;                  // transfers
    std::map<std::uint32_t, Standing> standings_;           // by id
    std::map<std::string, std::uint32_t, std::less<>> ids_; // by name
    std::map<Peer, std::size_t> expected_;                  // with the number of its orders
    std::list<std::unique_ptr<Transfer>> leaving_;          // of orders that were withdrawn
};

} // namespace receiver
