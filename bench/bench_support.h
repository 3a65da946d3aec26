// What the benchmark programs share.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace bench {

// Gives the host platform folders of its own, calls `prepare`, runs the benchmarks that the command
// line asks for, and removes the folders. Returns the exit status of the program.
int run(int argc, char **argv, const std::function<void()> &prepare);

// Stores `count` copy requests with the indexes 1 to `count`, complete as for a network copy that
// has ended. Throws std::runtime_error when one of them can't be added.
void fill_rows(int32_t count);

// Deletes them all.
void delete_rows(int32_t count);

// Numbers from 1 to `count` in an order without a pattern, always the same, at least a few thousand
// of them: an order that walks up the container would be measured in the processor's caches.
std::vector<int32_t> scattered_indexes(int32_t count);

} // namespace bench
