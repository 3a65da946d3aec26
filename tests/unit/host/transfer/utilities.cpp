#include "platform/utilities.h"
#include "tests/unit/child.h"
#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

using host_test::in_child; // a child may change its standard streams and signals as it likes

constexpr const char *shell = "/bin/sh";

// A file of the scratch directory, open for reading and writing.
class OpenFile {
  public:
    OpenFile(const Scratch &scratch, const std::string &name, const std::string &contents = "")
        : path_(scratch.root() / name), descriptor_((Scratch::write(path_, contents),
                                                     ::open(path_.c_str(), O_RDWR | O_CLOEXEC))) {}
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;
    ~OpenFile() { ::close(descriptor_); }
    [[nodiscard]] int get() const { return descriptor_; }
    [[nodiscard]] std::string contents() const { return Scratch::read(path_); }

  private:
    std::filesystem::path path_;
    int descriptor_;
};

class RunProgram : public testing::Test {
  protected:
    Scratch scratch;
};

TEST_F(RunProgram, RedirectsTheThreeStreams) {
    const OpenFile in(scratch, "in", "text\n");
    const OpenFile out(scratch, "out");
    const OpenFile err(scratch, "err");
    EXPECT_EQ(execute_program_and_wait_redirect(in.get(), out.get(), err.get(), shell, "-c",
                                                "cat; echo error >&2", nullptr),
              0);
    EXPECT_EQ(out.contents(), "text\n");
    EXPECT_EQ(err.contents(), "error\n");
}

TEST_F(RunProgram, OneDescriptorMayServeTwoStreams) {
    const OpenFile out(scratch, "out");
    EXPECT_EQ(execute_program_and_wait_redirect(-1, out.get(), out.get(), shell, "-c",
                                                "echo a; echo b >&2; echo c", nullptr),
              0);
    EXPECT_EQ(out.contents(), "a\nb\nc\n");
}

TEST_F(RunProgram, PassesArgumentsAsTheyAre) {
    const OpenFile out(scratch, "out");
    EXPECT_EQ(execute_program_and_wait_redirect(-1, out.get(), -1, "/usr/bin/printf", "<%s>", "",
                                                "a b", "$HOME;`x`\"'\\", "*", nullptr),
              0);
    EXPECT_EQ(out.contents(), "<><a b><$HOME;`x`\"'\\><*>");
    EXPECT_EQ(execute_program_and_wait_redirect(-1, -1, -1, "/bin/true", nullptr), 0);
}

TEST_F(RunProgram, ReturnsTheWaitStatus) {
    int status = execute_program_and_wait_redirect(-1, -1, -1, shell, "-c", "exit 7", nullptr);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    status = execute_program_and_wait_redirect(-1, -1, -1, shell, "-c", "kill -KILL $$", nullptr);
    EXPECT_EQ(status, -SIGKILL);
}

TEST_F(RunProgram, WhatCannotBeRunIsNegative) {
    Scratch::write(scratch.root() / "plain", "echo never\n");
    EXPECT_LT(execute_program_and_wait_redirect(-1, -1, -1, "/no/such/program", nullptr), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LT(
        execute_program_and_wait_redirect(-1, -1, -1, (scratch.root() / "plain").c_str(), nullptr),
        0);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LT(execute_program_and_wait_redirect(-1, -1, -1, scratch.root().c_str(), nullptr), 0);
    EXPECT_LT(execute_program_and_wait_redirect(-1, -1, -1, "sh", "-c", "true", nullptr), 0)
        << "no search in PATH";
    EXPECT_LT(execute_program_and_wait_redirect(-1, -1, -1, nullptr, nullptr), 0);
    EXPECT_LT(execute_program_and_wait_redirect(-1, 987, -1, "/bin/true", nullptr), 0)
        << "a descriptor that is not open";
    EXPECT_EQ(errno, EBADF);
}

TEST_F(RunProgram, IgnoredChildrenCannotBeWaitedFor) {
    EXPECT_EQ(in_child([] {
                  ::signal(SIGCHLD, SIG_IGN);
                  return execute_program_and_wait_redirect(-1, -1, -1, "/bin/true", nullptr) < 0 &&
                                 errno == ECHILD
                             ? 0
                             : 1;
              }),
              0);
}

TEST_F(RunProgram, InheritsNoOtherDescriptor) {
    const OpenFile out(scratch, "out");
    const int open_to_all = ::open("/dev/null", O_RDONLY); // NOLINT: inheritable, that is the point
    const int high = ::fcntl(open_to_all, F_DUPFD, 200);
    EXPECT_EQ(execute_program_and_wait_redirect(-1, out.get(), -1, shell, "-c",
                                                "echo /proc/$$/fd/*", nullptr),
              0);
    ::close(open_to_all);
    ::close(high);
    // The shell itself opens the directory only during the expansion, as a descriptor of its own.
    std::string seen = out.contents();
    EXPECT_EQ(seen.find("/fd/200"), std::string::npos) << seen;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), ' ') + 1, 4) << seen;
}

TEST_F(RunProgram, ClosedStandardStreamsBecomeTheNullDevice) {
    const OpenFile out(scratch, "out");
    EXPECT_EQ(in_child([&] {
                  ::close(0);
                  ::close(2);
                  return execute_program_and_wait_redirect(-1, out.get(), -1, "/usr/bin/readlink",
                                                           "/proc/self/fd/0", "/proc/self/fd/1",
                                                           "/proc/self/fd/2", nullptr);
              }),
              0);
    EXPECT_EQ(out.contents(), "/dev/null\n" + (scratch.root() / "out").string() + "\n/dev/null\n");
}

TEST_F(RunProgram, GivenDescriptorMayItselfBeAStandardStream) {
    const OpenFile first(scratch, "first", "first\n");
    const OpenFile second(scratch, "second");
    EXPECT_EQ(in_child([&] {
                  // Swapped: the parent's descriptor 1 is the program's input, its descriptor 0 the
                  // output.
                  ::dup2(first.get(), 1);
                  ::dup2(second.get(), 0);
                  return execute_program_and_wait_redirect(1, 0, -1, "/bin/cat", nullptr);
              }),
              0);
    EXPECT_EQ(second.contents(), "first\n");
    const OpenFile same(scratch, "same");
    EXPECT_EQ(in_child([&] {
                  ::dup2(same.get(), 1);
                  ::fcntl(1, F_SETFD, FD_CLOEXEC);
                  ::dup2(same.get(), 2);
                  ::fcntl(2, F_SETFD, FD_CLOEXEC);
                  return execute_program_and_wait_redirect(-1, 1, -1, shell, "-c",
                                                           "echo out; echo err >&2", nullptr);
              }),
              0);
    EXPECT_EQ(same.contents(), "out\nerr\n");
}

TEST_F(RunProgram, ProgramBeginsWithDefaultSignals) {
    const OpenFile out(scratch, "out");
    EXPECT_EQ(in_child([&] {
                  ::signal(SIGPIPE, SIG_IGN);
                  ::signal(SIGTERM, SIG_IGN);
                  sigset_t all;
                  ::sigfillset(&all);
                  ::sigprocmask(SIG_SETMASK, &all, nullptr);
                  return execute_program_and_wait_redirect(-1, out.get(), -1, "/bin/grep", "-E",
                                                           "^Sig(Blk|Ign)", "/proc/self/status",
                                                           nullptr);
              }),
              0);
    std::uint64_t blocked = 1;
    std::uint64_t ignored = 1;
    ASSERT_EQ(std::sscanf(out.contents().c_str(), "SigBlk: %" SCNx64 " SigIgn: %" SCNx64, &blocked,
                          &ignored),
              2)
        << out.contents();
    EXPECT_EQ(blocked, 0U);
    // Signals 32 and 33 are the C library's own (nptl(7)); it leaves them ignored in a spawned
    // program.
    constexpr std::uint64_t of_the_library = std::uint64_t{3} << 31U;
    EXPECT_EQ(ignored & ~of_the_library, 0U);
}

TEST_F(RunProgram, WaitsThroughInterruptions) {
    EXPECT_EQ(in_child([] {
                  struct sigaction action {};
                  action.sa_handler = [](int) {};
                  ::sigaction(SIGALRM, &action, nullptr); // without SA_RESTART
                  const itimerval often{{0, 5000}, {0, 5000}};
                  ::setitimer(ITIMER_REAL, &often, nullptr);
                  const int status = execute_program_and_wait_redirect(
                      -1, -1, -1, shell, "-c", "sleep 0.1; exit 3", nullptr);
                  return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
              }),
              3);
}

TEST_F(RunProgram, LeavesNoDescriptorBehind) {
    const OpenFile out(scratch, "out");
    const int next = ::dup(0);
    ::close(next);
    EXPECT_EQ(execute_program_and_wait_redirect(-1, out.get(), out.get(), "/bin/true", nullptr), 0);
    EXPECT_LT(
        execute_program_and_wait_redirect(-1, out.get(), out.get(), "/no/such/program", nullptr),
        0);
    const int after = ::dup(0);
    ::close(after);
    EXPECT_EQ(after, next);
}

TEST(StatusText, KnownCodesHaveTexts) {
    EXPECT_STREQ(syserr2str(0), "success");
    EXPECT_STREQ(syserr2str(0x401E0003U), "configuration action initiated");
    EXPECT_STREQ(syserr2str(0x40490049U), "another copy is in progress");
    EXPECT_STREQ(syserr_format(0x40490049U), "another copy is in progress (0x40490049)");
    for (const std::uint32_t code :
         {0x40490001U, 0x40490002U, 0x40490009U, 0x4049004AU, 0x4049004BU, 0x4049004CU, 0x4049004DU,
          0x4049005BU, 0x40540001U, 0x40540002U, 0x40540003U}) {
        const std::string text = syserr2str(code);
        EXPECT_EQ(text.find("status"), std::string::npos) << text;
        char hexadecimal[16];
        std::snprintf(hexadecimal, sizeof hexadecimal, "(0x%08x)", code);
        EXPECT_EQ(syserr_format(code), text + ' ' + hexadecimal);
    }
}

TEST(StatusText, OtherCodesShowThemselves) {
    EXPECT_STREQ(syserr2str(5), "unknown status 0x00000005");
    EXPECT_STREQ(syserr2str(0xFFFFFFFFU), "unknown status 0xffffffff");
    EXPECT_STREQ(syserr_format(0x12345678U), "unknown status 0x12345678");
    EXPECT_STREQ(syserr2str(0x401E0099U), "system manager status 0x401e0099");
}

TEST(StatusText, IsValidUntilTheNextCallOfTheSameFunction) {
    const Scratch scratch;
    const char *plain = syserr2str(0x11U);
    const char *formatted = syserr_format(0x22U);
    log_set_error(0x33U, 584);
    EXPECT_STREQ(plain, "unknown status 0x00000011");
    EXPECT_STREQ(formatted, "unknown status 0x00000022");
}

} // namespace
