#include "base/boot.h"

#include <ctime>
#include <fstream>

namespace ulmo {

std::string boot_id() {
    std::string id;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
    return id;
}

std::chrono::milliseconds time_since_boot() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec});
}

} // namespace ulmo
