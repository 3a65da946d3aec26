// This machine's part in one copy from or to a file of this machine.
#pragma once

#include "config-copy/copies/copy_run.h"
#include "config-copy/copies/local_file.h"
#include "config-copy/copies/local_transfer.h"

#include <cstdint>
#include <optional>
#include <string>

namespace config_copy {

class LocalCopy {
  public:
    // Offers the file to the agent; `agent_address` is as from reachable_address(). Throws a
    // Failure.
    LocalCopy(const CopyJob &job, const PathValues &values, const std::string &agent_address);

    // Where and under which name the switch finds the file.
    [[nodiscard]] const ServerAddress &server() const { return server_; }
    [[nodiscard]] const std::string &name() const { return transfer_->name(); }

    // Of a file that is being received; empty for one that is sent.
    [[nodiscard]] std::optional<std::uint64_t> octets_arrived() const;

    // Puts a file that has arrived in its place, and completes the outcome of a copy that the
    // switch calls done. Throws a Failure if the file is not whole, or can't be written.
    void finish(Outcome &outcome);

    // What went wrong on this side, in words; empty if nothing did.
    std::string trouble();

  private:
    bool is_download_;
    ServerAddress server_;
    int file_ = -1;          // that is offered
    ulmo::UniqueFd content_; // of FROM, if it is not shared by all copies
    std::optional<LocalTarget> target_;
    std::optional<LocalTransfer> transfer_;
};

// Parts of the implementation.

// The agent's address in one of the forms of snmpcmd(1), after reachable_address(). Throws a
// Failure of usage if it has no IP address.
ServerAddress peer_address(const std::string &agent_address);

// The address of this machine from which it reaches the other one. Throws a Failure.
ServerAddress own_address_towards(const ServerAddress &peer);

} // namespace config_copy
