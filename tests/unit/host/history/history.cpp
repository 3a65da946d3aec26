#include "platform/host/history/history.h"
#include "platform/evtrace.h"
#include "tests/unit/child.h"
#include "tests/unit/own_mounts.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

std::function<void()> before_write;
std::function<void()> before_lock;

} // namespace

// Replaces the library's function, also for the platform: the test chooses what happens right
// before the next call.
extern "C" __attribute__((visibility("default"))) int flock(int descriptor,
                                                            int operation) noexcept {
    if (const auto hook = std::exchange(before_lock, nullptr)) {
        hook();
    }
    return static_cast<int>(::syscall(SYS_flock, descriptor, operation));
}
extern "C" __attribute__((visibility("default"))) ssize_t write(int descriptor, const void *data,
                                                                std::size_t size) {
    if (const auto hook = std::exchange(before_write, nullptr)) {
        hook();
    }
    return ::syscall(SYS_write, descriptor, data, size);
}

namespace {

constexpr std::size_t roomy = std::size_t{1} << 20U;

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> texts_of(const std::string &text) {
    std::vector<std::string> texts = lines_of(text);
    for (std::string &each : texts) {
        each = std::regex_replace(each, std::regex(R"(^\S+Z \d+ \S+ )"), "");
    }
    return texts;
}

using Texts = std::vector<std::string>;

class History : public testing::Test {
  protected:
    static void append(const std::string &text, std::size_t limit = roomy,
                       std::uint32_t subtype = EVTRACE_DEBUG) {
        ulmo::append_to_history(ulmo::history_line(subtype, text), limit);
    }
    [[nodiscard]] Texts texts() const { return texts_of(Scratch::read(file)); }
    [[nodiscard]] Texts older_texts() const { return texts_of(Scratch::read(older)); }

    Scratch scratch;
    std::filesystem::path file = scratch.run("history.log");
    std::filesystem::path older = scratch.run("history.log.1");
};

TEST_F(History, ALineTellsTimeProcessKindAndText) {
    const auto line = [](std::uint32_t subtype, std::string_view text) {
        return ulmo::history_line(subtype, text);
    };
    const std::string start =
        R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )" + std::to_string(::getpid());
    const auto expect = [&](const std::string &seen, const std::string &rest) {
        EXPECT_TRUE(std::regex_match(seen, std::regex(start + rest))) << seen;
    };
    expect(line(EVTRACE_DEBUG, " plain ~\r\n\n"), " debug  plain ~\n");
    expect(line(EVTRACE_ERROR, std::string_view("a\tb\nc\rd\x1b[2J\\\xc3\xa4\0e\x7f", 17)),
           R"( error a\\tb\\nc\\rd\\x1b\[2J\\\\\\xc3\\xa4\\x00e\\x7f)"
           "\n");
    expect(line(7, ""), " 7 \n");

    // Not by time(2): its clock may be behind, by a tick of the kernel.
    using std::chrono::system_clock;
    const auto before = system_clock::to_time_t(system_clock::now());
    const std::string now = line(7, "");
    const auto after = system_clock::to_time_t(system_clock::now());
    std::tm parts{};
    ASSERT_NE(::strptime(now.c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr) << now;
    EXPECT_GE(::timegm(&parts), before);
    EXPECT_LE(::timegm(&parts), after);
}

TEST_F(History, ATextOfAnyLengthIsOneShortLine) {
    for (const std::size_t length : {0U, 1U, 543U, 544U, 545U, 100'000U}) {
        const std::string line = ulmo::history_line(EVTRACE_DEBUG, std::string(length, 'x'));
        EXPECT_EQ(static_cast<std::size_t>(std::count(line.begin(), line.end(), 'x')),
                  std::min<std::size_t>(length, 544));
        EXPECT_EQ(line.find('\n'), line.size() - 1);
        EXPECT_LT(ulmo::history_line(EVTRACE_DEBUG, std::string(length, '\0')).size(), 4096U);
    }
}

TEST_F(History, KeepsWhatAllItsWritersHaveWritten) {
    append("agent");
    EXPECT_EQ(host_test::in_child([] { return append("worker"), 0; }), 0);
    append("next agent");
    EXPECT_EQ(texts(), (Texts{"agent", "worker", "next agent"}));
}

TEST_F(History, IsForItsOwnerOnly) {
    ::umask(0);
    append("x", 1);
    append("x", 1);
    ::umask(022);
    EXPECT_EQ(Scratch::status_of(file).st_mode, S_IFREG | 0600U);
    EXPECT_EQ(Scratch::status_of(older).st_mode, S_IFREG | 0400U);
}

TEST_F(History, MakesTheRunDirectory) {
    std::filesystem::remove_all(scratch.root() / "run");
    append("first");
    EXPECT_EQ(texts(), Texts{"first"});
    EXPECT_EQ(Scratch::status_of(scratch.root() / "run").st_mode, S_IFDIR | 0755U);
}

TEST_F(History, FollowsNoLink) {
    const auto elsewhere = scratch.root() / "elsewhere";
    Scratch::write(elsewhere, "");
    ::chmod(elsewhere.c_str(), 0600);
    std::filesystem::create_symlink(elsewhere, file);
    EXPECT_THROW(append("x"), std::system_error);
    EXPECT_EQ(Scratch::read(elsewhere), "");
    std::filesystem::remove(elsewhere);
    EXPECT_THROW(append("x"), std::system_error);
    EXPECT_FALSE(std::filesystem::exists(elsewhere)) << "nothing is made at the end of a link";

    std::filesystem::remove(file);
    Scratch::write(elsewhere, "own");
    ::chmod(elsewhere.c_str(), 0600);
    std::filesystem::create_hard_link(elsewhere, file);
    std::filesystem::create_symlink(elsewhere, older);
    append("first");
    append("second", 1);
    EXPECT_EQ(Scratch::read(elsewhere), "own");
    EXPECT_EQ(older_texts(), Texts{"first"}) << "the link is replaced";
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(older)));
}

TEST_F(History, DoesNotTrustAFileThatOthersCanOpen) {
    for (const mode_t mode : {0666U, 0640U, 0604U, 0602U}) {
        append("old");
        ::chmod(file.c_str(), mode);
        append("new");
        EXPECT_EQ(texts(), Texts{"new"}) << mode;
        EXPECT_EQ(Scratch::status_of(file).st_mode, S_IFREG | 0600U) << mode;
        std::filesystem::remove(file);
    }
}

TEST_F(History, APipeInItsPlaceIsReplaced) {
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    append("x");
    EXPECT_EQ(Scratch::status_of(file).st_mode, S_IFREG | 0600U);
    EXPECT_EQ(texts(), Texts{"x"});
}

TEST_F(History, AFullFileBecomesTheOlderOne) {
    const std::size_t size = ulmo::history_line(EVTRACE_DEBUG, "0").size();
    for (int i = 0; i < 10; ++i) {
        append(std::to_string(i), 4 * size);
    }
    EXPECT_EQ(older_texts(), (Texts{"4", "5", "6", "7"}));
    EXPECT_EQ(texts(), (Texts{"8", "9"}));
}

TEST_F(History, StaysSmallWhenTheOlderNameIsTaken) {
    std::filesystem::create_directories(older / "in the way");
    for (int i = 0; i < 10; ++i) {
        append(std::to_string(i), 1);
    }
    EXPECT_EQ(texts(), Texts{"9"});
}

TEST_F(History, WaitsForNoProcessThatIsRenaming) {
    append("first");
    const int other = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(other, LOCK_EX), 0);
    append("second", 1);
    EXPECT_EQ(texts(), (Texts{"first", "second"}));
    ::close(other);
    append("third", 1);
    EXPECT_EQ(older_texts(), (Texts{"first", "second"}));
    EXPECT_EQ(texts(), Texts{"third"});
}

TEST_F(History, AProcessThatWroteBeforeTheRenamingWritesToTheNewFile) {
    std::array<int, 2> renamed{};
    std::array<int, 2> written{};
    ASSERT_EQ(::pipe(renamed.data()) | ::pipe(written.data()), 0);
    append("parent");
    const pid_t child = host_test::start_child([&] {
        char word = 0;
        append("child");
        const bool is_told =
            ::write(written[1], &word, 1) == 1 && ::read(renamed[0], &word, 1) == 1;
        append("child again");
        return is_told ? 0 : 1;
    });
    char word = 0;
    EXPECT_EQ(::read(written[0], &word, 1), 1);
    append("parent again", 1);
    EXPECT_EQ(::write(renamed[1], &word, 1), 1);
    EXPECT_EQ(host_test::exit_status_of(child), 0);
    EXPECT_EQ(older_texts(), (Texts{"parent", "child"}));
    EXPECT_EQ(texts(), (Texts{"parent again", "child again"}));
    for (const int each : {renamed[0], renamed[1], written[0], written[1]}) {
        ::close(each);
    }
}

TEST_F(History, ARenamingIsNoticedByAProcessWithAnotherLimit) {
    append("first");
    EXPECT_EQ(host_test::in_child([] { return append("second", 1), 0; }), 0);
    append("third");
    EXPECT_EQ(older_texts(), Texts{"first"});
    EXPECT_EQ(texts(), (Texts{"second", "third"}));
    std::filesystem::remove(file);
    append("fourth");
    EXPECT_EQ(texts(), Texts{"fourth"}) << "the removal is noticed, too";
}

TEST_F(History, ADescriptorThatAnotherFileHasNowIsLeftAlone) {
    append("first");
    const auto elsewhere = scratch.root() / "elsewhere";
    Scratch::write(elsewhere, "");
    int stolen = -1;
    for (const auto &each : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(each, ignored) == std::filesystem::canonical(file)) {
            stolen = std::stoi(each.path().filename());
        }
    }
    ASSERT_GE(stolen, 0);
    const int other = ::open(elsewhere.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::dup2(other, stolen), stolen);
    append("second");
    EXPECT_EQ(Scratch::read(elsewhere), "");
    EXPECT_EQ(texts(), (Texts{"first", "second"}));
    EXPECT_GE(::fcntl(stolen, F_GETFD), 0) << "it was closed";
    ::close(stolen);
    ::close(other);
}

TEST_F(History, ThrowsWhereItCannotBe) {
    std::filesystem::create_directory(file);
    EXPECT_THROW(append("x"), std::system_error);
    Scratch::write(scratch.root() / "plain", "");
    ::setenv("ULMO_RUN_DIR", (scratch.root() / "plain" / "run").c_str(), 1);
    EXPECT_THROW(append("x"), std::system_error);
}

TEST_F(History, AFullDiskTakesWholeRecordsOrNone) {
    REQUIRE_SUPERUSER("mounts a disk");
    EXPECT_EQ(
        host_test::in_child([&] {
            if (!get_own_mounts() ||
                ::mount("small", scratch.run("").c_str(), "tmpfs", 0, "size=64k,mode=0700") != 0) {
                return 1;
            }
            const std::string text(300, 'x');
            int refused = 0;
            for (int i = 0; i < 1000; ++i) {
                try {
                    append(text);
                } catch (const std::system_error &error) {
                    refused += error.code().value() == ENOSPC ? 1 : 0;
                }
            }
            const std::size_t before = texts().size();
            if (::mount("small", scratch.run("").c_str(), "tmpfs", MS_REMOUNT, "size=128k") != 0) {
                return 2;
            }
            append(text);
            const Texts all = texts();
            const bool is_whole =
                std::all_of(all.begin(), all.end(), [&](const auto &each) { return each == text; });
            return refused == 1000 - static_cast<int>(before) && before > 100 &&
                           all.size() == before + 1 && is_whole
                       ? 0
                       : 3;
        }),
        0);
}

constexpr int writers = 10;

// `<writer> <number> <octets>`: the octets show whether a record was torn or mixed with another.
std::string numbered(int writer, int number) {
    const std::string start = std::to_string(writer) + ' ' + std::to_string(number) + ' ';
    return start + std::string(static_cast<std::size_t>(20 + number % 200),
                               static_cast<char>('a' + writer));
}

TEST_F(History, OfTenWritersNoRecordIsLostOrCut) {
    constexpr int records = 40; // by each writer
    std::set<std::string> expected;
    std::size_t size = 0;
    for (int i = 0; i < writers * records; ++i) {
        const std::string text = numbered(i % writers, i / writers);
        size += ulmo::history_line(EVTRACE_DEBUG, text).size();
        expected.insert(text);
    }
    // The file is then renamed once, by any of the ten, and both files together hold all records.
    const std::size_t limit = size * 6 / 10;
    for (int round = 0; round < 25; ++round) {
        std::filesystem::remove(file);
        std::filesystem::remove(older);
        std::array<int, 2> start{};
        ASSERT_EQ(::pipe(start.data()), 0);
        std::vector<pid_t> children;
        for (int writer = 0; writer < writers; ++writer) {
            children.push_back(host_test::start_child([&start, limit, writer] {
                char word = 0;
                ::close(start[1]);
                const bool is_told = ::read(start[0], &word, 1) == 0;
                for (int number = 0; number < records; ++number) {
                    append(numbered(writer, number), limit);
                }
                return is_told ? 0 : 1;
            }));
        }
        ::close(start[0]);
        ::close(start[1]);
        for (const pid_t child : children) {
            EXPECT_EQ(host_test::exit_status_of(child), 0);
        }
        EXPECT_GE(std::filesystem::file_size(older), limit);
        const Texts all = texts_of(Scratch::read(older) + Scratch::read(file));
        ASSERT_EQ(all.size(), expected.size()) << "round " << round;
        ASSERT_EQ(std::set<std::string>(all.begin(), all.end()), expected) << "round " << round;
    }
}

TEST_F(History, AFileThatAnotherProcessHasJustRenamedIsNotRenamedAgain) {
    const std::size_t limit = 2 * ulmo::history_line(EVTRACE_DEBUG, "first").size();
    append("first", limit);
    append("other", limit);
    before_lock = [limit] {
        EXPECT_EQ(host_test::in_child([limit] { return append("x", limit), 0; }), 0);
    };
    append("y", limit);
    EXPECT_EQ(older_texts(), (Texts{"first", "other"}));
    EXPECT_EQ(texts(), (Texts{"x", "y"}));
}

TEST_F(History, ARecordForAFileThatHasJustGoneIsWrittenAgain) {
    append("first");
    before_write = [] {
        EXPECT_EQ(host_test::in_child([] { return append("second", 1), append("third", 1), 0; }),
                  0);
    };
    append("fourth");
    EXPECT_EQ(older_texts(), Texts{"second"});
    EXPECT_EQ(texts(), (Texts{"third", "fourth"}));
}

struct Output {
    int status = -1;
    std::string text;
};

Output run_history(const std::string &arguments) {
    const std::string command =
        host_test::quoted_program("ulmo-history") + ' ' + arguments + " 2>&1";
    std::FILE *pipe = ::popen(command.c_str(), "r");
    Output output;
    char line[4096];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        output.text += line;
    }
    output.status = WEXITSTATUS(::pclose(pipe));
    return output;
}

// `ulmo-history -f`, and its output.
class Follower {
  public:
    Follower() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        const std::string binary = host_test::program("ulmo-history");
        child_ = ::fork();
        if (child_ == 0) {
            ::dup2(ends[1], STDOUT_FILENO);
            // it would follow for ever if this test ended early
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::alarm(100); // or wait for a line that does not come
            ::execl(binary.c_str(), "ulmo-history", "-f", nullptr);
            ::_exit(127);
        }
        ::close(ends[1]);
        output_ = ::fdopen(ends[0], "r");
    }
    ~Follower() {
        ::kill(child_, SIGTERM);
        int status = 0;
        ::waitpid(child_, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status));
        std::fclose(output_);
    }
    Follower(const Follower &) = delete;
    Follower &operator=(const Follower &) = delete;

    // Waits for the next line and returns its text.
    std::string next() {
        char line[4096] = "";
        EXPECT_NE(std::fgets(line, sizeof line, output_), nullptr);
        return texts_of(line).at(0);
    }

  private:
    pid_t child_ = -1;
    std::FILE *output_ = nullptr;
};

using HistoryProgram = History;

TEST_F(HistoryProgram, PrintsBothFiles) {
    append("first", 1);
    append("second", 1);
    append("third");
    const Output output = run_history("");
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, Scratch::read(older) + Scratch::read(file));
    EXPECT_EQ(texts_of(output.text), (Texts{"first", "second", "third"}));
    std::filesystem::remove(file);
    EXPECT_EQ(texts_of(run_history("").text), Texts{"first"}) << "while the file is being renamed";
}

TEST_F(HistoryProgram, SelectsRecords) {
    append("error debug");
    append("told", roomy, EVTRACE_ERROR);
    pid_t child = host_test::start_child(
        [] { return append("child"), append("child's error", roomy, EVTRACE_ERROR), 0; });
    EXPECT_EQ(host_test::exit_status_of(child), 0);
    EXPECT_EQ(texts_of(run_history("--errors").text), (Texts{"told", "child's error"}));
    EXPECT_EQ(texts_of(run_history("-p " + std::to_string(child)).text),
              (Texts{"child", "child's error"}));
    EXPECT_EQ(texts_of(run_history("--errors --process=" + std::to_string(child)).text),
              Texts{"child's error"});
}

TEST_F(HistoryProgram, ExitStatusTells) {
    const Output missing = run_history("");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.text, "ulmo-history: cannot read the history: " + file.string() +
                                ": No such file or directory\n");
    std::filesystem::create_symlink("/etc/passwd", file);
    EXPECT_EQ(run_history("").status, 1);
    for (const char *arguments :
         {"-x", "-p", "-p x", "-p -1", "-p 3x", "-p ''", "extra", "--unknown"}) {
        EXPECT_EQ(run_history(arguments).status, 2) << arguments;
    }
    const Output help = run_history("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.text.find("Exit status: 0"), std::string::npos);
    std::filesystem::remove(file);
    append("x");
    EXPECT_EQ(run_history(">/dev/full").status, 1) << "the output can't be written";
}

TEST_F(HistoryProgram, PrintsARecordWhenItsLineIsWhole) {
    append("whole");
    const std::string line = ulmo::history_line(EVTRACE_DEBUG, "in parts");
    const int writer = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    EXPECT_EQ(::write(writer, line.data(), 40), 40);
    EXPECT_EQ(texts_of(run_history("").text), Texts{"whole"});
    Follower follower;
    EXPECT_EQ(follower.next(), "whole");
    EXPECT_EQ(::write(writer, line.data() + 40, line.size() - 40),
              static_cast<ssize_t>(line.size()) - 40);
    EXPECT_EQ(follower.next(), "in parts");
    ::close(writer);
}

TEST_F(HistoryProgram, FollowsFromFileToFile) {
    append("before");
    Follower follower;
    EXPECT_EQ(follower.next(), "before");
    const int late = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    append("after", 1);
    EXPECT_EQ(follower.next(), "after");
    // A writer that had opened the file before it was renamed.
    const std::string line = ulmo::history_line(EVTRACE_DEBUG, "late");
    EXPECT_EQ(::write(late, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    ::close(late);
    EXPECT_EQ(follower.next(), "late");
    std::filesystem::remove(file);
    append("anew");
    EXPECT_EQ(follower.next(), "anew");
}

TEST_F(HistoryProgram, FollowsAllThatTenWritersWrite) {
    constexpr int records = 3000;
    constexpr std::size_t limit = 65536;
    // The writers are at most this far ahead of the output: less than a file holds, so no record is
    // dropped before it is printed.
    constexpr int ahead = 200;
    struct Shared {
        std::atomic<int> next = 0;
        std::atomic<int> printed = 0; // all records below this number
    };
    void *memory =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto &shared = *new (memory) Shared;
    append("begin");
    Follower follower;
    EXPECT_EQ(follower.next(), "begin");
    std::vector<pid_t> children;
    for (int writer = 0; writer < writers; ++writer) {
        children.push_back(host_test::start_child([&shared, writer] {
            ::alarm(100); // it would wait for ever if the test failed
            for (int number = 0; (number = shared.next++) < records;) {
                while (number - shared.printed >= ahead) {
                    const timespec pause{0, 1'000'000};
                    ::nanosleep(&pause, nullptr);
                }
                append(numbered(writer, number), limit);
            }
            return 0;
        }));
    }
    std::set<int> early;
    while (shared.printed < records) {
        const std::string text = follower.next();
        int writer = -1;
        int number = -1;
        ASSERT_EQ(std::sscanf(text.c_str(), "%d %d", &writer, &number), 2) << text;
        ASSERT_EQ(text, numbered(writer, number));
        ASSERT_GE(number, shared.printed) << "printed twice";
        ASSERT_TRUE(early.insert(number).second) << "printed twice";
        while (early.erase(shared.printed) != 0) {
            ++shared.printed;
        }
    }
    for (const pid_t child : children) {
        EXPECT_EQ(host_test::exit_status_of(child), 0);
    }
    EXPECT_GT(std::filesystem::file_size(older), limit / 2) << "the file was never renamed";
    ::munmap(memory, sizeof(Shared));
}

} // namespace
