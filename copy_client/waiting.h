// All waiting in this folder happens here. A loop that serves many sessions on one thread would
// start here, by continuing another session instead.
#pragma once

#include <chrono>

namespace copy_client {

using Milliseconds = std::chrono::milliseconds;

// Thrown when the caller wants the work to end.
struct Stopped {};

// Whether `descriptor` (-1: none) becomes readable within the time. Throws Stopped as soon as the
// descriptor `stop` (-1: never) is readable.
bool wait_for_input(int descriptor, int stop, Milliseconds time);

// Waits for that time, without a descriptor.
void pause_for(Milliseconds time, int stop);

} // namespace copy_client
