// The user's request to stop: Ctrl-C, SIGTERM, or SIGHUP when the terminal closes.
#pragma once

#include "copy_client/waiting.h"

namespace config_copy {

// Thrown when the user wants the run to stop.
using Interrupted = copy_client::Stopped;

// From now on the first such signal is only recorded. A second one ends the process at once.
void watch_signals();

// The signal that was recorded, or 0.
int interrupting_signal();

// Becomes and stays readable (poll(2)) once a signal has been recorded.
int interrupt_descriptor();

// Ends the process by the signal, as its parent expects. Call it after all cleaning up.
[[noreturn]] void end_by_signal(int signal);

} // namespace config_copy
