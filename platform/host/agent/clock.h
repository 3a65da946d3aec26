// Keeps the agent's start time correct when the system clock is set.
#pragma once

#include "base/unique_fd.h"

#include <chrono>

namespace ulmo {

// The wall clock and a clock that nobody sets, read at the same moment (clock_gettime(2):
// CLOCK_REALTIME and CLOCK_BOOTTIME).
struct ClockReading {
    std::chrono::nanoseconds wall;
    std::chrono::nanoseconds running;
};

ClockReading read_clocks();

// Moves the agent's start time together with the wall clock and raises
// AGENT_CALLBACK_STARTTIME_CHANGE. netsnmp_timeval_uptime() then gives the true uptime of moments
// after the change, and sysUpTime is not affected. The callback has whole seconds; fractions are
// accumulated.
class StartTimeKeeper {
  public:
    explicit StartTimeKeeper(ClockReading now);

    void observe(ClockReading now);

  private:
    std::chrono::nanoseconds seen_;           // the wall clock minus the other clock
    std::chrono::milliseconds unreported_{0}; // moved, but not yet reported by the callback
};

// A descriptor that becomes readable when the wall clock is set.
class ClockWatch {
  public:
    ClockWatch(); // throws std::system_error

    [[nodiscard]] int fd() const { return timer_.get(); }
    // Moves the start time if the clock was set since the last call.
    void handle_change();

  private:
    void arm() const;

    UniqueFd timer_;
    StartTimeKeeper keeper_;
};

} // namespace ulmo
