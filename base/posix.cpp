#include "base/posix.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace ulmo {
namespace {

static_assert(sizeof(off_t) == 8, "compile with -D_FILE_OFFSET_BITS=64");

[[noreturn]] void throw_too_large(std::string_view name, std::size_t limit) {
    throw_error(EFBIG, name, "is larger than " + std::to_string(limit) + " octets");
}

} // namespace

void throw_error(int error, std::string_view what, std::string_view name) {
    const std::error_code code(error, std::generic_category());
    std::string text(what);
    text.append(what.empty() || name.empty() ? "" : " ").append(name);
    throw text.empty() ? std::system_error(code) : std::system_error(code, text);
}

void throw_errno(std::string_view what, std::string_view name) {
    throw_error(errno, what, name);
}

std::string read_whole(int file, std::string_view name, std::size_t limit) {
    std::string content;
    std::array<char, std::size_t{64} * 1024> part;
    for (;;) {
        const ssize_t count = ::read(file, part.data(), part.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (check(count, "cannot read", name) == 0) {
            return content;
        }
        content.append(part.data(), static_cast<std::size_t>(count));
        if (content.size() > limit) {
            throw_too_large(name, limit);
        }
    }
}

void write_whole(int file, std::string_view data, std::string_view name) {
    while (!data.empty()) {
        const ssize_t count = ::write(file, data.data(), data.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        data.remove_prefix(static_cast<std::size_t>(check(count, "cannot write", name)));
    }
}

struct stat regular_file_status(int file, std::string_view name, std::size_t limit) {
    struct stat status {};
    check(::fstat(file, &status), "cannot read", name);
    if (!S_ISREG(status.st_mode)) {
        throw_error(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, "not a regular file:", name);
    }
    if (static_cast<std::uintmax_t>(status.st_size) > limit) {
        throw_too_large(name, limit);
    }
    return status;
}

} // namespace ulmo
