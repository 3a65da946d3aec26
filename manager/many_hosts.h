// The same copy on many agents side by side.
#pragma once

#include "manager/copy_run.h"
#include "manager/output.h"

#include <string>
#include <vector>

namespace config_copy {

// Tells each outcome as it comes and the summary at the end. At most `jobs` copies run at a time; an agent that does not answer takes one
// of them and delays no other. Throws Interrupted when all that had begun are cleaned up.
std::vector<Outcome> copy_on_all(const netsnmp_session &defaults, const std::vector<std::string> &agents, const CopyOrder &order, int jobs,
                                 Output &output);

} // namespace config_copy
