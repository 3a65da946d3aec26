// The boundary where C code or the agent's loop calls us: no exception may cross it.
#pragma once

#include <cerrno>
#include <exception>
#include <utility>

namespace ulmo {

// The errno value for the exception being handled: the code of a system_error, ENOMEM for
// bad_alloc, EIO for anything else.
int errno_of_exception() noexcept;

// The result of `call`, itself an errno value, or the errno value of the exception that it threw.
template <typename Call> int errno_of(Call &&call) noexcept {
    try {
        return std::forward<Call>(call)();
    } catch (...) {
        return errno_of_exception();
    }
}

// The result of `call`, or `otherwise` when it threw.
template <typename Result, typename Call> Result result_or(Result otherwise, Call &&call) noexcept {
    try {
        return std::forward<Call>(call)();
    } catch (...) {
        return otherwise;
    }
}

// The result of `call`, or -1 with errno set when it threw.
template <typename Call> auto result_or_errno(Call &&call) noexcept -> decltype(call()) {
    try {
        return std::forward<Call>(call)();
    } catch (...) {
        errno = errno_of_exception();
        return -1;
    }
}

// Runs `call`. If it throws, passes the exception's text to `tell`. Keeps errno.
template <typename Call, typename Tell> void quietly(Call &&call, Tell &&tell) noexcept {
    const int saved_errno = errno;
    try {
        std::forward<Call>(call)();
    } catch (const std::exception &failure) {
        std::forward<Tell>(tell)(failure.what());
    } catch (...) {
        std::forward<Tell>(tell)("unknown failure");
    }
    errno = saved_errno;
}

} // namespace ulmo
