// Programs that run under base/program_run.h, most of them lines of shell.
#include "base/program_run.h"
#include "base/state_file.h"
#include "tests/unit/child.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

using ulmo::failure_of;
using ulmo::ProgramCall;
using ulmo::ProgramEnd;
using ulmo::run_program;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t megabyte = 1024U * 1024;
constexpr std::chrono::seconds plenty{60};

ProgramCall shell(const std::string &line, std::string_view input = {}) {
    return {.words = {"/bin/sh", "-c", line},
            .input = input,
            .time_limit = plenty,
            .output_limit = megabyte};
}

// A program that has two seconds, and leaves process numbers in a file.
class Hanging {
  public:
    ProgramCall call(const std::string &line) {
        ProgramCall result = shell(line);
        result.time_limit = std::chrono::seconds(2);
        result.environment = {"PIDS=" + pids().string()};
        return result;
    }
    [[nodiscard]] std::filesystem::path pids() const { return scratch_.root() / "pids"; }

    // Whether each process of the file, at least `least`, is gone. A zombie that waits for its new
    // parent is gone, too.
    [[nodiscard]] bool all_gone(int least) const {
        std::ifstream file(pids());
        int count = 0;
        for (pid_t pid = 0; file >> pid; ++count) {
            std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
            std::string number;
            std::string name;
            std::string state;
            if (stat >> number >> name >> state && state != "Z" && state != "X") {
                return false;
            }
        }
        return count >= least;
    }

  private:
    Scratch scratch_;
};

bool soon(const std::function<bool()> &condition) {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace

TEST(ProgramRun, OutputAndStatus) {
    const ProgramEnd end = run_program(shell("printf 'a\\nb'; echo no >&2; exit 0"));
    EXPECT_TRUE(end.is_success());
    EXPECT_EQ(end.exit_status, 0);
    EXPECT_EQ(end.signal, 0);
    EXPECT_EQ(end.output, "a\nb");
    EXPECT_EQ(end.complaint, "no");
}

TEST(ProgramRun, Arguments) {
    const ProgramEnd end = run_program({.words = {"/usr/bin/printf", "[%s]", "a b", "", "$HOME"},
                                        .input = {},
                                        .time_limit = plenty,
                                        .output_limit = megabyte});
    EXPECT_EQ(end.output, "[a b][][$HOME]");
}

TEST(ProgramRun, FailureIsTheFirstLineOfStandardError) {
    const ProgramCall call = shell("printf '\\n \\t\\n  line 3: bad\\r\\nmore\\n' >&2; exit 7");
    const ProgramEnd end = run_program(call);
    EXPECT_FALSE(end.is_success());
    EXPECT_EQ(end.exit_status, 7);
    EXPECT_EQ(end.complaint, "line 3: bad");
    EXPECT_EQ(failure_of(call, end), "line 3: bad");
}

TEST(ProgramRun, FirstLineIsPrintableAndBounded) {
    const ProgramEnd strange = run_program(shell("printf 'a\\033[2Jb\\tc\\377' >&2; exit 1"));
    EXPECT_EQ(strange.complaint, "a?[2Jb c?");
    const ProgramEnd endless =
        run_program(shell("head -c 3000000 /dev/zero | tr '\\0' x >&2; exit 1"));
    EXPECT_EQ(endless.complaint, std::string(200, 'x'));
    const ProgramEnd many = run_program(shell("yes oops | head -n 500000 >&2; exit 1"));
    EXPECT_EQ(many.complaint, "oops");
    // in pieces
    const ProgramEnd slow = run_program(
        shell("for c in ' ' a b ' ' c; do printf \"$c\" >&2; sleep 0.02; done; exit 1"));
    EXPECT_EQ(slow.complaint, "ab c");
}

TEST(ProgramRun, FailureWithoutAWord) {
    const ProgramCall call = shell("exit 3");
    EXPECT_EQ(failure_of(call, run_program(call)), "it ended with status 3 and gave no reason");
}

TEST(ProgramRun, EndedBySignal) {
    const ProgramCall call = shell("echo half; kill -SEGV $$");
    const ProgramEnd end = run_program(call);
    EXPECT_FALSE(end.is_success());
    EXPECT_EQ(end.exit_status, -1);
    EXPECT_EQ(end.signal, SIGSEGV);
    EXPECT_EQ(end.output, "half\n");
    EXPECT_EQ(failure_of(call, end), "signal 11 ended it");
}

TEST(ProgramRun, ProgramThatCannotRun) {
    const Scratch scratch;
    Scratch::write(scratch.root() / "text", "no program\n");
    const auto error_of = [](const std::string &path) {
        try {
            run_program(
                {.words = {path}, .input = {}, .time_limit = plenty, .output_limit = megabyte});
        } catch (const std::system_error &error) {
            return std::string(error.what());
        }
        return std::string("it ran");
    };
    EXPECT_EQ(error_of("/nowhere/program"),
              "cannot run /nowhere/program: No such file or directory");
    EXPECT_EQ(error_of(scratch.root() / "text"),
              "cannot run " + (scratch.root() / "text").string() + ": Permission denied");
}

TEST(ProgramRun, BinaryOutputIsLeftAsItIs) {
    const ProgramEnd end = run_program(shell("printf 'a\\0\\377\\033b'"));
    EXPECT_EQ(end.output, std::string("a\0\377\033b", 5));
}

TEST(ProgramRun, HangingChildrenThatIgnoreSignalsAndHoldThePipe) {
    Hanging hanging;
    // One in the group of the program, one in a group and one in a session of its own.
    const ProgramCall call = hanging.call(
        "trap '' TERM HUP INT; echo begun; echo $$ >>$PIDS;"
        "(echo $(exec sh -c 'echo $PPID') >>$PIDS; while :; do sleep 60; done) & "
        "timeout 600 sh -c 'trap \"\" TERM; echo $$ >>$PIDS; while :; do sleep 60; done' &"
        "setsid sh -c 'trap \"\" TERM; echo $$ >>$PIDS; while :; do sleep 60; done' &"
        "while :; do sleep 60; done");
    const auto begin = Clock::now();
    const ProgramEnd end = run_program(call);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(20));
    EXPECT_EQ(end.limit, ProgramEnd::Limit::time);
    EXPECT_EQ(end.output, "begun\n");
    EXPECT_EQ(failure_of(call, end), "it did not end within 2 seconds and was killed");
    EXPECT_TRUE(hanging.all_gone(4)) << Scratch::read(hanging.pids());
}

TEST(ProgramRun, WhatItLeavesBehindIsKilledExceptDaemons) {
    Hanging hanging;
    ProgramCall call = hanging.call("sh -c 'echo $$ >>$PIDS; exec sleep 60' &"
                                    "timeout 600 sh -c 'echo $$ >>$PIDS; exec sleep 60' &"
                                    "setsid sh -c 'echo $$ >$PIDS.daemon; exec sleep 60' &"
                                    "while [ ! -s $PIDS.daemon ] || [ $(wc -l <$PIDS) != 2 ]; do "
                                    "sleep 0.01; done; echo done");
    call.time_limit = plenty;
    const auto begin = Clock::now();
    const ProgramEnd end = run_program(call);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(20));
    EXPECT_EQ(end.output, "done\n");
    EXPECT_TRUE(end.is_success());
    EXPECT_TRUE(hanging.all_gone(2)) << Scratch::read(hanging.pids());
    const int daemon = std::stoi(Scratch::read(hanging.pids().string() + ".daemon"));
    EXPECT_EQ(::kill(daemon, SIGKILL), 0);
}

TEST(ProgramRun, DiesWithItsCaller) {
    Hanging hanging;
    ProgramCall call = hanging.call(
        "echo $$ >>$PIDS; (trap '' TERM; echo $(exec sh -c 'echo $PPID') >>$PIDS; sleep 60) &"
        "setsid sh -c 'echo $$ >>$PIDS; exec sleep 60' & sleep 60");
    call.time_limit = plenty;
    const pid_t caller = host_test::start_child([&call] {
        run_program(call);
        return 0;
    });
    const auto written = [&hanging] {
        const std::string pids = Scratch::read(hanging.pids());
        return std::count(pids.begin(), pids.end(), '\n') == 3;
    };
    EXPECT_TRUE(soon(written));
    EXPECT_FALSE(hanging.all_gone(3));
    ::kill(caller, SIGKILL);
    EXPECT_EQ(host_test::exit_status_of(caller), -1);
    EXPECT_TRUE(soon([&hanging] { return hanging.all_gone(3); })) << Scratch::read(hanging.pids());
}

// Otherwise the next process that takes the lock would meet a program that is still at work.
TEST(ProgramRun, LocksOfADeadCallerStayHeldUntilTheProgramIsGone) {
    Hanging hanging;
    const std::filesystem::path file = hanging.pids().parent_path() / "lock";
    ProgramCall call = hanging.call("ls -l /proc/self/fd >&2; echo $PPID $$ >>$PIDS; sleep 60");
    call.time_limit = plenty;
    const pid_t caller = host_test::start_child([&] {
        const ulmo::FileLock lock(file, ulmo::FileLock::Mode::exclusive, plenty);
        run_program(call);
        return 0;
    });
    ASSERT_TRUE(soon([&] { return Scratch::read(hanging.pids()).ends_with('\n'); }));
    const pid_t guard = std::stoi(Scratch::read(hanging.pids()));
    ASSERT_EQ(::kill(guard, SIGSTOP), 0);
    ::kill(caller, SIGKILL);
    EXPECT_EQ(host_test::exit_status_of(caller), -1);
    EXPECT_TRUE(ulmo::is_locked(file));
    EXPECT_FALSE(hanging.all_gone(2));
    ASSERT_EQ(::kill(guard, SIGCONT), 0);
    EXPECT_TRUE(soon([&] { return !ulmo::is_locked(file); }));
    EXPECT_TRUE(soon([&] { return hanging.all_gone(2); }));
}

TEST(ProgramRun, LocksThatAreFreedAreNotKept) {
    Hanging hanging;
    const std::filesystem::path file = hanging.pids().parent_path() / "lock";
    const auto taken = [&file] {
        return ulmo::FileLock(file, ulmo::FileLock::Mode::exclusive, plenty);
    };
    EXPECT_FALSE(ulmo::is_locked(file)) << "there is no file";
    {
        ulmo::FileLock first = taken();
        const ulmo::FileLock second = std::move(first);
        EXPECT_TRUE(ulmo::is_locked(file));
        EXPECT_EQ(ulmo::FileLock::held().size(), 1U);
        EXPECT_EQ(host_test::in_child([] { return ulmo::FileLock::held().empty() ? 0 : 1; }), 0)
            << "a parent's lock";
        EXPECT_TRUE(run_program(shell("true")).is_success());
    }
    EXPECT_FALSE(ulmo::is_locked(file));
    EXPECT_TRUE(ulmo::FileLock::held().empty());
    {
        const ulmo::FileLock reader(file, ulmo::FileLock::Mode::shared, plenty);
        EXPECT_FALSE(ulmo::is_locked(file));
    }
}

TEST(ProgramRun, OutputLimit) {
    Hanging hanging;
    ProgramCall call = shell("echo $$ >>$PIDS; exec head -c 1000000000 /dev/zero");
    call.environment = {"PIDS=" + hanging.pids().string()};
    const ProgramEnd end = run_program(call);
    EXPECT_EQ(end.limit, ProgramEnd::Limit::output);
    EXPECT_EQ(end.output.size(), megabyte);
    EXPECT_EQ(failure_of(call, end), "it printed more than 1048576 octets and was killed");
    EXPECT_TRUE(hanging.all_gone(1));
    // just as much as it may
    const ProgramEnd full = run_program(shell("head -c 1048576 /dev/zero"));
    EXPECT_TRUE(full.is_success());
    EXPECT_EQ(full.output.size(), megabyte);
}

TEST(ProgramRun, FloodOfErrorsEndsAtTheTimeLimit) {
    ProgramCall call = shell("exec yes 'no such thing' >&2");
    call.time_limit = std::chrono::milliseconds(1300);
    const ProgramEnd end = run_program(call);
    EXPECT_EQ(end.limit, ProgramEnd::Limit::time);
    EXPECT_EQ(end.complaint, "no such thing");
    EXPECT_EQ(failure_of(call, end), "it did not end within 1 second and was killed");
}

TEST(ProgramRun, LargeInputAndOutputAtOnce) {
    const std::string text(3 * megabyte, 'x');
    ProgramCall call =
        shell("head -c 2000000 /dev/zero; echo >&2; cat; head -c 2000000 /dev/zero", text);
    call.output_limit = 16 * megabyte;
    const ProgramEnd end = run_program(call);
    EXPECT_TRUE(end.is_success());
    EXPECT_EQ(end.output, std::string(2000000, '\0') + text + std::string(2000000, '\0'));
}

TEST(ProgramRun, InputThatIsNotRead) {
    const std::string text(3 * megabyte, 'x');
    EXPECT_EQ(run_program(shell("exec <&-; sleep 0.1; echo closed", text)).output, "closed\n");
    EXPECT_EQ(run_program(shell("head -c 5", text)).output, "xxxxx");
    EXPECT_EQ(run_program(shell("wc -c </dev/stdin", text)).output, "3145728\n"); // by name, too
    EXPECT_EQ(run_program(shell("cat")).output, "");
}

TEST(ProgramRun, NothingIsInherited) {
    const int foreign = ::open("/dev/null", O_RDWR); // without O_CLOEXEC
    ::setenv("ULMO_TEST_SECRET", "secret", 1);
    std::signal(SIGUSR1, SIG_IGN);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR2);
    ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
    ProgramCall call =
        shell("ls /proc/self/fd; grep -E 'Sig(Blk|Ign)' /proc/self/status; pwd; umask; "
              "[ $(cut -d ' ' -f 6 /proc/$$/stat) = $$ ] && echo own session");
    const std::string output = run_program(call).output;
    call.words = {"/usr/bin/env"};
    call.environment = {"FILE=x"};
    const std::string variables = run_program(call).output;
    ::sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
    std::signal(SIGUSR1, SIG_DFL);
    ::unsetenv("ULMO_TEST_SECRET");
    ::close(foreign);
    // 3 is the folder that ls reads.
    EXPECT_EQ(output, "0\n1\n2\n3\n"
                      "SigBlk:\t0000000000000000\n"
                      "SigIgn:\t0000000000000000\n"
                      "/\n0077\nown session\n");
    EXPECT_EQ(variables, "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n"
                         "LC_ALL=C\nFILE=x\n");
}

TEST(ProgramRun, SuperusersProgramRunsAsAnOwner) {
    REQUIRE_SUPERUSER("gives a folder to another user");
    const Scratch scratch;
    const auto ids = [&](uid_t user, gid_t group) {
        const auto folder = scratch.root() / std::to_string(user);
        std::filesystem::create_directory(folder);
        EXPECT_EQ(::chown(folder.c_str(), user, group), 0);
        ProgramCall call = shell("echo $(id -u) $(id -ru) $(id -g) $(id -G); cat; cat /dev/stdin; "
                                 "grep CapEff /proc/self/status",
                                 "in ");
        call.as_owner_of = folder;
        return run_program(call).output;
    };
    const passwd *nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    const std::string group = std::to_string(nobody->pw_gid);
    EXPECT_EQ(ids(nobody->pw_uid, 0), std::to_string(nobody->pw_uid) + " " +
                                          std::to_string(nobody->pw_uid) + " " + group + " " +
                                          group + "\nin in CapEff:\t0000000000000000\n");
    EXPECT_EQ(ids(54321, 54322), "54321 54321 54322 54322\nin in CapEff:\t0000000000000000\n");
    EXPECT_TRUE(ids(0, 54322).starts_with("0 0 0 ")) << "of its own folder";

    // It is killed all the same. An ordinary user stays that user.
    Hanging hanging;
    std::filesystem::create_directory(scratch.root() / "x");
    ASSERT_EQ(::chown((scratch.root() / "x").c_str(), nobody->pw_uid, 0), 0);
    ProgramCall call = hanging.call("sleep 60 & exec sleep 60");
    call.as_owner_of = scratch.root() / "x";
    EXPECT_EQ(run_program(call).limit, ProgramEnd::Limit::time);
    EXPECT_EQ(host_test::in_child([&] {
                  if (::setuid(nobody->pw_uid) != 0) {
                      return 1;
                  }
                  call.words.back() = "id -u";
                  call.time_limit = plenty;
                  return run_program(call).output == std::to_string(nobody->pw_uid) + "\n" ? 0 : 2;
              }),
              0);
}

TEST(ProgramRun, DiesAsAnotherUserWithItsGuard) {
    REQUIRE_SUPERUSER("gives a folder to another user");
    Hanging hanging;
    const auto folder = hanging.pids().parent_path();
    ASSERT_EQ(::chown(folder.c_str(), 54321, 54322), 0);
    ProgramCall call = hanging.call("echo $$ $PPID >>$PIDS; exec sleep 60");
    call.as_owner_of = folder;
    call.time_limit = plenty;
    const pid_t caller = host_test::start_child([&call] {
        try {
            run_program(call);
        } catch (const std::runtime_error &error) {
            return std::string(error.what()) == "the process that watches /bin/sh was ended" ? 0
                                                                                             : 1;
        }
        return 2;
    });
    pid_t program = 0;
    pid_t watching = 0;
    EXPECT_TRUE(soon(
        [&] { return static_cast<bool>(std::ifstream(hanging.pids()) >> program >> watching); }));
    EXPECT_EQ(::kill(watching, SIGKILL), 0);
    EXPECT_EQ(host_test::exit_status_of(caller), 0);
    EXPECT_TRUE(soon([&] { return hanging.all_gone(2); }));
}

// Some programs close all descriptors that they could have, and a container may allow a million.
TEST(ProgramRun, UsualNumberOfDescriptors) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const std::string hard =
        before.rlim_max == RLIM_INFINITY ? "unlimited" : std::to_string(before.rlim_max);
    const auto limits_with = [&](rlim_t own) {
        const rlimit changed{own, before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &changed), 0);
        const std::string output = run_program(shell("ulimit -Sn; ulimit -Hn")).output;
        rlimit after{};
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &after), 0);
        EXPECT_EQ(after.rlim_cur, own) << "the caller's own";
        return output;
    };
    ASSERT_GE(before.rlim_max, 1025U);
    EXPECT_EQ(limits_with(before.rlim_max), "1024\n" + hard + "\n");
    EXPECT_EQ(limits_with(1000), "1000\n" + hard + "\n");
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}

namespace {

// Repeats what it reads, and whispers it, too.
constexpr const char *parrot = "while read -r line; do echo \"$line\"; "
                               "[ \"$line\" = quiet ] || echo \"no $line\" >&2; done";

} // namespace

TEST(ProgramRun, ConversationAnswersEachQuestion) {
    ulmo::Conversation conversation(shell(parrot));
    for (const std::string word : {"one", "two", "three"}) {
        const ProgramEnd end = conversation.ask(word + "\n.\n", ".\n");
        EXPECT_EQ(end.output, word + "\n.\n");
        EXPECT_EQ(end.complaint, "no " + word);
        EXPECT_EQ(end.exit_status, 0);
        // What comes after the mark belongs to the next answer.
        EXPECT_EQ(conversation.ask("a.b\n", ".").output, "a.");
        EXPECT_EQ(conversation.ask("quiet\n", "quiet\n").output, "b\nquiet\n");
    }
}

TEST(ProgramRun, ConversationOfLongTexts) {
    const std::string text(3 * megabyte, 'x');
    ProgramCall call = shell("exec cat");
    call.output_limit = 4 * megabyte;
    ulmo::Conversation conversation(call);
    for (int i = 0; i < 2; ++i) { // the limit is that of each answer
        EXPECT_EQ(conversation.ask(text + "\n", "\n").output, text + "\n");
    }
    call.output_limit = megabyte;
    const ProgramEnd end = ulmo::Conversation(call).ask(text + "\n", "\n");
    EXPECT_EQ(end.limit, ProgramEnd::Limit::output);
    EXPECT_EQ(end.output.size(), megabyte);
}

TEST(ProgramRun, ConversationWithAProgramThatEnds) {
    const auto answer_of = [](const std::string &line) {
        const ProgramCall call = shell(line);
        ulmo::Conversation conversation(call);
        const ProgramEnd end = conversation.ask(std::string(megabyte, 'x'), "mark");
        return end.output + "|" + (end.is_success() ? "success" : failure_of(call, end));
    };
    EXPECT_EQ(answer_of("echo half; exit 3"), "half\n|it ended with status 3 and gave no reason");
    EXPECT_EQ(answer_of("echo half; echo why >&2; exit 3"), "half\n|why");
    EXPECT_EQ(answer_of("echo half; kill -SEGV $$"), "half\n|signal 11 ended it");
    EXPECT_EQ(answer_of("echo half"), "half\n|success");
    EXPECT_EQ(answer_of("exec <&-; sleep 0.1; echo mark"), "mark|success");
    EXPECT_EQ(answer_of("exec <&-; echo the; sleep 0.1; printf mark; sleep 60"),
              "the\nmark|success");
    // It answers and ends, and is then asked again.
    ulmo::Conversation brief(shell("read -r line; echo mark; exit 3"));
    EXPECT_EQ(brief.ask("one\n", "mark\n").exit_status, 0);
    EXPECT_EQ(brief.ask("two\n", "mark\n").exit_status, 3);
    ulmo::Conversation missing({.words = {"/nowhere/program"},
                                .input = {},
                                .time_limit = plenty,
                                .output_limit = megabyte});
    EXPECT_THROW(missing.ask("one\n", "mark"), std::system_error);
}

TEST(ProgramRun, ConversationWithAProgramThatHangs) {
    for (const char *const end :
         {"exec sleep 60", "exec yes oops >&2", "while :; do read -r x; done"}) {
        Hanging hanging;
        const ProgramCall call =
            hanging.call(std::string("echo $$ >>$PIDS; (echo $(exec sh -c 'echo "
                                     "$PPID') >>$PIDS; sleep 60) & read -r x; "
                                     "echo mark; ") +
                         end);
        ulmo::Conversation conversation(call);
        EXPECT_EQ(conversation.ask("one\n", "mark\n").output, "mark\n");
        const auto begin = Clock::now();
        const ProgramEnd answer = conversation.ask("two\n", "mark\n");
        EXPECT_EQ(answer.limit, ProgramEnd::Limit::time);
        EXPECT_EQ(failure_of(call, answer), "it did not end within 2 seconds and was killed");
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(20));
        EXPECT_TRUE(hanging.all_gone(2));
    }
}

TEST(ProgramRun, ConversationEndsWithItsObjectAndItsCaller) {
    Hanging hanging;
    ProgramCall call =
        hanging.call("trap '' TERM PIPE; echo $$ >>$PIDS; (trap '' TERM; echo $(exec sh -c "
                     "'echo $PPID') >>$PIDS; sleep 60) & read -r x; echo mark; sleep 60");
    call.time_limit = plenty;
    const auto written = [&hanging](int count) {
        const std::string pids = Scratch::read(hanging.pids());
        return std::count(pids.begin(), pids.end(), '\n') == count;
    };
    {
        ulmo::Conversation conversation(call);
        conversation.ask("one\n", "mark\n");
        EXPECT_TRUE(soon([&] { return written(2); }));
        EXPECT_FALSE(hanging.all_gone(2));
    }
    EXPECT_TRUE(hanging.all_gone(2));
    const pid_t caller = host_test::start_child([&] {
        ulmo::Conversation conversation(call);
        conversation.ask("one\n", "mark\n");
        return ::pause();
    });
    EXPECT_TRUE(soon([&] { return written(4); }));
    EXPECT_FALSE(hanging.all_gone(4));
    ::kill(caller, SIGKILL);
    EXPECT_EQ(host_test::exit_status_of(caller), -1);
    EXPECT_TRUE(soon([&hanging] { return hanging.all_gone(4); }));
}

TEST(ProgramRun, CallerKeepsItsSignals) {
    std::signal(SIGCHLD, SIG_IGN);
    sigset_t before;
    ::sigprocmask(SIG_SETMASK, nullptr, &before);
    const ProgramEnd end = run_program(shell("exit 5"));
    sigset_t after;
    ::sigprocmask(SIG_SETMASK, nullptr, &after);
    EXPECT_NE(std::signal(SIGCHLD, SIG_DFL), SIG_DFL);
    EXPECT_EQ(end.exit_status, 5);
    EXPECT_EQ(::sigismember(&after, SIGTERM), ::sigismember(&before, SIGTERM));
}

TEST(ProgramRun, CallerWithoutStandardStreams) {
    const int status = host_test::in_child([] {
        ::closefrom(0);
        return run_program(shell("cat; echo x; echo y >&2", "in ")).output == "in x\n" ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
}

TEST(ProgramRun, LeavesNoDescriptorAndNoChild) {
    const auto descriptors = [] {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return std::distance(begin(files), end(files));
    };
    const auto before = descriptors();
    run_program(shell("echo x"));
    EXPECT_THROW(run_program({.words = {"/nowhere/program"},
                              .input = {},
                              .time_limit = plenty,
                              .output_limit = megabyte}),
                 std::system_error);
    ulmo::Conversation(shell(parrot)).ask("one\n", "one\n");
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}
