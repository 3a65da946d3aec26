// Shared by the benchmark programs.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace bench {

// Creates private folders for the host platform, calls `prepare`, runs the benchmarks selected on
// the command line, and removes the folders. Returns the exit status of the program.
int run(int argc, char **argv, const std::function<void()> &prepare);

// Stores `count` copy requests with the indexes 1 to `count`, complete, as after a network copy
// that has ended. Throws std::runtime_error if one of them can't be added.
void fill_rows(int32_t count);

// Deletes these requests.
void delete_rows(int32_t count);

// At least a few thousand of the numbers from 1 to `count`, always in the same patternless order:
// in ascending order the benchmark would measure the processor's caches.
std::vector<int32_t> scattered_indexes(int32_t count);

} // namespace bench
