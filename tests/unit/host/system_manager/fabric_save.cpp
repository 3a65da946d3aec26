#include "platform/host/system_manager/fabric_save.h"
#include "base/unique_fd.h"
#include "platform/host/system_manager/member_save.h"
#include "tests/unit/scratch.h"
#include "tests/unit/test_clock.h"

#include <gtest/gtest.h>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;

std::vector<ulmo::FabricMember> members_named(const Texts &users) {
    std::vector<ulmo::FabricMember> members;
    for (const std::string &user : users) {
        ulmo::FabricMember member;
        member.wwn = {0x20, 0, 0, 0, 0, 0, 1, static_cast<std::uint8_t>(members.size())};
        member.address = {INET_ADDRESS_IPV4, {192, 0, 2, static_cast<std::uint8_t>(members.size())}};
        member.user = user;
        members.push_back(member);
    }
    return members;
}

void pause(std::chrono::milliseconds time) {
    const timespec span{time.count() / 1000, static_cast<long>(time.count() % 1000) * 1000000};
    ::nanosleep(&span, nullptr);
}

// Shared with the processes: how many of them have come to meet, and how many there are.
constexpr int expected_to_meet = 50;
std::atomic<int> *arrived;

// Stands in for the save of one member: does what the user's name says.
std::string act(const ulmo::FabricMember &member, std::chrono::seconds limit, bool (*is_stopped)()) {
    const std::string &what = member.user;
    const auto wait_for_stop = [&] {
        while (!is_stopped()) {
            pause(2s); // ends with the signal
        }
    };
    if (what == "slow") {
        pause(300ms);
    } else if (what == "meet") {
        for (++*arrived; *arrived < expected_to_meet;) {
            pause(1ms);
        }
    } else if (what == "limit") {
        return std::to_string(limit.count());
    } else if (what == "crash") {
        ::raise(SIGKILL);
    } else if (what == "exit") {
        ::_exit(0);
    } else if (what == "half") {
        for (int descriptor = 3; descriptor < 1024; ++descriptor) {
            static_cast<void>(!::write(descriptor, "save", 4)); // the pipe is the one that is open
        }
        ::_exit(0);
    } else if (what == "throw") {
        throw std::runtime_error("a test's");
    } else if (what == "obey") {
        wait_for_stop();
        pause(100ms);
        return "obeyed";
    } else if (what == "hang") {
        std::signal(SIGALRM, SIG_IGN);
        for (;;) {
            pause(10s);
        }
    } else if (what == "descriptors") {
        std::string open;
        for (int descriptor = 3; descriptor < 1024; ++descriptor) {
            open += ::fcntl(descriptor, F_GETFD) >= 0 ? '#' : '.';
        }
        return std::to_string(std::count(open.begin(), open.end(), '#')) + " open";
    } else if (what == "signals") {
        sigset_t blocked;
        ::sigprocmask(SIG_SETMASK, nullptr, &blocked);
        struct sigaction action {};
        ::sigaction(SIGUSR1, nullptr, &action);
        return ::sigismember(&blocked, SIGUSR2) == 0 && action.sa_handler == SIG_DFL ? "clean" : "inherited";
    } else if (what.starts_with("leave ")) {
        wait_for_stop();
        std::ofstream(what.substr(6)) << "stopped";
    }
    return what;
}

// A descriptor that becomes readable after some time.
ulmo::UniqueFd readable_after(std::chrono::milliseconds time) {
    ulmo::UniqueFd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    const itimerspec once{{}, {time.count() / 1000, static_cast<long>(time.count() % 1000) * 1000000}};
    EXPECT_EQ(::timerfd_settime(timer.get(), 0, &once, nullptr), 0);
    return timer;
}

class FabricSave : public testing::Test {
  protected:
    // The outcomes; `took` is the time.
    Texts save(const Texts &what, int stop = -1, std::chrono::seconds limit = 5s) {
        const auto members = members_named(what);
        const auto begin = Clock::now();
        const auto outcomes = ulmo::save_members(members, limit, stop, act);
        took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
        EXPECT_EQ(outcomes.size(), members.size());
        Texts texts;
        for (std::size_t i = 0; i < outcomes.size(); ++i) {
            EXPECT_EQ(outcomes[i].wwn, members[i].wwn);
            EXPECT_FALSE(outcomes[i].is_local);
            EXPECT_EQ(outcomes[i].address.type, INET_ADDRESS_IPV4);
            EXPECT_EQ(outcomes[i].address.octets[3], i);
            texts.push_back(outcomes[i].text);
        }
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a process is left";
        return texts;
    }

    Scratch scratch;
    std::chrono::milliseconds took{};
};

TEST_F(FabricSave, NoMembersNoOutcomes) {
    EXPECT_EQ(save({}), Texts{});
}

TEST_F(FabricSave, OutcomesComeInTheOrderOfTheMembers) {
    EXPECT_EQ(save({"slow", "saved", "limit", "no answer in 5 s"}), (Texts{"slow", "saved", "5", "no answer in 5 s"}));
}

TEST_F(FabricSave, FiftyMembersAreSavedSideBySide) {
    void *shared = ::mmap(nullptr, sizeof *arrived, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    arrived = new (shared) std::atomic<int>(0);
    const Texts all(expected_to_meet, "meet");
    EXPECT_EQ(save(all, -1, 60s), all);
    ::munmap(shared, sizeof *arrived);
}

TEST_F(FabricSave, ProcessThatDiesIsAnInternalErrorOfItsMemberOnly) {
    EXPECT_EQ(save({"crash", "saved", "exit", "half", "throw", "slow"}),
              (Texts{"internal error", "saved", "internal error", "internal error", "internal error", "slow"}));
}

TEST_F(FabricSave, ProcessThatDoesNotEndIsEnded) {
    EXPECT_EQ(save({"hang", "saved"}, -1, 1s), (Texts{"internal error", "saved"}));
    EXPECT_GE(took, 1000ms);
}

TEST_F(FabricSave, StopEndsTheWorkAndKeepsWhatIsKnown) {
    const host_test::TestClock clock;
    const ulmo::UniqueFd stop = readable_after(300ms);
    EXPECT_EQ(save({"saved", "obey", "crash", "obey"}, stop.get(), 60s), (Texts{"saved", "obeyed", "given up", "obeyed"}));
    EXPECT_EQ(clock.passed(), 0s) << "it ends with the last of them, not with the time that they have";
}

TEST_F(FabricSave, StopWaitsTwoSecondsAtMost) {
    const ulmo::UniqueFd stop = readable_after(1ms);
    EXPECT_EQ(save({"hang", "obey"}, stop.get(), 60s), (Texts{"given up", "obeyed"}));
    EXPECT_GE(took, 1900ms);
}

TEST_F(FabricSave, ProcessHoldsNothingOfItsParents) {
    const ulmo::UniqueFd file(::open("/dev/null", O_RDONLY));
    ASSERT_TRUE(file);
    const ulmo::UniqueFd high_file(::fcntl(file.get(), F_DUPFD, 900));
    ASSERT_TRUE(high_file);
    sigset_t block;
    sigset_t old;
    ::sigemptyset(&block);
    ::sigaddset(&block, SIGUSR2);
    ::sigprocmask(SIG_BLOCK, &block, &old);
    std::signal(SIGUSR1, [](int) {});
    EXPECT_EQ(save({"slow", "descriptors", "descriptors", "signals"}), (Texts{"slow", "1 open", "1 open", "clean"}));
    std::signal(SIGUSR1, SIG_DFL);
    ::sigprocmask(SIG_SETMASK, &old, nullptr);
}

TEST_F(FabricSave, ProcessesAreToldWhenTheirParentDies) {
    const std::filesystem::path mark = scratch.root() / "mark";
    const pid_t parent = ::fork();
    if (parent == 0) {
        ulmo::save_members(members_named({"leave " + mark.string(), "kill"}), 60s, -1, [](auto &member, auto limit, auto is_stopped) {
            if (member.user != "kill") {
                return act(member, limit, is_stopped);
            }
            pause(200ms);
            ::kill(::getppid(), SIGKILL);
            return std::string();
        });
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(parent, &status, 0), parent);
    EXPECT_TRUE(WIFSIGNALED(status));
    const auto end = Clock::now() + 5s;
    while (Scratch::read(mark) != "stopped" && Clock::now() < end) {
        pause(20ms);
    }
    EXPECT_EQ(Scratch::read(mark), "stopped");
}

// --- what answers mean ---

TEST(MemberSave, ErrorStatusInWords) {
    using ulmo::SaveStep;
    const auto words = ulmo::words_of_error_status;
    for (const SaveStep step : {SaveStep::create, SaveStep::activate, SaveStep::other}) {
        EXPECT_EQ(words(step, SNMP_ERR_NOACCESS), "not permitted");
        EXPECT_EQ(words(step, SNMP_ERR_AUTHORIZATIONERROR), "not permitted");
        EXPECT_EQ(words(step, SNMP_ERR_NOTWRITABLE), "no copy table there");
        EXPECT_EQ(words(step, SNMP_ERR_NOCREATION), "no copy table there");
        EXPECT_EQ(words(step, SNMP_ERR_RESOURCEUNAVAILABLE), "refused with error status 13");
    }
    EXPECT_EQ(words(SaveStep::activate, SNMP_ERR_GENERR), "another copy is in progress");
    EXPECT_EQ(words(SaveStep::activate, SNMP_ERR_INCONSISTENTVALUE), "another copy is in progress");
    EXPECT_EQ(words(SaveStep::create, SNMP_ERR_GENERR), "refused with error status 5");
}

TEST(MemberSave, LibraryErrorInWords) {
    EXPECT_EQ(ulmo::words_of_library_error(SNMPERR_UNKNOWN_USER_NAME), "authentication failed");
    EXPECT_EQ(ulmo::words_of_library_error(SNMPERR_AUTHENTICATION_FAILURE), "authentication failed");
    EXPECT_EQ(ulmo::words_of_library_error(SNMPERR_DECRYPTION_ERR), "wrong privacy key");
    EXPECT_EQ(ulmo::words_of_library_error(SNMPERR_UNSUPPORTED_SEC_LEVEL), "its user has no privacy key");
    for (const int passing : {SNMPERR_TIMEOUT, SNMPERR_NOT_IN_TIME_WINDOW, SNMPERR_BAD_SENDTO, SNMPERR_UNKNOWN_ENG_ID}) {
        EXPECT_EQ(ulmo::words_of_library_error(passing), "") << passing;
    }
}

TEST(MemberSave, FailureInWords) {
    EXPECT_EQ(ulmo::words_of_failure(8, "no space on device"), "refused by its system manager");
    EXPECT_EQ(ulmo::words_of_failure(1, "no space on device"), "failed with cause 1");
    EXPECT_EQ(ulmo::words_of_failure(9, "no space on device"), "no space on device");
    EXPECT_EQ(ulmo::words_of_failure(9, "  no space on device \r\nmore\n"), "no space on device");
    EXPECT_EQ(ulmo::words_of_failure(9, "no\tspace\x1b[2J"), "nospace[2J") << "nothing that a terminal would take for an order";
    EXPECT_EQ(ulmo::words_of_failure(9, std::string(500, 'x')), std::string(80, 'x'));
    for (const char *nothing : {"", "saved", "saved\n", " \n", "\nno space"}) {
        EXPECT_EQ(ulmo::words_of_failure(9, nothing), "its system manager could not save") << nothing;
    }
}

} // namespace
