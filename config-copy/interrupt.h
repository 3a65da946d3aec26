// The user's request to stop: Ctrl-C, SIGTERM, or SIGHUP when the terminal closes.
#pragma once

#include "copy_client/waiting.h"

#include <string>

namespace config_copy {

// Thrown when the user wants the run to stop.
using Interrupted = copy_client::Stopped;

// Interrupted, and requests may be left on agents that no longer answer; the text lists them.
struct InterruptedWithRequests : Interrupted {
    std::string text;
};

// From now on the first such signal is only recorded. A second one ends the process at once.
void watch_signals();

// The signal that was recorded, or 0.
int interrupting_signal();

// Becomes and stays readable (poll(2)) once a signal has been recorded.
int interrupt_descriptor();

// Ends the process by the signal, as its parent expects. Call it after all cleaning up.
[[noreturn]] void end_by_signal(int signal);

} // namespace config_copy
