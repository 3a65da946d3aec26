// A configuration action in a process of its own: it can be given up at any moment, and a slow disk
// or switch does not block the daemon.
#pragma once

#include "base/unique_fd.h"
#include "platform/host/system_manager/action.h"

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>

namespace ulmo {

class ActionProcess {
  public:
    // Starts the action. The new process inherits only the standard streams, and ends with this
    // process. Throws std::system_error. SIGTERM and SIGCHLD must be blocked in the caller, which
    // reads them from a descriptor.
    explicit ActionProcess(const Action &action)
        : ActionProcess([&action](int stop) { return perform(action, stop); }) {}
    // The same for other work, which is given the descriptor that becomes readable when it should
    // stop.
    explicit ActionProcess(const std::function<ActionOutcome(int stop)> &work);
    ~ActionProcess(); // kills an action that is still running
    ActionProcess(const ActionProcess &) = delete;
    ActionProcess &operator=(const ActionProcess &) = delete;

    // Asks the action to give up, which it does soon; after `timeout` kill_if_overdue() kills the
    // process.
    void give_up(std::chrono::milliseconds timeout = std::chrono::seconds{5});
    void kill_if_overdue();

    // The outcome of the action once its process has ended (SIGCHLD), nothing before. To be called
    // until it has returned the outcome once.
    std::optional<ActionOutcome> outcome();

  private:
    ActionOutcome reported(int status);

    pid_t process_ = -1;
    UniqueFd report_;
    std::optional<std::chrono::steady_clock::time_point> overdue_;
};

} // namespace ulmo
