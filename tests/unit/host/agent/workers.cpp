#include "platform/host/agent/workers.h"

#include "base/unique_fd.h"
#include "tests/unit/child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <unistd.h>

#include <array>
#include <csignal>

namespace {

// A program between fork(2) and exec(2) has neither a death signal nor a terminal of its own.
TEST(Workers, AStoppedGrandchildDiesWithTheWorker) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const ulmo::UniqueFd reading(ends[0]);
    ulmo::UniqueFd writing(ends[1]);
    const pid_t worker = host_test::start_child([&] {
        const pid_t program = ::fork();
        if (program == 0) {
            if (::fork() == 0) {
                ::setsid();
                [[maybe_unused]] const ssize_t told = ::write(writing.get(), "!", 1);
                ::raise(SIGSTOP);
            }
            ::pause();
        }
        ::pause();
        return 0;
    });
    writing.reset();
    char mark = 0;
    ASSERT_EQ(::read(reading.get(), &mark, 1), 1);
    ulmo::kill_with_descendants(worker);
    EXPECT_EQ(host_test::exit_status_of(worker), -1);
    // The pipe's end comes when the last of them has died.
    pollfd ended{reading.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&ended, 1, 10'000), 1);
    EXPECT_EQ(::read(reading.get(), &mark, 1), 0);
}

} // namespace
