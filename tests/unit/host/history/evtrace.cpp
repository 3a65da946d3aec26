#include "platform/evtrace.h"
#include "platform/host/history/history.h"
#include "platform/host/history/log.h"
#include "platform/host/history/ring.h"
#include "platform/utilities.h"
#include "tests/unit/child.h"
#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

namespace {

using ulmo::HistoryRecord;
using ulmo::HistoryRing;
using ReadResult = HistoryRing::ReadResult;

constexpr std::uint32_t module_id = 0x730000;

std::vector<HistoryRecord> records_of(const HistoryRing &ring) {
    std::vector<HistoryRecord> records;
    HistoryRecord record;
    for (auto number = ring.begin(); number < ring.end(); ++number) {
        if (ring.read(number, record) == ReadResult::done) {
            records.push_back(record);
        }
    }
    return records;
}

std::vector<std::string> texts_of(const HistoryRing &ring) {
    std::vector<std::string> texts;
    for (const HistoryRecord &record : records_of(ring)) {
        texts.push_back(record.text);
    }
    return texts;
}

class History : public testing::Test {
  protected:
    Scratch scratch;
    std::filesystem::path file = scratch.run("history");
};

TEST_F(History, RecordTellsTimeProcessAndText) {
    HistoryRing ring = HistoryRing::open(file, 64);
    const auto before = std::time(nullptr);
    ring.write(module_id, EVTRACE_ERROR, "copy failed\n");
    const auto records = records_of(ring);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_GE(records[0].time_ns, static_cast<std::uint64_t>(before) * 1'000'000'000U);
    EXPECT_LE(records[0].time_ns, (static_cast<std::uint64_t>(std::time(nullptr)) + 1) * 1'000'000'000U);
    EXPECT_EQ(records[0].pid, static_cast<std::uint32_t>(::getpid()));
    EXPECT_EQ(records[0].module_id, module_id);
    EXPECT_EQ(records[0].subtype, EVTRACE_ERROR);
    EXPECT_EQ(records[0].text, "copy failed\n");
}

TEST_F(History, KeepsTextsOfEveryLengthAndCutsLongerOnes) {
    HistoryRing ring = HistoryRing::open(file, 4096);
    const std::string longest(HistoryRing::text_size + 100, 'x');
    for (std::size_t length = 0; length <= longest.size(); ++length) {
        ring.write(module_id, EVTRACE_DEBUG, std::string_view(longest).substr(0, length));
    }
    const auto texts = texts_of(ring);
    ASSERT_EQ(texts.size(), longest.size() + 1);
    for (std::size_t length = 0; length < texts.size(); ++length) {
        ASSERT_EQ(texts[length].size(), std::min(length, HistoryRing::text_size));
        ASSERT_EQ(texts[length].find_first_not_of('x'), std::string::npos);
    }
}

TEST_F(History, KeepsTheNewestRecords) {
    HistoryRing ring = HistoryRing::open(file, 64);
    for (int i = 0; i < 1000; ++i) {
        ring.write(module_id, EVTRACE_DEBUG, std::to_string(i));
    }
    const auto texts = texts_of(ring);
    ASSERT_EQ(texts.size(), 64U);
    EXPECT_EQ(texts.front(), "936");
    EXPECT_EQ(texts.back(), "999");
    HistoryRecord record;
    EXPECT_EQ(ring.read(935, record), ReadResult::gone);
    EXPECT_EQ(ring.read(1000, record), ReadResult::pending);
}

TEST_F(History, OutlivesItsWritersAndARestart) {
    {
        HistoryRing ring = HistoryRing::open(file, 64);
        ring.write(module_id, EVTRACE_DEBUG, "agent");
        const pid_t worker = ::fork();
        if (worker == 0) {
            ring.write(module_id, EVTRACE_DEBUG, "worker");
            ::_exit(0);
        }
        ::waitpid(worker, nullptr, 0);
        EXPECT_EQ(records_of(ring).back().pid, static_cast<std::uint32_t>(worker));
    }
    HistoryRing ring = HistoryRing::open(file, 64);
    ring.write(module_id, EVTRACE_DEBUG, "next agent");
    EXPECT_EQ(texts_of(ring), (std::vector<std::string>{"agent", "worker", "next agent"}));
    EXPECT_EQ(texts_of(HistoryRing::open_for_reading(file)), texts_of(ring));
}

TEST_F(History, IsSharedByWhoeverOpensItAtTheSameTime) {
    HistoryRing first = HistoryRing::open(file, 64);
    HistoryRing second = HistoryRing::open(file, 64);
    first.write(module_id, EVTRACE_DEBUG, "first");
    second.write(module_id, EVTRACE_DEBUG, "second");
    EXPECT_EQ(texts_of(first), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(texts_of(second), texts_of(first));
}

TEST_F(History, IsForItsOwnerOnly) {
    ::umask(0);
    const HistoryRing ring = HistoryRing::open(file, 64);
    ::umask(022);
    EXPECT_EQ(Scratch::status_of(file).st_mode, S_IFREG | 0600U);
}

TEST_F(History, FollowsNoLink) {
    const auto elsewhere = scratch.root() / "elsewhere";
    Scratch::write(elsewhere, "");
    std::filesystem::create_symlink(elsewhere, file);
    EXPECT_THROW(HistoryRing::open(file, 64), std::system_error);
    EXPECT_THROW(HistoryRing::open_for_reading(file), std::system_error);
    EXPECT_EQ(Scratch::read(elsewhere), "");
    std::filesystem::remove(elsewhere);
    EXPECT_THROW(HistoryRing::open(file, 64), std::system_error);
    EXPECT_FALSE(std::filesystem::exists(elsewhere)) << "nothing is made at the end of a link";
}

TEST_F(History, StartsAnewOnAForeignFile) {
    std::string whole;
    {
        HistoryRing ring = HistoryRing::open(file, 64);
        ring.write(module_id, EVTRACE_DEBUG, "old");
        whole = Scratch::read(file);
    }
    const auto damaged = [&](std::size_t at) {
        std::string octets = whole;
        octets[at] = static_cast<char>(octets[at] ^ 0x40);
        return octets;
    };
    const std::vector<std::string> foreign = {
        "x",         "foreign text", std::string(whole.size(), '\0'), whole.substr(0, whole.size() - 1), whole + "x",
        damaged(0),   // magic
        damaged(8),   // version
        damaged(12),  // size of a record
        damaged(16),  // count
        damaged(31)}; // next number
    for (std::size_t i = 0; i < foreign.size(); ++i) {
        Scratch::write(file, foreign[i]);
        EXPECT_THROW(HistoryRing::open_for_reading(file), std::system_error) << i;
        HistoryRing ring = HistoryRing::open(file, 64);
        EXPECT_EQ(texts_of(ring).size(), 0U) << i;
        ring.write(module_id, EVTRACE_DEBUG, "new");
        EXPECT_EQ(texts_of(HistoryRing::open_for_reading(file)), std::vector<std::string>{"new"}) << i;
        EXPECT_EQ(Scratch::status_of(file).st_mode, S_IFREG | 0600U) << i;
    }
    Scratch::write(file, whole);
    EXPECT_EQ(texts_of(HistoryRing::open(file, 64)), std::vector<std::string>{"old"}) << "the undamaged file is taken";
}

TEST_F(History, DoesNotTrustAFileThatOthersCanOpen) {
    HistoryRing::open(file, 64).write(module_id, EVTRACE_DEBUG, "old");
    ::chmod(file.c_str(), 0666);
    EXPECT_TRUE(texts_of(HistoryRing::open(file, 64)).empty());
    EXPECT_EQ(Scratch::status_of(file).st_mode, S_IFREG | 0600U);
}

TEST_F(History, APipeInItsPlaceIsReplaced) {
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    EXPECT_TRUE(HistoryRing::open(file, 64).is_in(file));
    EXPECT_EQ(Scratch::status_of(file).st_mode, S_IFREG | 0600U);
}

TEST_F(History, ReplacingLeavesTheOldMappingUsable) {
    HistoryRing first = HistoryRing::open(file, 64);
    EXPECT_TRUE(first.is_in(file));
    const HistoryRing second = HistoryRing::open(file, 128);
    EXPECT_FALSE(first.is_in(file));
    EXPECT_TRUE(second.is_in(file));
    for (int i = 0; i < 64; ++i) {
        first.write(module_id, EVTRACE_DEBUG, "still here");
    }
    EXPECT_EQ(texts_of(first).size(), 64U);
    EXPECT_TRUE(texts_of(second).empty());
}

TEST_F(History, ThrowsOnADirectoryOrAMissingPlace) {
    EXPECT_THROW(HistoryRing::open(scratch.root() / "none" / "history", 64), std::system_error);
    std::filesystem::create_directory(file);
    EXPECT_THROW(HistoryRing::open(file, 64), std::system_error);
    EXPECT_THROW(HistoryRing::open_for_reading(file), std::system_error);
}

TEST_F(History, ASlotOfADeadWriterIsTakenOverAndOneOfALivingWriterIsNot) {
    constexpr std::size_t records = 2;
    constexpr off_t first_state = 64; // the state word of the first slot follows the header
    HistoryRing ring = HistoryRing::open(file, records);
    ring.write(module_id, EVTRACE_DEBUG, "first");
    const auto hold = [&](pid_t pid) {
        const int descriptor = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
        const std::uint64_t state = std::uint64_t{1} << 23U | static_cast<std::uint64_t>(pid) << 1U | 1U;
        EXPECT_EQ(::pwrite(descriptor, &state, sizeof state, first_state), 8);
        ::close(descriptor);
    };
    hold(::getpid());
    ring.write(module_id, EVTRACE_DEBUG, "second");
    ring.write(module_id, EVTRACE_DEBUG, "dropped");
    EXPECT_EQ(texts_of(ring), std::vector<std::string>{"second"});

    const pid_t dead = ::fork();
    if (dead == 0) {
        ::_exit(0);
    }
    ::waitpid(dead, nullptr, 0);
    hold(dead);
    ring.write(module_id, EVTRACE_DEBUG, "fourth");
    ring.write(module_id, EVTRACE_DEBUG, "fifth");
    EXPECT_EQ(texts_of(ring), (std::vector<std::string>{"fourth", "fifth"}));
}

TEST_F(History, NoReaderEverSeesATornRecord) {
    HistoryRing ring = HistoryRing::open(file, 8);
    constexpr int writers = 3;
    constexpr int rounds = 20'000;
    std::vector<pid_t> children;
    for (int writer = 0; writer < writers; ++writer) {
        const pid_t child = ::fork();
        if (child == 0) {
            const std::string text(HistoryRing::text_size, static_cast<char>('a' + writer));
            for (int i = 0; i < rounds; ++i) {
                ring.write(module_id, static_cast<std::uint32_t>(writer), std::string_view(text).substr(static_cast<std::size_t>(i) % 500));
            }
            ::_exit(0);
        }
        children.push_back(child);
    }
    std::size_t seen = 0;
    HistoryRecord record;
    while (ring.end() < std::uint64_t{writers} * rounds) {
        for (auto number = ring.begin(); number < ring.end(); ++number) {
            if (ring.read(number, record) == ReadResult::done) {
                ++seen;
                ASSERT_GT(record.text.size(), HistoryRing::text_size - 500);
                ASSERT_EQ(record.text.find_first_not_of(static_cast<char>('a' + record.subtype)), std::string::npos);
                ASSERT_EQ(record.pid, static_cast<std::uint32_t>(children[record.subtype]));
            }
        }
    }
    for (const pid_t child : children) {
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_GT(seen, 0U);
    EXPECT_EQ(ring.end(), std::uint64_t{writers} * rounds);
}

// --- the C interface: each test in a process of its own, because a process opens its history once ---

class Evtrace : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    static void log(std::uint32_t subtype, const std::string &text) {
        evtrace_hist_event(module_id, subtype, static_cast<std::uint32_t>(text.size()), text.c_str());
    }
    static std::string logged() {
        std::string all;
        for (const std::string &text : texts_of(HistoryRing::open_for_reading(ulmo::history_file()))) {
            all += text + '|';
        }
        return all;
    }
    // Ends the process of the test, with 0 when the condition held and after a word about it when not.
    void finish(bool held, const std::string &about) const {
        if (!held) {
            std::fprintf(stderr, "failed: %s\n", about.c_str());
        }
        std::filesystem::remove_all(scratch.root()); // nothing is destroyed at this end
        ::_exit(held ? 0 : 1);
    }
    // Switches are looked at once a second.
    template <typename Condition> static bool comes_true(Condition condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            const timespec pause{0, 20'000'000};
            ::nanosleep(&pause, nullptr);
        }
        return true;
    }
    Scratch scratch;
};
using EvtraceDeathTest = Evtrace;

TEST_F(EvtraceDeathTest, RecordsErrorsAndPrintsNothingByDefault) {
    EXPECT_EXIT(
        {
            // Then nobody formats the course of things, in which passwords are.
            const bool open = evtrace_hist_event_subtype_check(module_id, EVTRACE_ERROR) == 0 &&
                              evtrace_hist_event_subtype_check(module_id, EVTRACE_DEBUG) != 0;
            const bool silent = evtrace_chk_int(EVTRACE_ERROR, 0, 0, 1) == 0 && evtrace_chk_int(EVTRACE_DEBUG, 0, 0, 1) == 0;
            log(EVTRACE_DEBUG, "a secret");
            log(EVTRACE_ERROR, "one");
            finish(open && silent && logged() == "one|", logged());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EvtraceDeathTest, RecordsEverythingOnRequest) {
    EXPECT_EXIT(
        {
            scratch.configure("history = all\n");
            const bool open = evtrace_hist_event_subtype_check(module_id, EVTRACE_DEBUG) == 0;
            log(EVTRACE_DEBUG, "one");
            log(EVTRACE_ERROR, "two");
            evtrace_hist_event(module_id, EVTRACE_DEBUG, 3, "cut off");
            evtrace_hist_event(module_id, EVTRACE_DEBUG, 0, "x");
            evtrace_hist_event(module_id, EVTRACE_DEBUG, 5, nullptr);
            finish(open && logged() == "one|two|cut||", logged());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EvtraceDeathTest, SwitchesHoldWithinASecond) {
    EXPECT_EXIT(
        {
            const auto declines = [](std::uint32_t subtype) { return evtrace_hist_event_subtype_check(module_id, subtype) != 0; };
            const auto prints = [](std::uint32_t subtype) { return evtrace_chk_int(subtype, 0, 0, 1) != 0; };
            scratch.configure("history = errors\ndebug_print = errors\n");
            const bool errors = declines(EVTRACE_DEBUG) && !declines(EVTRACE_ERROR) && prints(EVTRACE_ERROR) && !prints(EVTRACE_DEBUG);
            log(EVTRACE_DEBUG, "declined");
            log(EVTRACE_ERROR, "kept");
            scratch.configure("history = off\ndebug_print = all\n");
            const bool off = comes_true([&] { return declines(EVTRACE_ERROR) && prints(EVTRACE_DEBUG) && prints(EVTRACE_ERROR); });
            log(EVTRACE_ERROR, "declined as well");
            scratch.configure("history = nonsense\ndebug_print = nonsense\n");
            const bool defaults = comes_true([&] { return !declines(EVTRACE_ERROR) && declines(EVTRACE_DEBUG) && !prints(EVTRACE_ERROR); });
            const std::string at = "settings: " + (scratch.root() / "platform.conf").string() + " line ";
            const std::string told = at + "1: history = nonsense: must be one of all, errors, off; the default errors is used|" + at +
                                     "2: debug_print = nonsense: must be one of all, errors, off; the default off is used|";
            finish(errors && off && defaults && (logged() == "kept|" + told || logged() == "kept|"), logged());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EvtraceDeathTest, SettingsAreReadOnceASecondOnly) {
    EXPECT_EXIT(
        {
            scratch.configure("history = off\n");
            const auto begin = std::chrono::steady_clock::now();
            const auto elapsed = [&] { return std::chrono::steady_clock::now() - begin; };
            bool declined = evtrace_hist_event_subtype_check(module_id, EVTRACE_DEBUG) != 0;
            scratch.configure("history = all\n");
            // Many ticks of the coarse clock, and far from a second. A machine that stood still for that long tells nothing.
            while (elapsed() < std::chrono::milliseconds(50)) {
                const bool still = evtrace_hist_event_subtype_check(module_id, EVTRACE_DEBUG) != 0;
                declined = declined && (still || elapsed() > std::chrono::milliseconds(900));
            }
            finish(declined, "the change was seen at once");
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EvtraceDeathTest, CarriesOnWithoutAFile) {
    EXPECT_EXIT(
        {
            std::filesystem::create_directory(ulmo::history_file());
            errno = EDOM;
            log(EVTRACE_ERROR, "nowhere to be read");
            finish(errno == EDOM && evtrace_hist_event_subtype_check(module_id, EVTRACE_ERROR) == 0, std::strerror(errno));
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            Scratch::write(scratch.root() / "plain", "");
            ::setenv("ULMO_RUN_DIR", (scratch.root() / "plain" / "run").c_str(), 1);
            log(EVTRACE_ERROR, "nowhere to be read");
            finish(true, "");
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EvtraceDeathTest, NumberOfRecordsIsASetting) {
    EXPECT_EXIT(
        {
            scratch.configure("history = all\nhistory_records = 100\n");
            log(EVTRACE_DEBUG, "0");
            for (int i = 0; i < 200; ++i) {
                log(EVTRACE_DEBUG, "x");
            }
            const auto kept = texts_of(HistoryRing::open_for_reading(ulmo::history_file())).size();
            finish(kept == 100, std::to_string(kept));
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EvtraceDeathTest, RefusedRequestIsRecorded) {
    EXPECT_EXIT(
        {
            log_set_error(0x40490049U, 584);
            const auto records = records_of(HistoryRing::open_for_reading(ulmo::history_file()));
            finish(records.size() == 1 && records[0].subtype == EVTRACE_ERROR && records[0].module_id == ulmo::host_module_id &&
                       records[0].text == "request refused: another copy is in progress (0x40490049), facility 584",
                   logged());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EvtraceDeathTest, LongErrorOfTheHostIsCut) {
    EXPECT_EXIT(
        {
            ulmo::log_error("%s", std::string(2000, 'y').c_str());
            finish(logged() == std::string(511, 'y') + '|', logged());
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EvtraceDeathTest, PrintsToStandardError) {
    EXPECT_EXIT(
        {
            dbgprint("%s is %d\n", "answer", 42);
            finish(true, "");
        },
        testing::ExitedWithCode(0), "^answer is 42\n$");
}

TEST_F(EvtraceDeathTest, IsCheap) {
    // The bound holds with a wide margin on an optimised build, and keeps a settings file or a system call a record out of the way.
    EXPECT_EXIT(
        {
            constexpr int events = 20'000;
            scratch.configure("history = all\n");
            log(EVTRACE_DEBUG, "the first one opens the history");
            const std::clock_t begin = std::clock(); // of the processor, whatever else it is busy with
            for (int i = 0; i < events; ++i) {
                if (evtrace_hist_event_subtype_check(module_id, EVTRACE_DEBUG) == 0) {
                    evtrace_hist_event(module_id, EVTRACE_DEBUG, 60, "deleteCcCopyEntry : row 1234567 is deleted from the table    \n");
                }
                evtrace_chk_int(EVTRACE_DEBUG, 0, 0, 1);
            }
            const double microseconds = static_cast<double>(std::clock() - begin) / events * 1e6 / CLOCKS_PER_SEC;
            finish(microseconds < 10, std::to_string(microseconds) + " µs");
        },
        testing::ExitedWithCode(0), "");
}

// --- the program ---

struct Output {
    int status = -1;
    std::string text;
};

Output run_history(const std::string &arguments) {
    const std::string command = host_test::quoted_program("ulmo-history") + ' ' + arguments + " 2>&1";
    std::FILE *pipe = ::popen(command.c_str(), "r");
    Output output;
    char line[4096];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        output.text += line;
    }
    output.status = WEXITSTATUS(::pclose(pipe));
    return output;
}

using HistoryProgram = History;

TEST_F(HistoryProgram, PrintsARecordALine) {
    ::setenv("TZ", "UTC-2", 1);
    HistoryRing ring = HistoryRing::open(file, 64);
    ring.write(module_id, EVTRACE_DEBUG, " plain ~\n");
    ring.write(module_id, EVTRACE_ERROR, std::string_view("a\tb\nc\rd\x1b[2J\\\xc3\xa4\0e\x7f", 17));
    ring.write(module_id, 7, "");
    const Output output = run_history("");
    ::unsetenv("TZ");
    EXPECT_EQ(output.status, 0);
    const std::string start = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}\+02:00 )" + std::to_string(::getpid());
    const std::string lines =
        start + R"( debug  plain ~\n)" + start + R"( error a\\tb\\nc\\rd\\x1b\[2J\\\\\\xc3\\xa4\\x00e\\x7f\n)" + start + R"( 7 \n)";
    EXPECT_TRUE(std::regex_match(output.text, std::regex(lines))) << output.text;
}

std::string texts_printed(const std::string &output) {
    return std::regex_replace(output, std::regex(R"(\S+ \d+ \S+ )"), "");
}

TEST_F(HistoryProgram, SelectsRecords) {
    HistoryRing ring = HistoryRing::open(file, 64);
    for (int i = 0; i < 100; ++i) {
        ring.write(module_id, i % 10 == 0 ? EVTRACE_ERROR : EVTRACE_DEBUG, std::to_string(i));
    }
    EXPECT_EQ(texts_printed(run_history("-n 2").text), "98\n99\n");
    EXPECT_EQ(texts_printed(run_history("--errors").text), "40\n50\n60\n70\n80\n90\n");
    EXPECT_EQ(texts_printed(run_history("--errors --lines=1").text), "90\n");
    EXPECT_EQ(run_history("-n 0").text, "");
}

TEST_F(HistoryProgram, ExitStatusTells) {
    EXPECT_EQ(run_history("").status, 1) << "there is no history";
    Scratch::write(file, "foreign");
    EXPECT_EQ(run_history("").status, 1);
    EXPECT_EQ(Scratch::read(file), "foreign") << "a reader changes nothing";
    for (const char *arguments : {"-x", "-n", "-n x", "-n -1", "-n 3x", "extra", "--unknown"}) {
        EXPECT_EQ(run_history(arguments).status, 2) << arguments;
    }
    const Output help = run_history("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.text.find("Exit status: 0"), std::string::npos);
    HistoryRing::open(file, 64).write(module_id, EVTRACE_DEBUG, "x");
    EXPECT_EQ(run_history(">/dev/full").status, 1) << "the output can't be written";
}

TEST_F(HistoryProgram, FollowsAlsoIntoANewHistory) {
    HistoryRing ring = HistoryRing::open(file, 64);
    ring.write(module_id, EVTRACE_DEBUG, "before");
    const auto printed = scratch.root() / "printed";
    const std::string binary = host_test::program("ulmo-history");
    const pid_t child = ::fork();
    if (child == 0) {
        const int output = ::open(printed.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ::dup2(output, STDOUT_FILENO);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // it would follow for ever when this test ended early
        ::execl(binary.c_str(), "ulmo-history", "-f", nullptr);
        ::_exit(127);
    }
    const auto shows = [&](const std::string &texts) {
        for (int look = 0; look < 500 && texts_printed(Scratch::read(printed)) != texts; ++look) {
            const timespec pause{0, 10'000'000};
            ::nanosleep(&pause, nullptr);
        }
        return texts_printed(Scratch::read(printed)) == texts;
    };
    EXPECT_TRUE(shows("before\n"));
    ring.write(module_id, EVTRACE_DEBUG, "after");
    EXPECT_TRUE(shows("before\nafter\n"));
    HistoryRing::open(file, 128).write(module_id, EVTRACE_DEBUG, "anew");
    EXPECT_TRUE(shows("before\nafter\nanew\n"));
    ::kill(child, SIGTERM);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
}

} // namespace
