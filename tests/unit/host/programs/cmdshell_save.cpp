// A save through the system manager by the command line, and what the command line shows of the
// last one.
#include "platform/utilities.h"
#include "tests/unit/host/system_manager/fixture.h"

#include <pwd.h>
#include <unistd.h>

using namespace host_test;

namespace {

class CmdshellSave : public WardenTest {
  protected:
    std::unique_ptr<Program> cmdshell(const std::string &command) const {
        return std::make_unique<Program>("cmdshell", std::vector<std::string>{"-c", command},
                                         directory_ / "output", directory_ / "errors");
    }
    std::unique_ptr<Program> save() const { return cmdshell("copy running-config startup-config"); }
    // What it said; it must have ended with that status.
    std::string ended(Program &program, int status) const {
        EXPECT_EQ(program.wait(), status);
        const std::string said = content(directory_ / "output") + content(directory_ / "errors");
        std::filesystem::remove(directory_ / "errors");
        return said;
    }
    static std::string failed(const std::string &why) {
        return "cmdshell: copy running-config startup-config: " + why + "\n";
    }
    std::string last_save(int status) const { return ended(*cmdshell("show last-save"), status); }
};

TEST_F(CmdshellSave, WaitsForTheEnd) {
    prepare_and_start();
    auto held = hold_device();
    const auto program = save();
    action();
    EXPECT_FALSE(program->ended());
    held.reset();
    EXPECT_EQ(ended(*program, 0), "");
    EXPECT_EQ(content(startup()), new_text);
    stop();
    const std::string user = ::getpwuid(::getuid())->pw_name;
    EXPECT_EQ(count("save to the startup configuration of this switch asked by user \"" + user +
                    "\", session \"#\", process #"),
              1U);
}

TEST_F(CmdshellSave, SaysWhyItFailed) {
    prepare();
    file("state/running.cfg", "hostname new\nbogus\n");
    start();
    EXPECT_EQ(ended(*save(), 1),
              failed(running().string() + " is not valid: line 2: unknown statement 'bogus'"));
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(CmdshellSave, IsRefusedWhileAnotherOneRuns) {
    prepare_and_start();
    const auto held = hold_device();
    Request first = ask();
    EXPECT_EQ(first.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(ended(*save(), 1), failed(syserr2str(ulmo::warden_err_busy)));
}

TEST_F(CmdshellSave, FailsWhenTheSystemManagerEndsFirst) {
    prepare_and_start();
    auto held = hold_device();
    auto program = save();
    action();
    warden_->signal(SIGKILL);
    EXPECT_EQ(warden_->wait(), -SIGKILL);
    EXPECT_EQ(ended(*program, 1), failed("the system manager ended before the save did"));
    held.reset();
    EXPECT_EQ(content(startup()), old_text);
    start();
    held = hold_device();
    program = save();
    const pid_t process = action();
    warden_->signal(SIGTERM);
    ASSERT_TRUE(comes_true([process] { return is_told_to_stop(process); }));
    held.reset();
    EXPECT_EQ(ended(*program, 1), failed("given up"));
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(CmdshellSave, SavesByItselfWithoutASystemManager) {
    prepare();
    EXPECT_EQ(ended(*save(), 0), "");
    EXPECT_EQ(content(startup()), new_text);
    // One that was killed has left its socket.
    start();
    warden_->signal(SIGKILL);
    EXPECT_EQ(warden_->wait(), -SIGKILL);
    ASSERT_TRUE(std::filesystem::exists(ulmo::sap_path(MSGBUS_SAP_WARDEN)));
    file("state/running.cfg", old_text);
    EXPECT_EQ(ended(*save(), 0), "");
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(CmdshellSave, ShowsHowTheLastSaveWent) {
    EXPECT_EQ(last_save(1),
              "cmdshell: show last-save: nothing has been saved since the switch started\n");
    prepare_and_start();
    EXPECT_EQ(ended(*save(), 0), "");
    EXPECT_EQ(last_save(0), "saved\n");
    file("state/running.cfg", "bogus\n");
    EXPECT_NE(ended(*save(), 1), "");
    EXPECT_EQ(last_save(0),
              running().string() + " is not valid: line 1: unknown statement 'bogus'\n");
    stop();
    EXPECT_EQ(last_save(0),
              running().string() + " is not valid: line 1: unknown statement 'bogus'\n")
        << "it outlives the system manager";
}

} // namespace
