// How the system manager has a change of the running configuration undone: one whose process has
// died, and one that was not saved in time.
#include "platform/host/device/way_back.h"

#include "base/boot.h"
#include "platform/host/history/copy_record.h"
#include "tests/unit/host/system_manager/fixture.h"

using namespace host_test;

namespace {

class WardenWayBack : public WardenTest {
  protected:
    // Running "new", which came into force instead of "old" and must be saved soon.
    void prepare_waiting(std::chrono::milliseconds left) const {
        prepare();
        ulmo::WayBack(state()).wait({old_text, std::time(nullptr), 60s,
                                     ulmo::time_since_boot() + left, startup(),
                                     ulmo::mark_of(startup())});
    }
    void limit(const std::string &seconds) const {
        file("platform.conf", "confirm_limit = " + seconds + "\n");
    }
    bool comes_back() const {
        return comes_true([this] { return content(running()) == old_text; }, 10s);
    }
    std::string pending() const {
        Program program("cmdshell", {"-c", "show pending"}, directory_ / "output",
                        directory_ / "errors");
        EXPECT_EQ(program.wait(), 0) << content(directory_ / "errors");
        return content(directory_ / "output");
    }
    static constexpr const char *died =
        "the former configuration is in force again: a change of the running configuration did "
        "not end";
};

TEST_F(WardenWayBack, AChangeThatDiedIsUndoneWithinASecond) {
    prepare_and_start();
    auto held = hold_device();
    ulmo::WayBack(state()).begin(old_text);
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(content(running()), new_text) << "the change is being made";
    held.reset();
    const auto began = std::chrono::steady_clock::now();
    EXPECT_TRUE(comes_back());
    EXPECT_LT(std::chrono::steady_clock::now() - began, 5s); // one, on a machine that is not busy
    EXPECT_TRUE(logs(died));
    EXPECT_TRUE(comes_true([&] { return !ulmo::WayBack(state()).has_begun(); }));
    EXPECT_NE(ulmo::kept_copy_lines().find("from=former to=running outcome=successful"),
              std::string::npos);
}

TEST_F(WardenWayBack, AChangeThatIsNotSavedComesBack) {
    prepare();
    file("state/running.cfg", old_text);
    limit("1");
    start();
    EXPECT_EQ(pending(), "no change waits to be saved\n");
    ulmo::make_device()->apply(new_text);
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(content(running()), new_text);
    EXPECT_NE(pending().find(" must be saved within 1 s, of which "), std::string::npos);
    EXPECT_TRUE(comes_back());
    EXPECT_GT(std::chrono::steady_clock::now() - began, 900ms);
    EXPECT_TRUE(comes_true([this] {
        return count("the former configuration is in force again: the change of *") == 1;
    }));
    EXPECT_EQ(content(startup()), old_text);
    EXPECT_EQ(pending(), "no change waits to be saved\n");
    const std::string line = ulmo::kept_copy_lines();
    EXPECT_NE(line.find(" was not saved within 1 s\"\n"), std::string::npos) << line;
}

TEST_F(WardenWayBack, ASaveInTimeKeepsIt) {
    prepare_waiting(1s);
    start();
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(request.end(), 0U);
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(content(running()), new_text);
    EXPECT_FALSE(ulmo::WayBack(state()).waiting());
}

TEST_F(WardenWayBack, ASaveThatHasBegunWins) {
    prepare_waiting(1500ms);
    start();
    const auto device = [this] { // readers only, so that the way back would begin as well
        return ulmo::FileLock(ulmo::device_lock(state()), ulmo::FileLock::Mode::shared, 1s);
    };
    {
        const auto held = device();
        Request request = ask();
        EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
        action();
        std::this_thread::sleep_for(2500ms);
        EXPECT_EQ(children_of(warden_->pid()).size(), 1U);
    }
    EXPECT_TRUE(comes_true([this] { return content(startup()) == new_text; }));
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(content(running()), new_text);
    EXPECT_EQ(count("the former configuration is in force again: *"), 0U);
}

TEST_F(WardenWayBack, NoSaveBeginsOnTheWayBack) {
    prepare_waiting(0s);
    auto held = std::make_unique<ulmo::FileLock>(ulmo::device_lock(state()),
                                                 ulmo::FileLock::Mode::shared, 1s);
    start();
    ASSERT_TRUE(comes_true([this] { return children_of(warden_->pid()).size() == 1; }));
    Request request = ask();
    EXPECT_EQ(request.answer(), ulmo::warden_err_busy);
    EXPECT_TRUE(logs("refused: the former configuration is being brought back"));
    held.reset();
    EXPECT_TRUE(comes_back());
    EXPECT_EQ(content(startup()), old_text);
    ASSERT_TRUE(comes_true([this] { return children_of(warden_->pid()).empty(); }));
    Request next = ask();
    EXPECT_EQ(next.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(next.end(), 0U);
}

TEST_F(WardenWayBack, OneThatStartsTooLateGoesBackAtOnce) {
    prepare_waiting(-1h);
    start();
    EXPECT_TRUE(comes_back());
}

TEST_F(WardenWayBack, OneThatIsKilledLeavesItToTheNext) {
    prepare_waiting(1500ms);
    start();
    warden_->signal(SIGKILL);
    EXPECT_EQ(warden_->wait(), -SIGKILL);
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(content(running()), new_text);
    EXPECT_NE(pending().find(" was not saved within 60 s: the configuration before it comes back"),
              std::string::npos);
    EXPECT_EQ(content(running()), new_text) << "looking changes nothing";
    start();
    EXPECT_TRUE(comes_back());
}

TEST_F(WardenWayBack, AChangeNeedsASystemManager) {
    prepare_and_start();
    limit("60");
    ulmo::make_device()->apply("vlan 10\n");
    stop();
    EXPECT_THROW(ulmo::make_device()->apply("vlan 11\n"), std::runtime_error);
}

TEST_F(WardenWayBack, AWayBackThatFailsIsTriedAgain) {
    prepare();
    file("state/running.cfg", "bogus\n");
    ulmo::WayBack(state()).begin(old_text);
    start();
    EXPECT_TRUE(
        logs("the way back has failed, next attempt in 1 s: the former configuration is "
             "not in force again yet (a change of the running configuration did not end): " +
             running().string() + " is not valid: line 1: unknown statement 'bogus'"));
    const auto began = std::chrono::steady_clock::now();
    EXPECT_TRUE(logs("the way back has failed, next attempt in 2 s: *"));
    EXPECT_GT(std::chrono::steady_clock::now() - began, 900ms);
    file("state/running.cfg", new_text);
    EXPECT_TRUE(comes_back());
}

TEST_F(WardenWayBack, TheBootForgetsIt) {
    prepare_waiting(0s);
    std::filesystem::remove(scratch_.run("started"));
    file("state/system.cfg", "hostname saved\nend\n");
    start();
    EXPECT_EQ(content(running()), "hostname saved\nend\n");
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(content(running()), "hostname saved\nend\n");
    EXPECT_FALSE(ulmo::WayBack(state()).waiting());
}

TEST_F(WardenWayBack, ItRestsMeanwhile) {
    for (const auto &prepare : std::vector<std::function<void()>>{
             [this] { this->prepare(); }, [this] { prepare_waiting(60s); }}) {
        prepare();
        start();
        const unsigned long before = rests_of(warden_->pid());
        std::this_thread::sleep_for(2s);
        const unsigned long rests = rests_of(warden_->pid()) - before;
        EXPECT_GE(rests, 1U);
        EXPECT_LE(rests, 12U) << "two looks a second, and no busy loop";
        stop();
    }
}

} // namespace
