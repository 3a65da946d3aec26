// The program of --on-done.
#pragma once

#include "config-copy/output/outcome.h"

#include <chrono>
#include <string>
#include <vector>

namespace config_copy {

inline constexpr std::chrono::seconds time_limit_of_on_done(60);

// Runs the program, an absolute path, with the outcome in its environment and waits for its end.
// Throws a Failure if it fails or takes longer, and Interrupted.
void run_on_done(const std::string &program, const Outcome &outcome,
                 std::chrono::milliseconds time_limit);

// Parts of the implementation.

// NAME=VALUE of each variable. A value that is not known is empty.
std::vector<std::string> environment_of(const Outcome &outcome);

} // namespace config_copy
