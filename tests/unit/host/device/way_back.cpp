// A change of the running configuration that did not end, and one that was not saved in time.
#include "platform/host/device/way_back.h"

#include "base/settings.h"
#include "platform/host/device/backend.h"
#include "platform/host/device/configuration_text.h"
#include "platform/host/device/device.h"
#include "platform/host/history/copy_record.h"
#include "tests/unit/child.h"
#include "tests/unit/host/device/fixture.h"

#include <csignal>
#include <random>
#include <thread>

namespace {

using namespace std::chrono_literals;
using ulmo::ConfigurationError;
using ulmo::ConfigurationStore;

// A device that changes its running configuration, a file, line by line. `step` is called after
// each step and may throw, or end the process.
class LineByLine final : public ulmo::DeviceBackend {
  public:
    LineByLine(const std::filesystem::path &directory, std::function<void()> step)
        : running_(directory / "lines.running"), startup_(directory / "lines.startup"),
          step_(std::move(step)) {}

    [[nodiscard]] bool is_atomic() const override { return false; }
    std::string show_running() override { return content(running_); }
    [[nodiscard]] std::filesystem::path startup_file() const override { return startup_; }
    void check(std::string_view text) override {
        if (text.find("bad") != std::string_view::npos) {
            throw ConfigurationError(ConfigurationError::Kind::bad_line, "a bad line");
        }
    }
    void apply(std::string_view text) override { add(text); }
    [[nodiscard]] bool can_replace() const override { return can_replace_; }
    void replace(std::string_view text) override {
        check(text);
        std::ofstream(running_, std::ios::trunc).flush();
        step_();
        add(text);
    }
    void cannot_replace() { can_replace_ = false; }
    void save(const std::function<void()> &before_commit) override {
        before_commit();
        ulmo::replace_state_file(startup_, content(running_));
    }
    void store_startup(std::string_view text) override { ulmo::replace_state_file(startup_, text); }

  private:
    void add(std::string_view text) {
        while (!text.empty()) {
            const std::string_view line = text.substr(0, text.find('\n') + 1);
            text.remove_prefix(line.size());
            if (line != "\n") {
                std::ofstream(running_, std::ios::app) << line;
                step_();
            }
        }
    }

    std::filesystem::path running_;
    std::filesystem::path startup_;
    std::function<void()> step_;
    bool can_replace_ = true;
};

class WayBack : public DeviceTest {
  protected:
    WayBack() { file("state/lines.running", before); }

    std::unique_ptr<ulmo::Device> device(const std::function<void()> &step = [] {}) const {
        return std::make_unique<ulmo::Device>(std::make_unique<LineByLine>(state(), step), state());
    }
    // One whose changes wait for a save.
    std::unique_ptr<ulmo::Device> careful(const std::function<void()> &step = [] {}) {
        return std::make_unique<ulmo::Device>(std::make_unique<LineByLine>(state(), step), state(),
                                              1s, confirmation());
    }
    ulmo::Confirmation confirmation() {
        return {[this] { return limit_; }, [this] { return now_; }};
    }
    void keep() {
        keeper_ = std::make_unique<ulmo::FileLock>(ulmo::way_back_keeper(),
                                                   ulmo::FileLock::Mode::exclusive, 1s);
    }
    std::string runs() const { return content(state() / "lines.running"); }
    bool has_journal() const { return ulmo::WayBack(state()).has_begun(); }
    bool waits() const { return ulmo::WayBack(state()).waiting().has_value(); }

    // Applies in another process, which dies after so many steps. False if it has not died.
    bool dies_applying(const std::string &text, int steps, bool is_careful = false) {
        const pid_t child = host_test::start_child([&] {
            const auto step = [&steps] {
                if (--steps == 0) {
                    ::raise(SIGKILL);
                }
            };
            (is_careful ? careful(step) : device(step))->apply(text);
            return 0;
        });
        return host_test::exit_status_of(child) != 0;
    }
    static std::string failure(const std::function<void()> &work) {
        try {
            work();
        } catch (const std::exception &error) {
            return error.what();
        }
        return "no failure";
    }
    static std::string last_line() {
        const std::string lines = ulmo::kept_copy_lines();
        return lines.substr(std::min(lines.find(' '), lines.size()));
    }

    static constexpr const char *before = "one\ntwo\n";
    std::chrono::seconds limit_{60};
    std::chrono::milliseconds now_{1'000'000};
    std::unique_ptr<ulmo::FileLock> keeper_;
};

TEST_F(WayBack, AChangeThatDiesIsUndoneByWhateverUsesTheDeviceNext) {
    const std::string more = "three\nfour\nfive\n";
    const std::vector<std::function<void()>> uses = {
        [&] { EXPECT_EQ(device()->show(ConfigurationStore::running), before); },
        [&] { device()->look_back(); },
        [&] { EXPECT_FALSE(device()->pending()); },
        [&] {
            device()->save();
            EXPECT_EQ(content(state() / "lines.startup"), before);
        },
        [&] { EXPECT_EQ(failure([&] { device()->apply("bad\n"); }), "a bad line"); },
    };
    for (const auto &use : uses) {
        int steps = 0;
        while (dies_applying(more, ++steps)) {
            ASSERT_TRUE(has_journal());
            ASSERT_NE(runs(), before);
            use();
            ASSERT_EQ(runs(), before) << "after " << steps << " steps";
            ASSERT_FALSE(has_journal());
        }
        EXPECT_EQ(steps, 4);
        EXPECT_EQ(runs(), before + more);
        EXPECT_FALSE(has_journal());
        device()->apply("configuration replace\n" + std::string(before));
        file("state/lines.running", before);
    }
    EXPECT_EQ(last_line().substr(0, last_line().find('\n')),
              " from=former to=running outcome=successful "
              "reason=\"a change of the running configuration did not end\"");
}

TEST_F(WayBack, ItMayDieOnTheWayBackToo) {
    ASSERT_TRUE(dies_applying("three\nfour\n", 1));
    for (int steps = 1; steps <= 2; ++steps) {
        EXPECT_TRUE(dies_applying("five\n", steps)) << "while it puts the former one back";
        EXPECT_NE(runs(), before);
    }
    device()->look_back();
    EXPECT_EQ(runs(), before);
}

TEST_F(WayBack, TheJournalIsTheOwnersAndGoesWithTheChange) {
    bool was_there = false;
    device([&] {
        was_there = true;
        EXPECT_EQ(permissions(state() / "way-back.journal"), 0600U);
    })->apply("three\n");
    EXPECT_TRUE(was_there);
    EXPECT_FALSE(has_journal());
    EXPECT_EQ(ulmo::kept_copy_lines(), "");
}

TEST_F(WayBack, AChangeThatFailsIsUndoneAtOnce) {
    int steps = 0;
    const auto fails_once = [&] {
        if (++steps == 2) {
            throw std::runtime_error("out of order");
        }
    };
    EXPECT_EQ(failure([&] { device(fails_once)->apply("three\nfour\n"); }), "out of order");
    EXPECT_EQ(runs(), before);
    EXPECT_FALSE(has_journal());
}

TEST_F(WayBack, AChangeThatCouldNotBeUndoneIsTriedAgain) {
    const auto fails = [] { throw std::runtime_error("out of order"); };
    EXPECT_EQ(failure([&] { device(fails)->apply("three\n"); }),
              "out of order; the configuration before it could not be restored: out of order");
    EXPECT_TRUE(has_journal());
    const std::string reason = "the former configuration is not in force again yet (a change of "
                               "the running configuration did not end): out of order";
    EXPECT_EQ(failure([&] { device(fails)->show(ConfigurationStore::running); }), reason);
    EXPECT_EQ(failure([&] { device(fails)->save(); }), reason) << "no half change is saved";
    EXPECT_TRUE(has_journal());
    EXPECT_EQ(device()->show(ConfigurationStore::running), before);
    EXPECT_FALSE(has_journal());
}

TEST_F(WayBack, WhatTheDeviceRefusesIsNotTriedForEver) {
    ulmo::WayBack(state()).begin("bad\n");
    EXPECT_EQ(device()->show(ConfigurationStore::running), before);
    EXPECT_FALSE(has_journal());
    EXPECT_EQ(last_line(),
              " from=former to=running outcome=failed reason=\"a change of the running "
              "configuration did not end: a bad line\"\n");
}

// Nothing is kept that could never be put back, and no operation waits for it.
TEST_F(WayBack, ADeviceThatCannotReplaceHasNoWayBack) {
    const auto poor = [this](ulmo::Confirmation confirmation = {}) {
        auto backend = std::make_unique<LineByLine>(state(), [] {});
        backend->cannot_replace();
        return std::make_unique<ulmo::Device>(std::move(backend), state(), 1s,
                                              std::move(confirmation));
    };
    poor()->apply("three\n");
    EXPECT_EQ(runs(), "one\ntwo\nthree\n");
    keep();
    EXPECT_EQ(failure([&] { poor(confirmation())->apply("four\n"); }),
              "confirm_limit is set, and this device can't replace its configuration, so it could "
              "not undo the change");
    EXPECT_EQ(runs(), "one\ntwo\nthree\n");
    ulmo::WayBack(state()).begin(before); // it could replace when the change was made
    EXPECT_EQ(poor()->show(ConfigurationStore::running), "one\ntwo\nthree\n");
    EXPECT_FALSE(has_journal());
    EXPECT_EQ(last_line(),
              " from=former to=running outcome=failed reason=\"a change of the running "
              "configuration did not end: this device can't replace its "
              "configuration\"\n");
}

TEST_F(WayBack, AJournalOfAnotherBootIsDropped) {
    for (const std::string journal : {"boot another\n\nbad\n", "bad\n", ""}) {
        file("state/way-back.journal", journal);
        EXPECT_EQ(device()->show(ConfigurationStore::running), before);
        EXPECT_FALSE(has_journal());
        file("state/way-back.waiting", journal);
        EXPECT_FALSE(device()->pending());
    }
    EXPECT_EQ(ulmo::kept_copy_lines(), "");
}

TEST_F(WayBack, AnAtomicDeviceNeedsNoJournal) {
    bool had_journal = false;
    ulmo::Device embedded(ulmo::make_embedded_backend(state()), state());
    embedded.apply("hostname one\n");
    for (const auto &entry : std::filesystem::directory_iterator(state())) {
        had_journal = had_journal || entry.path().filename().string().starts_with("way-back");
    }
    EXPECT_FALSE(had_journal);
}

TEST_F(WayBack, RandomKills) {
    constexpr unsigned seed = 14;
    constexpr int rounds = 100;
    std::mt19937 random(seed);
    const std::string more = "three\nfour\nfive\nsix\n";
    int undone = 0;
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        const pid_t child = host_test::start_child([&] {
            device()->apply(more);
            return 0;
        });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
        ::kill(child, SIGKILL);
        const bool has_ended = host_test::exit_status_of(child) == 0;
        const std::string now = device()->show(ConfigurationStore::running);
        if (has_ended) {
            ASSERT_EQ(now, before + more);
        } else {
            ASSERT_TRUE(now == before || now == before + more) << now;
        }
        undone += now == before;
        ASSERT_FALSE(has_journal());
        file("state/lines.running", before);
    }
    EXPECT_GT(undone, 0);
}

// --- a change waits for a save ---

TEST_F(WayBack, AChangeThatIsNotSavedComesBack) {
    keep();
    careful()->apply("three\n");
    EXPECT_FALSE(has_journal());
    const auto pending = careful()->pending();
    ASSERT_TRUE(pending);
    EXPECT_EQ(pending->limit, 60s);
    EXPECT_EQ(pending->left, 60s);
    EXPECT_LE(std::abs(std::difftime(std::time(nullptr), pending->made)), 5);
    now_ += 60s - 1ms;
    careful()->look_back();
    EXPECT_EQ(runs(), "one\ntwo\nthree\n");
    EXPECT_EQ(careful()->pending()->left, 1ms);
    now_ += 1ms;
    careful()->look_back();
    EXPECT_EQ(runs(), before);
    EXPECT_FALSE(careful()->pending());
    EXPECT_EQ(last_line(), " from=former to=running outcome=successful reason=\"the change of " +
                               ulmo::time_text(pending->made) + " was not saved within 60 s\"\n");
}

TEST_F(WayBack, ASaveConfirms) {
    keep();
    careful()->apply("three\n");
    careful()->save();
    EXPECT_FALSE(waits());
    now_ += 61s;
    careful()->look_back();
    EXPECT_EQ(runs(), "one\ntwo\nthree\n");
}

TEST_F(WayBack, ASaveThatFailsDoesNot) {
    keep();
    careful()->apply("three\n");
    EXPECT_EQ(failure([&] { careful()->save({}, [] { throw std::runtime_error("given up"); }); }),
              "given up");
    EXPECT_TRUE(waits());
}

TEST_F(WayBack, ASaveByAnotherProgramConfirms) {
    keep();
    careful()->apply("three\n");
    file("state/lines.startup", "another\n");
    EXPECT_TRUE(careful()->pending()) << "that is not what runs";
    file("state/lines.startup", runs());
    EXPECT_FALSE(careful()->pending());
    EXPECT_FALSE(waits());
}

TEST_F(WayBack, AStartupConfigurationThatCannotBeReadDoesNotBarTheWay) {
    keep();
    careful()->apply("three\n");
    std::filesystem::create_directory(state() / "lines.startup");
    EXPECT_TRUE(careful()->pending());
    now_ += 60s;
    careful()->look_back();
    EXPECT_EQ(runs(), before);
}

// What was saved before the change says nothing about it.
TEST_F(WayBack, AnOlderStartupConfigurationDoesNotConfirm) {
    keep();
    file("state/lines.startup", "one\ntwo\nthree\n");
    careful()->apply("three\n");
    now_ += 60s;
    careful()->look_back();
    EXPECT_EQ(runs(), before);
}

TEST_F(WayBack, ASecondChangeKeepsTheFirstFormerOneAndBeginsTheTimeAgain) {
    keep();
    careful()->apply("three\n");
    now_ += 59s;
    careful()->apply("four\n");
    now_ += 59s;
    careful()->look_back();
    EXPECT_EQ(runs(), "one\ntwo\nthree\nfour\n");
    now_ += 1s;
    careful()->look_back();
    EXPECT_EQ(runs(), before);
}

TEST_F(WayBack, ASecondChangeThatFailsOrDiesLeavesTheFirstOneWaiting) {
    keep();
    careful()->apply("three\n");
    now_ += 10s;
    EXPECT_EQ(failure([&] { careful()->apply("bad\n"); }), "a bad line");
    bool has_failed = false;
    EXPECT_EQ(failure([&] {
                  careful([&] {
                      if (!std::exchange(has_failed, true)) {
                          throw std::runtime_error("out of order");
                      }
                  })->apply("four\n");
              }),
              "out of order");
    ASSERT_TRUE(dies_applying("four\nfive\n", 1, true));
    EXPECT_EQ(careful()->pending()->left, 50s);
    EXPECT_EQ(runs(), "one\ntwo\nthree\n");
    now_ += 50s;
    careful()->look_back();
    EXPECT_EQ(runs(), before);
}

TEST_F(WayBack, AChangeThatDiesBeforeItsEndDoesNotWait) {
    keep();
    careful()->apply("three\n");
    ulmo::WayBack(state()).begin(before);
    EXPECT_EQ(careful()->show(ConfigurationStore::running), before);
    EXPECT_FALSE(waits());
}

TEST_F(WayBack, NothingWaitsWithoutADifference) {
    keep();
    careful()->apply("configuration replace\n" + std::string(before));
    EXPECT_FALSE(waits());
    careful()->apply("three\n");
    EXPECT_TRUE(waits());
    EXPECT_EQ(runs(), "one\ntwo\nthree\n");
    careful()->apply("configuration replace\n" + std::string(before));
    EXPECT_FALSE(waits()) << "nothing is left to undo";
}

TEST_F(WayBack, GoingBackByHandEndsTheWait) {
    keep();
    ulmo::Device embedded(ulmo::make_embedded_backend(state()), state(), 1s, confirmation());
    embedded.apply("hostname one\n");
    embedded.save();
    embedded.apply("hostname two\n");
    EXPECT_TRUE(embedded.pending());
    embedded.apply("hostname one\n");
    EXPECT_FALSE(embedded.pending());
    embedded.apply("hostname two\n");
    now_ += 60s;
    embedded.look_back();
    EXPECT_EQ(embedded.show(ConfigurationStore::running), "hostname one\nend\n");
}

TEST_F(WayBack, NoChangeIsMadeThatNothingWouldUndo) {
    const std::string refusal =
        "confirm_limit is set, and the system manager, which would undo the "
        "change, is not running";
    EXPECT_EQ(failure([&] { careful()->apply("three\n"); }), refusal);
    EXPECT_EQ(runs(), before);
    keep();
    careful()->apply("three\n");
    keeper_.reset();
    limit_ = 0s; // the change that waits keeps its limit
    EXPECT_EQ(failure([&] { careful()->apply("four\n"); }), refusal);
    careful()->save(); // saving is always possible
    careful()->apply("four\n");
    EXPECT_FALSE(waits());
}

TEST_F(WayBack, AStartOfTheDeviceForgetsBoth) {
    keep();
    careful()->apply("three\n");
    ulmo::WayBack(state()).begin("four\n");
    careful()->start();
    EXPECT_FALSE(has_journal());
    EXPECT_FALSE(waits());
}

TEST_F(WayBack, ABadLimitFailsTheChangeOnly) {
    file("platform.conf", "confirm_limit = soon\n");
    EXPECT_EQ(failure([] { ulmo::make_device()->apply("hostname two\n"); }),
              (directory_ / "platform.conf").string() +
                  " line 1: confirm_limit = soon: must be a number from 0 to 86400; changes of the "
                  "running configuration fail");
    EXPECT_EQ(ulmo::make_device()->show(ConfigurationStore::running), "hostname switch\nend\n");
    file("platform.conf", "confirm_limit = 60\n");
    keep();
    ulmo::make_device()->apply("hostname two\n");
    EXPECT_EQ(ulmo::make_device()->pending()->limit, 60s);
}

// --- when the system manager looks ---

TEST_F(WayBack, TellsWhenItMustBeLookedAfter) {
    EXPECT_FALSE(ulmo::time_to_way_back(state()));
    keep();
    ulmo::Device device(std::make_unique<LineByLine>(state(), [] {}), state(), 1s,
                        {[] { return 60s; }});
    device.apply("three\n");
    const auto left = ulmo::time_to_way_back(state());
    ASSERT_TRUE(left);
    EXPECT_GT(*left, 50s);
    EXPECT_LE(*left, 60s);
    file("state/lines.startup", "another\n");
    EXPECT_EQ(ulmo::time_to_way_back(state()), 0ms) << "it may have been saved";
    device.look_back();
    EXPECT_GT(ulmo::time_to_way_back(state()), 50s) << "it was not";
    ulmo::WayBack(state()).begin(before);
    EXPECT_EQ(ulmo::time_to_way_back(state()), 0ms);
    {
        const ulmo::FileLock lock(ulmo::device_lock(state()), ulmo::FileLock::Mode::exclusive, 1s);
        EXPECT_FALSE(ulmo::time_to_way_back(state())) << "a change is being made";
    }
    device.look_back();
    EXPECT_EQ(runs(), before);
    ulmo::WayBack(state()).wait({before, 0, 1s, 0ms, {}, {}});
    EXPECT_EQ(ulmo::time_to_way_back(state()), 0ms) << "long ago";
}

} // namespace
