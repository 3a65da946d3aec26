// How the system manager's daemon runs an action in a child process. The test takes the daemon's
// place.
#include "platform/host/system_manager/action_process.h"
#include "platform/host/system_manager/last_save.h"
#include "tests/unit/host/system_manager/fixture.h"
#include "tests/unit/own_mounts.h"
#include "tests/unit/superuser.h"

#include <sys/mount.h>

#include <array>
#include <set>

using namespace host_test;

namespace {

// Blocks the signals that the daemon blocks.
class ActionProcess : public DeviceTest {
  protected:
    ActionProcess() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGCHLD);
        ::sigprocmask(SIG_BLOCK, &set, &former_);
    }
    ~ActionProcess() override { ::sigprocmask(SIG_SETMASK, &former_, nullptr); }

    static ulmo::ActionOutcome outcome_of(ulmo::ActionProcess &process) {
        std::optional<ulmo::ActionOutcome> outcome;
        EXPECT_TRUE(comes_true([&] { return (outcome = process.outcome()).has_value(); }));
        return outcome.value_or(ulmo::ActionOutcome{});
    }
    ulmo::FileLock held() const {
        return {state() / "configuration.lock", ulmo::FileLock::Mode::exclusive, 1s};
    }
    // The only child process of the test.
    static pid_t child() {
        const auto children = children_of(::getpid());
        EXPECT_EQ(children.size(), 1U);
        return children.empty() ? -1 : children.front();
    }

  private:
    sigset_t former_{};
};

TEST_F(ActionProcess, TellsTheOutcomeOnce) {
    ulmo::ActionProcess process(ulmo::Action{});
    const ulmo::ActionOutcome outcome = outcome_of(process);
    EXPECT_EQ(outcome.status, 0U);
    EXPECT_EQ(outcome.text, "saved");
    EXPECT_FALSE(process.outcome());
    EXPECT_EQ(content(startup()), "hostname switch\nend\n");
}

TEST_F(ActionProcess, ALongReasonIsCut) {
    const std::string long_name = "none/" + std::string(2000, 'x');
    file("platform.conf", "startup_copy = " + long_name + "\n");
    ulmo::Action action;
    action.scope = ulmo::Action::Scope::all;
    ulmo::ActionProcess process(action);
    const ulmo::ActionOutcome outcome = outcome_of(process);
    EXPECT_EQ(outcome.status, ulmo::warden_err_store);
    EXPECT_EQ(outcome.text.size(), 1024U);
    EXPECT_NE(outcome.text.find(std::string(900, 'x')), std::string::npos) << outcome.text;
}

TEST_F(ActionProcess, OneThatDoesNotEndIsKilled) {
    const auto lock = held(); // SIGTERM has no effect while it waits for the lock
    ulmo::ActionProcess process(ulmo::Action{});
    process.kill_if_overdue();
    process.give_up(60ms);
    const auto given_up = std::chrono::steady_clock::now();
    process.give_up(60s); // the first limit holds
    std::optional<ulmo::ActionOutcome> outcome;
    EXPECT_TRUE(comes_true([&] {
        process.kill_if_overdue();
        return (outcome = process.outcome()).has_value();
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - given_up, 60ms);
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->status, ulmo::warden_err_given_up);
    EXPECT_EQ(outcome->text, "given up, killed");
    EXPECT_FALSE(std::filesystem::exists(startup()));
    process.give_up(0ms); // nothing is left to end
    process.kill_if_overdue();
}

TEST_F(ActionProcess, EndsWithItsObject) {
    const auto lock = held();
    pid_t pid = -1;
    {
        const ulmo::ActionProcess process(ulmo::Action{});
        pid = child();
    }
    EXPECT_TRUE(is_gone(pid));
}

TEST_F(ActionProcess, HoldsNothingOfItsParents) {
    const auto lock = held();
    const ulmo::UniqueFd mine(::open(file("mine", "").c_str(), O_RDONLY)); // survives an exec
    const ulmo::UniqueFd high(::fcntl(mine.get(), F_DUPFD, 100));
    ulmo::ActionProcess process(ulmo::Action{});
    const auto folder = "/proc/" + std::to_string(child()) + "/fd";
    const auto held_beside_streams = [&] {
        std::set<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(folder)) {
            std::error_code gone;
            const std::string name = std::filesystem::read_symlink(entry.path(), gone);
            if (std::stoi(entry.path().filename()) > STDERR_FILENO) {
                names.insert(name.substr(0, name.find('['))); // without a pipe's number
            }
        }
        return names;
    };
    // The report, the descriptor that stops it, and the lock that it waits for.
    const std::set<std::string> expected{
        "pipe:", "anon_inode:", (state() / "configuration.lock").string()};
    EXPECT_TRUE(comes_true([&] { return held_beside_streams() == expected; }))
        << testing::PrintToString(held_beside_streams());
}

class LastSave : public ActionProcess {};

TEST_F(LastSave, KeepsHowItWent) {
    EXPECT_FALSE(ulmo::last_save());
    {
        ulmo::ActionProcess process(ulmo::Action{});
        EXPECT_EQ(outcome_of(process).status, 0U);
    }
    EXPECT_EQ(ulmo::last_save(), "saved");
    file("state/running.cfg", "bog\tus\n");
    ulmo::ActionProcess process(ulmo::Action{});
    const ulmo::ActionOutcome outcome = outcome_of(process);
    EXPECT_EQ(outcome.status, ulmo::warden_err_store);
    EXPECT_EQ(outcome.text.find('\t'), std::string::npos);
    EXPECT_EQ(ulmo::last_save(), outcome.text);
}

TEST_F(LastSave, ASaveRefusedByABadSettingIsRecorded) {
    ulmo::record_last_save("before");
    const std::string path = file("platform.conf", "wwn = x\n").string();
    ulmo::Action fabric;
    fabric.scope = ulmo::Action::Scope::fabric;
    ulmo::ActionProcess process(fabric);
    const ulmo::ActionOutcome outcome = outcome_of(process);
    EXPECT_EQ(outcome.status, ulmo::warden_err_store);
    EXPECT_EQ(outcome.text.substr(0, path.size()), path);
    EXPECT_EQ(ulmo::last_save(), outcome.text);
}

TEST_F(LastSave, ASaveThatWasGivenUpIsNotRecorded) {
    ulmo::record_last_save("before");
    auto lock = std::make_unique<ulmo::FileLock>(held());
    ulmo::ActionProcess process(ulmo::Action{});
    process.give_up();
    lock.reset();
    EXPECT_EQ(outcome_of(process).text, "given up");
    EXPECT_EQ(ulmo::last_save(), "before");
}

TEST_F(LastSave, AFullDiskIsNamed) {
    REQUIRE_SUPERUSER("mounts a small disk");
    const pid_t process = ::fork();
    if (process == 0) {
        // In a mount namespace of its own, so that the disk goes with the process.
        if (!get_own_mounts() ||
            ::mount("small", state().c_str(), "tmpfs", 0, "size=64k,mode=0700") != 0) {
            ::_exit(1);
        }
        std::string large = "hostname large\n";
        for (unsigned i = 1; large.size() < 40'000; ++i) {
            large += "vlan " + std::to_string(i) + "\n  name " + std::string(30, 'x') + "\n";
        }
        file("state/running.cfg", large + "end\n"); // room for one, not for two
        std::array<int, 2> silent{};
        const ulmo::ActionOutcome outcome =
            ::pipe(silent.data()) == 0 ? ulmo::perform({}, silent[0]) : ulmo::ActionOutcome{};
        EXPECT_EQ(outcome.status, ulmo::warden_err_store);
        EXPECT_EQ(outcome.text, "no space on device");
        EXPECT_EQ(ulmo::last_save(), "no space on device");
        EXPECT_FALSE(std::filesystem::exists(startup()));
        ::_exit(HasFailure() ? 2 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
}

} // namespace
