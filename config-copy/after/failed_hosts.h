// The file of --failed-hosts: the agents that failed, as a hosts file for another run.
#pragma once

#include "config-copy/agents/agent.h"
#include "config-copy/output/outcome.h"

#include <string>
#include <vector>

namespace config_copy {

// Replaces the file in one step; it is empty if no agent failed. Throws a Failure.
void write_failed_hosts(const std::string &file, const std::vector<Agent> &agents,
                        const std::vector<Outcome> &outcomes);

// Parts of the implementation.

// The text, with each agent's group and those of its options that are no secret. Both lists are of
// the same length.
std::string failed_hosts_text(const std::vector<Agent> &agents,
                              const std::vector<Outcome> &outcomes);

} // namespace config_copy
