// The file of --outcomes: how each copy ended, run after run.
#pragma once

#include "config-copy/output/outcome.h"

#include <ctime>
#include <string>
#include <vector>

namespace config_copy {

// Appends a line for each outcome, all of them or none. A file that is made gets mode 0600. Any
// number of processes may append to it. Throws a Failure.
void append_outcomes(const std::string &file, const std::vector<Outcome> &outcomes,
                     std::time_t now);

} // namespace config_copy
