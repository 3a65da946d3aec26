// Whoever in this process wants to know what its endpoints send and which answers they get: the
// agent's side, which tells administrators of the saves that managers ask for.
#pragma once

#include "base/unique_fd.h"
#include "platform/msgbus.h"

#include <cstdint>

namespace ulmo {

class BusObserver {
  public:
    virtual ~BusObserver() = default;

    // A message was sent, or could not be: an errno value. Must not throw.
    virtual void sent(std::uint32_t opcode, int error) noexcept = 0;

    // An answer has come, and the connection to the peer on which more may follow.
    virtual void answered(msgbus_msg answer, UniqueFd connection) noexcept = 0;

    // No answer will come to the request of that token: an errno value says why.
    virtual void unanswered(std::uint32_t token, int error) noexcept = 0;
};

// From now on, and as long as the process lives.
void observe_bus(BusObserver &observer);

} // namespace ulmo
