// The same copy on many agents at once.
#pragma once

#include "config-copy/copies/copy_run.h"
#include "config-copy/copies/retries.h"
#include "config-copy/output/output.h"

#include <vector>

namespace config_copy {

// Reports each outcome as it comes, and a summary at the end. At most `jobs` copies run at a time,
// each on a thread of its own. Only agents that are there wait for a copy, so silent agents delay
// no others and need no thread. It may raise the process's soft limit of open files; a hard limit
// that is too low reduces the number of copies. Copies that may_pass() are tried again after the
// others and a pause, and only their last outcome is reported. Throws Interrupted after all copies
// that had begun are cleaned up.
std::vector<Outcome> copy_on_all(const std::vector<Agent> &agents, const CopyJob &job, int jobs,
                                 const Retries &retries, Output &output);

} // namespace config_copy
