// Copies between switches and files of this machine: config-copy-receiver(8) offers each file by
// TFTP to one switch, under a name that nobody can guess, while the copy runs.
#pragma once

#include "base/unique_fd.h"
#include "config-copy/agents/server_address.h"
#include "receiver/orders.h"

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace config_copy {

class LocalTransfer;

// The running program. Any thread may use it.
class LocalTransfers {
  public:
    // Starts the program. Its port may be in use by another copy, for whose end it waits up to
    // `patience`. Throws Interrupted, and a Failure if there is no port to serve.
    explicit LocalTransfers(std::chrono::seconds patience);
    LocalTransfers(const LocalTransfers &) = delete;
    LocalTransfers &operator=(const LocalTransfers &) = delete;
    ~LocalTransfers();

  private:
    friend class LocalTransfer;

    // What the program has reported about one order.
    struct State {
        std::optional<receiver::Report> ended; // of the last transfer
        std::string stranger;                  // another address that used the name
    };

    void stop();
    void listen();

    ulmo::UniqueFd socket_;
    pid_t program_ = -1;
    std::thread listener_;
    std::mutex mutex_;
    std::condition_variable news_;
    std::map<std::uint32_t, State> states_;
    std::uint32_t last_id_ = 0;
    std::string end_; // why the program has ended; empty while it runs
};

// A file that one switch may read or write.
class LocalTransfer {
  public:
    using Direction = receiver::Order::Direction;

    // Offers the open file to the switch at this address. Throws a Failure if the program has
    // ended.
    LocalTransfer(LocalTransfers &transfers, int file, Direction direction,
                  const ServerAddress &peer);
    LocalTransfer(const LocalTransfer &) = delete;
    LocalTransfer &operator=(const LocalTransfer &) = delete;
    ~LocalTransfer(); // from then on the name is unknown

    // The file's name for the switch.
    [[nodiscard]] const std::string &name() const { return name_; }

    // The octets of the complete file; waits up to `limit` for its end. Empty if it is not complete
    // then.
    std::optional<std::uint64_t> octets_moved(std::chrono::milliseconds limit);

    // What went wrong on this side, in words; empty if nothing did.
    std::string trouble();

  private:
    LocalTransfers &transfers_;
    std::uint32_t id_ = 0;
    std::string name_;
};

} // namespace config_copy
