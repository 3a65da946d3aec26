#include "fake_memory.h"

#include <new>
#include <unordered_set>

MemoryFake fake_memory;

void MemoryFake::reset() {
    failing_size = 0;
    failures = 0;
    counting = false;
}

void MemoryFake::verify() {
    EXPECT_TRUE(failing_size == 0 || failures > 0) << "an allocation was to fail and never came";
}

namespace {

bool fails(std::size_t size) {
    if (MemoryFake::failing_size == 0 || size != MemoryFake::failing_size) {
        return false;
    }
    ++MemoryFake::failures;
    return true;
}

std::unordered_set<const void *> &counted_blocks() {
    static std::unordered_set<const void *> blocks;
    return blocks;
}

} // namespace

void MemoryFake::count_blocks() {
    counted_blocks().clear();
    counting = true;
}

std::size_t MemoryFake::blocks() {
    return counted_blocks().size();
}

// operator new, throwing and not, under the linker's names, which end with the type of size_t:
// unsigned long, or unsigned int where both have 32 bits.
#ifdef __LP64__
#define OPERATOR_NEW "_Znwm"
#else
#define OPERATOR_NEW "_Znwj"
#endif
#define OPERATOR_NEW_NOTHROW OPERATOR_NEW "RKSt9nothrow_t"

extern "C" {

void *__real_malloc(size_t size);
void __real_free(void *block);
void *__real_calloc(size_t count, size_t size);
void *real_new(size_t size) __asm__("__real_" OPERATOR_NEW);
void *real_new_nothrow(size_t size,
                       const std::nothrow_t &tag) __asm__("__real_" OPERATOR_NEW_NOTHROW);
void *wrapped_new(size_t size) __asm__("__wrap_" OPERATOR_NEW);
void *wrapped_new_nothrow(size_t size,
                          const std::nothrow_t &tag) __asm__("__wrap_" OPERATOR_NEW_NOTHROW);

void *__wrap_malloc(size_t size) {
    if (fails(size)) {
        return nullptr;
    }
    void *block = __real_malloc(size);
    if (MemoryFake::counting) {
        counted_blocks().insert(block);
    }
    return block;
}

void __wrap_free(void *block) {
    if (MemoryFake::counting) {
        counted_blocks().erase(block);
    }
    __real_free(block);
}

void *__wrap_calloc(size_t count, size_t size) {
    return fails(count * size) ? nullptr : __real_calloc(count, size);
}

void *wrapped_new(size_t size) {
    if (fails(size)) {
        throw std::bad_alloc();
    }
    return real_new(size);
}

void *wrapped_new_nothrow(size_t size, const std::nothrow_t &tag) {
    return fails(size) ? nullptr : real_new_nothrow(size, tag);
}

} // extern "C"
