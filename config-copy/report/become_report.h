// The command report, which is a program of its own: config-copy-report.
#pragma once

#include "config-copy/command_line/options.h"

namespace config_copy {

// Becomes that program. Throws a Failure if it can't be run.
[[noreturn]] void become_report(const Options &options);

} // namespace config_copy
