#include "platform/evtrace.h"
#include "platform/host/history/history.h"
#include "platform/host/history/log.h"
#include "platform/utilities.h"
#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <string>

namespace {

constexpr std::uint32_t module_id = 0x730000;

// Each test runs in a process of its own, because the switches belong to the process.

class Evtrace : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    static void log(std::uint32_t subtype, const std::string &text) {
        evtrace_hist_event(module_id, subtype, static_cast<std::uint32_t>(text.size()),
                           text.c_str());
    }
    static std::string logged() {
        const std::string lines = Scratch::read(ulmo::history_file());
        return std::regex_replace(
            std::regex_replace(lines, std::regex(R"(\S+Z \d+ \S+ (.*)\n)"), "$1|"),
            std::regex(R"(\\\\)"), "\\");
    }
    // Ends the process of the test, with 0 if the condition held and otherwise with a message.
    void finish(bool held, const std::string &about) const {
        if (!held) {
            std::fprintf(stderr, "failed: %s\n", about.c_str());
        }
        std::filesystem::remove_all(scratch.root()); // this exit runs no destructors
        ::_exit(held ? 0 : 1);
    }
    // The switches are read once a second.
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
            // Then no debug text is formatted, which could contain passwords.
            const bool open = evtrace_hist_event_subtype_check(module_id, EVTRACE_ERROR) == 0 &&
                              evtrace_hist_event_subtype_check(module_id, EVTRACE_DEBUG) != 0;
            const bool silent = evtrace_chk_int(EVTRACE_ERROR, 0, 0, 1) == 0 &&
                                evtrace_chk_int(EVTRACE_DEBUG, 0, 0, 1) == 0;
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
            const auto declines = [](std::uint32_t subtype) {
                return evtrace_hist_event_subtype_check(module_id, subtype) != 0;
            };
            const auto prints = [](std::uint32_t subtype) {
                return evtrace_chk_int(subtype, 0, 0, 1) != 0;
            };
            scratch.configure("history = errors\ndebug_print = errors\n");
            const bool errors = declines(EVTRACE_DEBUG) && !declines(EVTRACE_ERROR) &&
                                prints(EVTRACE_ERROR) && !prints(EVTRACE_DEBUG);
            log(EVTRACE_DEBUG, "declined");
            log(EVTRACE_ERROR, "kept");
            scratch.configure("history = off\ndebug_print = all\n");
            const bool off = comes_true([&] {
                return declines(EVTRACE_ERROR) && prints(EVTRACE_DEBUG) && prints(EVTRACE_ERROR);
            });
            log(EVTRACE_ERROR, "declined as well");
            scratch.configure("history = nonsense\ndebug_print = nonsense\n");
            const bool defaults = comes_true([&] {
                return !declines(EVTRACE_ERROR) && declines(EVTRACE_DEBUG) &&
                       !prints(EVTRACE_ERROR);
            });
            const std::string at =
                "settings: " + (scratch.root() / "platform.conf").string() + " line ";
            const std::string told = at +
                                     "1: history = nonsense: must be one of all, errors, off; the "
                                     "default errors is used|" +
                                     at +
                                     "2: debug_print = nonsense: must be one of all, errors, off; "
                                     "the default off is used|";
            finish(errors && off && defaults && (logged() == "kept|" + told || logged() == "kept|"),
                   logged());
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
            // Many ticks of the coarse clock, and far less than a second. If the machine stood
            // still for that long, the test proves nothing.
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
            finish(errno == EDOM && evtrace_hist_event_subtype_check(module_id, EVTRACE_ERROR) == 0,
                   std::strerror(errno));
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

TEST_F(EvtraceDeathTest, SizeIsASetting) {
    EXPECT_EXIT(
        {
            scratch.configure("history = all\nhistory_kilobytes = 16\n");
            for (int i = 0; i < 1000; ++i) {
                log(EVTRACE_DEBUG, std::string(100, 'x'));
            }
            const auto size = std::filesystem::file_size(ulmo::older_history_file());
            finish(size >= 16384 && size < 16384 + 200, std::to_string(size));
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(EvtraceDeathTest, RefusedRequestIsRecorded) {
    EXPECT_EXIT(
        {
            log_set_error(0x40490049U, 584);
            const std::string line = Scratch::read(ulmo::history_file());
            finish(logged() == "request refused: another copy is in progress (0x40490049), "
                               "facility 584|" &&
                       line.find(" error request") != std::string::npos,
                   line);
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

TEST_F(EvtraceDeathTest, WhatIsDeclinedIsCheap) {
    // A bound with a wide margin; the settings file is not read within it.
    EXPECT_EXIT(
        {
            constexpr int events = 100'000;
            // processor time, whatever else the machine does
            const std::clock_t begin = std::clock();
            bool is_declined = true;
            for (int i = 0; i < events; ++i) {
                is_declined =
                    is_declined && evtrace_hist_event_subtype_check(module_id, EVTRACE_DEBUG) != 0;
                evtrace_chk_int(EVTRACE_DEBUG, 0, 0, 1);
            }
            const double microseconds =
                static_cast<double>(std::clock() - begin) / events * 1e6 / CLOCKS_PER_SEC;
            finish(is_declined && microseconds < 2, std::to_string(microseconds) + " µs");
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
