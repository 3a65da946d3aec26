#include "base/c_boundary.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

[[noreturn]] void refuse() {
    throw std::system_error(EACCES, std::generic_category(), "door");
}
[[noreturn]] void run_out() {
    throw std::bad_alloc();
}
[[noreturn]] void fail() {
    throw std::runtime_error("why");
}
[[noreturn]] void throw_number() {
    throw 7;
}

TEST(CBoundary, AnExceptionIsAnErrno) {
    EXPECT_EQ(ulmo::errno_of([] { return 0; }), 0);
    EXPECT_EQ(ulmo::errno_of([] { return ENOENT; }), ENOENT);
    EXPECT_EQ(ulmo::errno_of([]() -> int { refuse(); }), EACCES);
    EXPECT_EQ(ulmo::errno_of([]() -> int { run_out(); }), ENOMEM);
    EXPECT_EQ(ulmo::errno_of([]() -> int { fail(); }), EIO);
    EXPECT_EQ(ulmo::errno_of([]() -> int { throw_number(); }), EIO);
}

TEST(CBoundary, AnExceptionIsAnotherResult) {
    EXPECT_STREQ(ulmo::result_or("otherwise", [] { return "result"; }), "result");
    EXPECT_STREQ(ulmo::result_or("otherwise", []() -> const char * { fail(); }), "otherwise");
    EXPECT_EQ(ulmo::result_or(5, []() -> int { throw_number(); }), 5);
}

TEST(CBoundary, AnExceptionSetsErrno) {
    errno = ENOENT;
    EXPECT_EQ(ulmo::result_or_errno([] { return 7; }), 7);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ulmo::result_or_errno([]() -> int { refuse(); }), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(ulmo::result_or_errno([]() -> long { throw_number(); }), -1);
    EXPECT_EQ(errno, EIO);
}

TEST(CBoundary, AFailureIsToldAndErrnoKept) {
    std::string reported;
    const auto tell = [&reported](const char *why) {
        reported = why;
        errno = EBADF;
    };
    errno = ENOENT;
    ulmo::quietly([] { errno = EBADF; }, tell);
    EXPECT_EQ(reported, "");
    EXPECT_EQ(errno, ENOENT);
    ulmo::quietly([] { fail(); }, tell);
    EXPECT_EQ(reported, "why");
    EXPECT_EQ(errno, ENOENT);
    ulmo::quietly([] { throw_number(); }, tell);
    EXPECT_EQ(reported, "unknown failure");
}

} // namespace
