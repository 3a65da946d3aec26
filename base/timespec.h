// A span of time as system calls take it.
#pragma once

#include <chrono>
#include <ctime>

namespace ulmo {

inline timespec timespec_of(std::chrono::nanoseconds time) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

} // namespace ulmo
