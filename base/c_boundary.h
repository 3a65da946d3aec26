// Where C calls us, or the agent's loop does: no exception may go further.
#pragma once

#include <cerrno>
#include <exception>
#include <utility>

namespace ulmo {

// The errno value of the exception that is being handled: a system error's own, ENOMEM when memory
// is short, EIO for all else.
int errno_of_exception() noexcept;

// The result of `call`, which is an errno value, or the one of what it threw.
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

// Runs `call` and gives what it threw, as a text, to `tell`. Keeps errno.
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
