#include "receiver/local_file.h"

#include "base/posix.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace receiver {

const char *const no_path = "";

std::uint64_t size_of(int file) {
    struct statx status {};
    if (file < 0) {
        ulmo::throw_error(EINVAL, "no file came with the order");
    }
    ulmo::check(::statx(file, no_path, AT_EMPTY_PATH, STATX_TYPE | STATX_SIZE, &status),
                "cannot look at the file");
    if (!S_ISREG(status.stx_mode)) {
        ulmo::throw_error(EINVAL, "not a regular file");
    }
    return status.stx_size;
}

std::size_t read_at(int file, std::uint64_t offset, std::span<std::uint8_t> octets) {
    std::size_t filled = 0;
    while (filled < octets.size()) {
        const ssize_t count = ::pread(file, octets.data() + filled, octets.size() - filled,
                                      static_cast<off_t>(offset + filled));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (ulmo::check(count, "cannot read the file") == 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    return filled;
}

void write_at(int file, std::uint64_t offset, std::span<const std::uint8_t> octets) {
    constexpr const char *problem = "cannot write the file";
    if (offset == 0) {
        ulmo::check(::ftruncate(file, 0), problem);
    }
    while (!octets.empty()) {
        const ssize_t count =
            ::pwrite(file, octets.data(), octets.size(), static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        const auto written = static_cast<std::size_t>(ulmo::check(count, problem));
        octets = octets.subspan(written);
        offset += written;
    }
}

} // namespace receiver
