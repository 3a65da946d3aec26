// The running boot of the machine, and the time since it began.
#pragma once

#include <chrono>
#include <string>

namespace ulmo {

// Differs for each boot; random(4).
std::string boot_id();

// Includes the time in which the machine was suspended. Setting the clock does not change it.
std::chrono::milliseconds time_since_boot();

} // namespace ulmo
