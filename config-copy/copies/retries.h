// Trying a copy again whose cause of failure may pass.
#pragma once

#include <chrono>
#include <cstddef>

namespace config_copy {

class Output;

struct Retries {
    int count = 0;
    std::chrono::seconds pause{10}; // before each, so that a switch may restart meanwhile
};

// Says that so many agents are tried again, and waits. Throws Interrupted.
void wait_for_retry(std::size_t agents, std::chrono::seconds pause, Output &output);

} // namespace config_copy
