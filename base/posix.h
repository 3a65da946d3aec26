// Calls of the system: their failures as exceptions, and reads and writes that end when all is
// done.
#pragma once

#include <sys/stat.h>

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>

namespace ulmo {

// Throws std::system_error with an errno value. The text is "WHAT NAME: MEANING OF THE ERROR",
// without what is empty.
[[noreturn]] void throw_error(int error, std::string_view what = {}, std::string_view name = {});

// The same with errno, right after the call that has failed.
[[noreturn]] void throw_errno(std::string_view what = {}, std::string_view name = {});

// The result of a call that returns a negative number, and sets errno, when it fails: throws then.
template <std::signed_integral Result>
Result check(Result result, std::string_view what = {}, std::string_view name = {}) {
    if (result < 0) {
        throw_errno(what, name);
    }
    return result;
}

// The rest of an open file, of at most `limit` octets; EFBIG when there are more. Throws
// "cannot read NAME".
std::string read_whole(int file, std::string_view name, std::size_t limit = std::string::npos);

// Writes all of `data`. Throws "cannot write NAME".
void write_whole(int file, std::string_view data, std::string_view name);

// The status of an open file. Throws EISDIR or EINVAL when it is not a regular one, and EFBIG when
// it has more than `limit` octets.
struct stat regular_file_status(int file, std::string_view name,
                                std::size_t limit = std::string::npos);

} // namespace ulmo
