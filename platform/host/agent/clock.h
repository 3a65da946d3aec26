// Keeps the agent's start time true when the system clock is set.
#pragma once

#include "base/unique_fd.h"

#include <chrono>
#include <vector>

namespace ulmo {

// The wall clock and, read at the same moment, the clock that nobody sets (clock_gettime(2):
// CLOCK_REALTIME and CLOCK_BOOTTIME).
struct ClockReading {
    std::chrono::nanoseconds wall;
    std::chrono::nanoseconds running;
};

ClockReading read_clocks();

// Moves the agent's start time along with the wall clock, so that netsnmp_timeval_uptime() gives
// the true uptime of moments after the change and sysUpTime goes on undisturbed, and raises
// AGENT_CALLBACK_STARTTIME_CHANGE. The callback's unit is the second: what is smaller is kept until
// it makes one.
class StartTimeKeeper {
  public:
    explicit StartTimeKeeper(ClockReading now);

    void observe(ClockReading now);

  private:
    std::chrono::nanoseconds seen_;           // wall clock ahead of the running one
    std::chrono::milliseconds unreported_{0}; // moved, but not yet told of
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
