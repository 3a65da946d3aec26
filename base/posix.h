// System calls that throw when they fail, and reads and writes that run to completion.
#pragma once

#include <sys/stat.h>

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>

namespace ulmo {

// Throws std::system_error with an errno value. Its text is "WHAT NAME: MEANING OF THE ERROR",
// without the parts that are empty.
[[noreturn]] void throw_error(int error, std::string_view what = {}, std::string_view name = {});

// The same with the current errno; call it directly after the call that failed.
[[noreturn]] void throw_errno(std::string_view what = {}, std::string_view name = {});

// Checks the result of a call that returns a negative number and sets errno on failure: returns the
// result, or throws as throw_errno().
template <std::signed_integral Result>
Result check(Result result, std::string_view what = {}, std::string_view name = {}) {
    if (result < 0) {
        throw_errno(what, name);
    }
    return result;
}

// The rest of an open file. Throws EFBIG if that is more than `limit` octets, or "cannot read
// NAME".
std::string read_whole(int file, std::string_view name, std::size_t limit = std::string::npos);

// Writes all of `data`. Throws "cannot write NAME".
void write_whole(int file, std::string_view data, std::string_view name);

// The status of an open file. Throws EISDIR or EINVAL if it is not a regular file, and EFBIG if it
// has more than `limit` octets.
struct stat regular_file_status(int file, std::string_view name,
                                std::size_t limit = std::string::npos);

} // namespace ulmo
