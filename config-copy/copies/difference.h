// What differs between two configurations: of a switch, or in files of this machine.
#pragma once

#include "config-copy/copies/copy_run.h"

#include <string>

namespace config_copy {

// Compares two texts. Throws a Failure if diff(1) can't be run.
Difference difference(const std::string &from, const std::string &to, const std::string &from_name,
                      const std::string &to_name);

// Compares FROM and TO of the job, each of which is running, startup or a file of this machine.
// Throws as copy().
Outcome compare(const Agent &agent, const CopyJob &job, const Progress &progress);

// Adds to the outcome of a dry run in what FROM, a file of this machine, differs from running.
void show_what_a_restore_brings(const Agent &agent, const CopyJob &job, const Progress &progress,
                                Outcome &outcome);

} // namespace config_copy
