// Observes the messages that the endpoints of this process send and the answers they get. The
// agent's side does so, to report to administrators the saves that managers request.
#pragma once

#include "base/unique_fd.h"
#include "platform/msgbus.h"

#include <cstdint>

namespace ulmo {

class BusObserver {
  public:
    virtual ~BusObserver() = default;

    // A message is about to be sent.
    virtual void sending(std::uint32_t opcode, const void *payload,
                         std::uint32_t length) noexcept = 0;

    // A message was sent, or failed with this errno value. Must not throw.
    virtual void sent(std::uint32_t opcode, int error) noexcept = 0;

    // An answer was received; the connection is the one on which the peer may send more.
    virtual void answered(msgbus_msg answer, UniqueFd connection) noexcept = 0;

    // The request of that token will not be answered; `error` is an errno value.
    virtual void unanswered(std::uint32_t token, int error) noexcept = 0;
};

// Observes from now to the end of the process.
void observe_bus(BusObserver &observer);

} // namespace ulmo
