// A configuration action in a process of its own: it can be given up at any moment, and no slow
// disk or switch holds the daemon up.
#pragma once

#include "base/unique_fd.h"
#include "platform/host/system_manager/action.h"

#include <sys/types.h>

#include <chrono>
#include <optional>

namespace ulmo {

class ActionProcess {
  public:
    // Starts the action. The new process holds no other descriptor of this one than its standard
    // streams, and ends with it. Throws std::system_error. SIGTERM and SIGCHLD are blocked in the
    // caller, as in every process that reads them from a descriptor.
    explicit ActionProcess(const Action &action);
    ~ActionProcess(); // an action that still runs is killed
    ActionProcess(const ActionProcess &) = delete;
    ActionProcess &operator=(const ActionProcess &) = delete;

    // Asks the action to be given up. It ends soon: after `patience` the process is killed by
    // kill_if_overdue().
    void give_up(std::chrono::milliseconds patience = std::chrono::seconds{5});
    void kill_if_overdue();

    // How the action went once its process has ended, which SIGCHLD tells; nothing before. To be
    // called until it has told once.
    std::optional<ActionOutcome> outcome();

  private:
    ActionOutcome reported(int status);

    pid_t process_ = -1;
    UniqueFd report_;
    std::optional<std::chrono::steady_clock::time_point> overdue_;
};

} // namespace ulmo
