// Where this room waits, and nowhere else: a loop that serves many sessions on one thread begins
// here, by going on with another session instead.
#pragma once

#include <chrono>

namespace copy_client {

using Milliseconds = std::chrono::milliseconds;

// Thrown where the work ends because its user wants it to.
struct Stopped {};

// Whether `descriptor` (-1: none) became readable within the time. Throws Stopped as soon as the
// descriptor `stop` (-1: never) is readable.
bool wait_for_input(int descriptor, int stop, Milliseconds time);

// The same without a descriptor: lets the time pass.
void pause_for(Milliseconds time, int stop);

} // namespace copy_client
