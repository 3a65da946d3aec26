// The user's wish to end: Ctrl-C, or SIGTERM, and SIGHUP when the terminal goes.
#pragma once

#include "copy_client/waiting.h"

namespace config_copy {

// Thrown where a run ends because the user wants it to.
using Interrupted = copy_client::Stopped;

// From now on the first such signal is only noted. A second one ends the process at once.
void watch_signals();

// The signal that came, or 0.
int interrupting_signal();

// Becomes readable, for poll(2), when a signal has come, and stays so.
int interrupt_descriptor();

// Ends the process by the signal, as its starter expects it. To be called when everything is
// cleaned up.
[[noreturn]] void end_by_signal(int signal);

} // namespace config_copy
