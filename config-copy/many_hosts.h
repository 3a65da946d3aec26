// The same copy on many agents at once.
#pragma once

#include "config-copy/copy_run.h"
#include "config-copy/output.h"

#include <vector>

namespace config_copy {

// Reports each outcome as it comes, and a summary at the end. At most `jobs` copies run at a time.
// Up to 512 more agents are contacted in advance, and only agents that answer wait for a slot, so
// silent agents do not delay others. It may raise the process's soft limit of open files; a hard
// limit that is too low reduces these numbers. Throws Interrupted after all copies that had begun
// are cleaned up.
std::vector<Outcome> copy_on_all(const std::vector<Agent> &agents, const CopyJob &job, int jobs,
                                 Output &output);

} // namespace config_copy
