// Room: the system manager: its daemon, and what the worker and the shell ask of it.
// Used by: agent, programs.
// May use: base, copy_client, history, bus, device, fabric, platform.
//
// The system manager: takes configuration actions from the message bus, one at a time, and reports
// the outcome of each to its requester, on the connection of the request. If that connection closes
// earlier, the requester knows that no outcome will follow. It also has a change of the running
// configuration undone that did not end, or was not saved in time
// (platform/host/device/way_back.h); a save that has begun by then is waited for, and none begins
// meanwhile.
#pragma once

#include "base/state_file.h"
#include "base/unique_fd.h"
#include "platform/host/bus/server.h"
#include "platform/host/system_manager/action_process.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace ulmo {

class Warden {
  public:
    // Starts to serve. Blocks the signals that run() reads. Throws std::system_error, with
    // EADDRINUSE if another system manager runs.
    Warden();

    // Serves until SIGTERM or SIGINT; an action running then is given up, and its outcome is still
    // reported to the requester.
    void run();

  private:
    using Clock = std::chrono::steady_clock;

    // An action from its request to its end.
    struct Work {
        Action action;
        Incoming request;
        Clock::time_point began;
        std::unique_ptr<ActionProcess> process; // null: not begun yet
        bool is_given_up = false;               // nobody waits for its end any more
    };

    void take(Incoming incoming);
    void take_request(Incoming incoming);
    void take_abort(const Incoming &incoming);
    void begin(Work &work);
    void collect();
    void end(const ActionOutcome &outcome);
    void keep();
    void look_back();
    void put_off(const std::string &reason);
    [[nodiscard]] int time_to_wait() const;

    MsgbusServer server_;
    UniqueFd signals_;
    std::optional<Work> current_;
    std::optional<Work> next_; // waits for the end of a current one that was given up
    bool is_ending_ = false;

    std::optional<FileLock> keeper_; // way_back_keeper()
    std::unique_ptr<ActionProcess> way_back_;
    Clock::time_point next_look_ = Clock::now();
    unsigned failed_looks_ = 0; // in a row
};

// Starts the switch: the startup configuration becomes the running configuration. Does nothing if
// an earlier system manager has done so since the machine booted. Throws as the device does.
void start_switch();

} // namespace ulmo
