// The same copy on many agents side by side.
#pragma once

#include "manager/copy_run.h"
#include "manager/output.h"

#include <string>
#include <vector>

namespace config_copy {

// Tells each outcome as it comes and the summary at the end. At most `jobs` copies run at a time. Up to 512 agents are asked at a time
// whether they are there, and only who answers waits for his turn: one that does not delays no other. Throws Interrupted when all that had
// begun are cleaned up.
std::vector<Outcome> copy_on_all(const netsnmp_session &defaults, const std::vector<std::string> &agents, const CopyOrder &order, int jobs,
                                 Output &output);

} // namespace config_copy
