// Preloaded into the stock agent together with AddressSanitizer's runtime, so that the agent can
// load a module that was built with sanitizers. It understands two signals of its own:
// 34  it writes a line `heap N` to its standard error: how many octets are allocated
// 35  its clocks move on by 400 seconds, so that every row that does not run is old
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include <sanitizer/allocator_interface.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t moved = 0; // seconds; written by the signal 35

void write_heap(int) {
    char line[32] = "heap ";
    char *end =
        std::to_chars(line + 5, line + sizeof line - 1, __sanitizer_get_current_allocated_bytes())
            .ptr;
    *end++ = '\n';
    // Nothing could be done about an error.
    [[maybe_unused]] const ssize_t written =
        write(STDERR_FILENO, line, static_cast<size_t>(end - line));
}

void move_clocks(int) {
    moved = moved + 400;
}

[[gnu::constructor]] void prepare() {
    // The programs that the agent starts have a runtime of their own, or need none.
    unsetenv("LD_PRELOAD");
    std::signal(SIGRTMIN, write_heap);
    std::signal(SIGRTMIN + 1, move_clocks);
}

} // namespace

// The agent's clocks. (faketime, which the lab uses otherwise, does not start with the sanitizers.)
extern "C" {

int clock_gettime(clockid_t clock, timespec *now) {
    const long status = syscall(SYS_clock_gettime, clock, now);
    if (status == 0) {
        now->tv_sec += moved;
    }
    return static_cast<int>(status);
}

int gettimeofday(timeval *__restrict now, void *__restrict) noexcept {
    timespec exact = {};
    const int status = clock_gettime(CLOCK_REALTIME, &exact);
    *now = {.tv_sec = exact.tv_sec, .tv_usec = exact.tv_nsec / 1000};
    return status;
}

time_t time(time_t *seconds) noexcept {
    timespec exact = {};
    clock_gettime(CLOCK_REALTIME, &exact);
    if (seconds) {
        *seconds = exact.tv_sec;
    }
    return exact.tv_sec;
}
}
