// The heap, which can run out of blocks of one size and counts the blocks that are not freed.
#ifndef TESTS_UNIT_FAKE_MEMORY_H
#define TESTS_UNIT_FAKE_MEMORY_H

#include <cstddef>

#include "fakes.h"

struct MemoryFake : FakeBase {
    // Static, because blocks are allocated before this object is constructed.
    static inline std::size_t failing_size = 0; // allocations of this many octets fail, unless 0
    static inline int failures = 0;
    static inline bool counting = false;

    // Starts counting the blocks from malloc() that the module and its tests allocate and free.
    static void count_blocks();
    static std::size_t blocks();

    void reset() override;
    void verify() override;
};

extern MemoryFake fake_memory;

#endif
