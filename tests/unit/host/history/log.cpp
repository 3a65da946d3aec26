// The log of a daemon: what is written to its standard error, and in which form.
#include "platform/host/history/log.h"

#include "tests/unit/host/device/fixture.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>

namespace {

class HostLog : public DeviceTest {
  protected:
    // What a process that calls `log` prints on its standard error. A daemon can't become an
    // ordinary process again.
    std::string printed(const std::function<void()> &log, bool has_journal) const {
        const auto errors = directory_ / "errors";
        const pid_t child = ::fork();
        if (child == 0) {
            if (has_journal) {
                ::setenv("JOURNAL_STREAM", "8:1", 1);
            } else {
                ::unsetenv("JOURNAL_STREAM");
            }
            constexpr mode_t owner_only = 0600;
            ::dup2(::open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, owner_only),
                   STDERR_FILENO);
            log();
            ::_exit(0);
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        return content(errors);
    }
    // As a daemon under the journal.
    std::string daemon_prints(const std::function<void()> &log) const {
        return printed(
            [&] {
                ulmo::log_to_standard_error();
                log();
            },
            true);
    }
};

TEST_F(HostLog, IsPrintedByADaemonOnly) {
    const auto log = [] {
        ulmo::log_error("error");
        ulmo::log_notice("notice");
        ulmo::log_debug("debug");
    };
    EXPECT_EQ(printed(log, false), "");
    EXPECT_EQ(printed(log, true), "");
    EXPECT_EQ(daemon_prints(log), "error\nnotice\n") << "and not what is for developers";
}

TEST_F(HostLog, HasTheTimeInFrontUnlessTheJournalWritesIt) {
    const auto log = [] {
        ::setenv("TZ", "XYZ-5", 1); // the time is UTC everywhere
        ::tzset();
        ulmo::log_to_standard_error();
        ulmo::log_error("error %d", 1);
    };
    const auto stamp = [](std::time_t when) {
        char text[32];
        std::tm utc{};
        return std::string(
            text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", ::gmtime_r(&when, &utc)));
    };
    const std::string before = stamp(std::time(nullptr));
    const std::string line = printed(log, false);
    const std::string after = stamp(std::time(nullptr));
    ASSERT_TRUE(
        std::regex_match(line, std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ error 1\n")))
        << line;
    EXPECT_GE(line.substr(0, before.size()), before);
    EXPECT_LE(line.substr(0, after.size()), after);
    EXPECT_EQ(printed(log, true), "error 1\n");
}

TEST_F(HostLog, AMessageIsOneLineWhateverItHolds) {
    std::string controls;
    for (char c = 1; c < ' '; ++c) {
        controls += c;
    }
    EXPECT_EQ(daemon_prints([&] {
                  ulmo::log_error("<%s\x7f>", controls.c_str());
                  ulmo::log_error("%s", "two\nlines\n\n");
                  ulmo::log_notice("\n");
                  ulmo::log_notice("%s", "gr\xc3\xbc\xc3\x9f");
              }),
              "<" + std::string(8, '?') + "  ?? " + std::string(19, '?') +
                  ">\ntwo lines\n\ngr\xc3\xbc\xc3\x9f\n");
}

TEST_F(HostLog, AFailureWithoutHarmIsAnErrorInTheLog) {
    EXPECT_EQ(daemon_prints([] {
                  errno = ENOENT;
                  ulmo::log_failure("no line", [] { throw std::runtime_error("why"); });
                  ulmo::log_failure("no line", [] { errno = EBADF; });
                  ulmo::log_notice("%d", errno);
              }),
              "no line: why\n" + std::to_string(ENOENT) + "\n");
}

TEST_F(HostLog, ALongMessageIsCut) {
    EXPECT_EQ(daemon_prints([] {
                  ulmo::log_error("%s", std::string(511, 'a').c_str());
                  ulmo::log_error("%s", std::string(512, 'b').c_str());
                  ulmo::log_error("%s", std::string(100'000, 'c').c_str());
              }),
              std::string(511, 'a') + "\n" + std::string(511, 'b') + "\n" + std::string(511, 'c') +
                  "\n");
}

TEST_F(HostLog, KeepsErrno) {
    EXPECT_EQ(daemon_prints([] {
                  ::close(STDERR_FILENO); // the line is lost, which is not the caller's error
                  errno = ENOTTY;
                  ulmo::log_error("error");
                  ulmo::log_notice("notice");
                  ulmo::log_debug("debug");
                  ::_exit(errno == ENOTTY ? 0 : 1);
              }),
              "");
}

} // namespace
