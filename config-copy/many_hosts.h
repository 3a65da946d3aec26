// The same copy on many agents side by side.
#pragma once

#include "config-copy/copy_run.h"
#include "config-copy/output.h"

#include <string>
#include <vector>

namespace config_copy {

// Tells each outcome as it comes and the summary at the end. At most `jobs` copies run at a time.
// Beside them up to 512 agents are asked whether they are there, and only who answers waits for his
// turn: one that does not delays no other. It may raise the process's soft limit of open files; a
// hard limit that is too low makes the numbers smaller. Throws Interrupted when all that had begun
// are cleaned up.
std::vector<Outcome> copy_on_all(const netsnmp_session &defaults,
                                 const std::vector<std::string> &agents, const CopyOrder &order,
                                 int jobs, Output &output);

} // namespace config_copy
