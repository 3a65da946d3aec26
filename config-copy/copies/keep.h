// Keeping a configuration that was restored to running: saving it to startup.
#pragma once

#include "config-copy/agents/agent.h"
#include "config-copy/output/outcome.h"
#include "config-copy/output/progress.h"

namespace config_copy {

enum class Keeping {
    no,
    save,    // it is saved
    confirm, // it is saved if the agent still answers
};

struct CopyJob;

// Does what the job wants of a configuration after it was restored with this outcome, and completes
// the outcome. With Keeping::confirm, the agent must answer between two seconds and half a
// minute later. Throws as copy().
void keep(const Agent &agent, const CopyJob &job, const Progress &progress, Outcome &outcome);

} // namespace config_copy
