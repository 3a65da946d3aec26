#include "fake_time.h"

#include <sys/time.h>
#include <time.h>

TimeFake fake_time;

void TimeFake::reset() {
    seconds = start;
    microseconds = 250000;
}

extern "C" {

time_t __wrap_time(time_t *out) {
    const auto now = static_cast<time_t>(fake_time.seconds);
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

int __wrap_gettimeofday(struct timeval *out, void *) {
    out->tv_sec = static_cast<time_t>(fake_time.seconds);
    out->tv_usec = fake_time.microseconds;
    return 0;
}

} // extern "C"
