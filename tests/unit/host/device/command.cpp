// A device of programs, most of which misbehave. What all kinds of devices do is in contract.cpp.
#include "platform/host/device/backend.h"
#include "platform/host/device/configuration_text.h"
#include "platform/host/device/device.h"
#include "tests/unit/host/device/fixture.h"

#include <sys/stat.h>

#include <filesystem>
#include <map>

namespace {

using ulmo::ConfigurationError;
using ulmo::ConfigurationStore;

class CommandDevice : public DeviceTest {
  protected:
    // The configurations are the files `running` and `startup`; the tasks are lines of shell.
    CommandDevice() {
        put("running", "a\n");
        put("startup", "s\n");
        tasks_ = {{"show_running", "cat running"},
                  {"show_startup", "cat startup"},
                  {"check", "! grep -q bad || { echo no bad words >&2; exit 1; }"},
                  {"apply", "cat >>running"},
                  {"replace", "grep . >running"},
                  {"save", "cp running startup"}};
    }

    void put(const std::string &name, const std::string &text) const { file(name, text); }
    [[nodiscard]] std::string text(const std::string &name) const {
        return content(directory_ / name);
    }

    // Gives the task this line of shell, or takes it away.
    void set(const std::string &task, const std::string &line) { tasks_[task] = line; }
    void unset(const std::string &task) { tasks_.erase(task); }

    [[nodiscard]] std::unique_ptr<ulmo::Device> device(const std::string &settings = {}) const {
        std::string all;
        for (const auto &[task, line] : tasks_) {
            const auto program = file(task, "#!/bin/sh\ncd '" + directory_.string() + "'\n" + line);
            std::filesystem::permissions(program, std::filesystem::perms::owner_all);
            all += "command_" + task + " = " + program.string() + "\n";
        }
        scratch_.configure(all + settings);
        return std::make_unique<ulmo::Device>(ulmo::make_command_backend(state()), state());
    }

    // What an operation throws; "refused: ..." if it refuses the text.
    template <typename Operation> static std::string failure(Operation operation) {
        try {
            operation();
        } catch (const ConfigurationError &error) {
            return (error.kind() == ConfigurationError::Kind::bad_line ? "refused: "
                                                                       : "no file: ") +
                   std::string(error.what());
        } catch (const std::exception &error) {
            return error.what();
        }
        return "no failure";
    }
    [[nodiscard]] std::string failure_to_show() const {
        return failure([this] { device()->show(ConfigurationStore::running); });
    }
    [[nodiscard]] std::string failure_to_apply(const std::string &text,
                                               const std::string &settings = {}) const {
        return failure([&] { device(settings)->apply(text); });
    }

  private:
    std::map<std::string, std::string> tasks_;
};

TEST_F(CommandDevice, ProgramsDoAllTheWork) {
    EXPECT_EQ(device()->show(ConfigurationStore::running), "a\n");
    EXPECT_EQ(device()->show(ConfigurationStore::startup), "s\n");
    device()->apply("b\n");
    EXPECT_EQ(text("running"), "a\nb\n");
    device()->save({"backup.cfg"}, {});
    EXPECT_EQ(text("startup"), "a\nb\n");
    EXPECT_EQ(text("state/backup.cfg"), "a\nb\n");
    device()->apply("configuration replace\nc\n");
    EXPECT_EQ(text("running"), "c\n");
    set("store_startup", "cat >startup");
    device()->store_startup("d\n");
    EXPECT_EQ(text("startup"), "d\n");
}

TEST_F(CommandDevice, TheSettingChoosesIt) {
    EXPECT_NE(device("device_backend = command\n"), nullptr);
    EXPECT_EQ(ulmo::make_device()->show(ConfigurationStore::startup), "s\n");
}

TEST_F(CommandDevice, TextMayComeAsAFile) {
    put("script", "cd '" + directory_.string() + "'\n{ stat -c '%a %F' \"$1\"; cat - \"$3\"; " +
                      "echo \"$2 $1\"; } >seen\n");
    scratch_.configure("command_show_running = /bin/cat " + (directory_ / "running").string() +
                       "\ncommand_apply = /bin/sh " + (directory_ / "script").string() +
                       " {} --force {}\n");
    ulmo::Device(ulmo::make_command_backend(state()), state()).apply("b\n");
    EXPECT_EQ(text("seen"),
              "600 regular file\nb\n--force " + (state() / "device.input").string() + "\n");
    EXPECT_FALSE(std::filesystem::exists(state() / "device.input"));
}

TEST_F(CommandDevice, ARefusalIsTheFirstLineOfStandardError) {
    EXPECT_EQ(failure_to_apply("x\nbad\n"), "refused: no bad words");
    set("check", "echo >&2; echo 'line 2: what?' >&2; echo 'see manual' >&2; exit 9");
    EXPECT_EQ(failure_to_apply("x\n"), "refused: line 2: what?");
    set("check", "exit 9");
    EXPECT_EQ(failure_to_apply("x\n"),
              "refused: command_check: it ended with status 9 and gave no reason");
    EXPECT_EQ(text("running"), "a\n");
}

TEST_F(CommandDevice, ATextMustBeText) {
    EXPECT_EQ(failure_to_apply(std::string("x\ny\0\n", 5)),
              "no file: line 2 has a control character: this is not text");
    EXPECT_EQ(failure_to_apply("\x1b[2J\n"),
              "no file: line 1 has a control character: this is not text");
    device()->apply("tab\there\r\n\xc3\xa9\xff\n"); // each line end, each encoding
    EXPECT_EQ(text("running"), "a\ntab\there\r\n\xc3\xa9\xff\n");
}

TEST_F(CommandDevice, WhatAFailedApplyHasDoneIsUndone) {
    set("apply", "head -n 1 >>running; echo 'line 2: no memory' >&2; exit 1");
    EXPECT_EQ(failure_to_apply("b\nc\n"), "refused: line 2: no memory");
    EXPECT_EQ(text("running"), "a\n");
    set("apply", "cat >>running; kill -9 $$");
    EXPECT_EQ(failure_to_apply("b\n"), "command_apply: signal 9 ended it");
    EXPECT_EQ(text("running"), "a\n");
    set("apply", "cat >>running; exec sleep 60");
    EXPECT_EQ(failure_to_apply("b\n", "device_time_limit = 1\n"),
              "command_apply: it did not end within 1 second and was killed");
    EXPECT_EQ(text("running"), "a\n");
}

TEST_F(CommandDevice, WhatIsNotInForceIsUndone) {
    set("verify", "while read -r line; do grep -qx \"$line\" running || "
                  "{ echo \"'$line' is not in force\" >&2; exit 1; }; done");
    EXPECT_EQ(failure_to_apply("b\n"), "no failure");
    set("apply", "grep -v c >>running");
    EXPECT_EQ(failure_to_apply("d\nc\n"), "refused: 'c' is not in force");
    EXPECT_EQ(text("running"), "a\nb\n");
}

TEST_F(CommandDevice, ProgramsThatFailToShow) {
    for (const auto &[line, reason] : std::map<std::string, std::string>{
             {"echo a; echo 'no daemon' >&2; exit 3", "no daemon"},
             {"echo a; exit 3", "it ended with status 3 and gave no reason"},
             {"echo a; kill -SEGV $$", "signal 11 ended it"},
             {"exec head -c 1000000000 /dev/zero", "it printed more than 134217728 octets and was "
                                                   "killed"},
             {"echo a; printf 'b\\0'",
              "line 2 of what it printed has a control character: this is not text"}}) {
        set("show_running", line);
        EXPECT_EQ(failure_to_show(), "command_show_running: " + reason);
        EXPECT_EQ(failure_to_apply("b\n"), "command_show_running: " + reason);
        EXPECT_EQ(text("running"), "a\n") << "a change needs a way back";
    }
    set("show_running", "true");
    EXPECT_EQ(failure_to_show(), "the device shows an empty running configuration");
}

TEST_F(CommandDevice, AnEmptyStartupConfigurationIsNone) {
    put("startup", "");
    EXPECT_EQ(failure([this] { device()->show(ConfigurationStore::startup); }),
              "there is no startup configuration");
}

TEST_F(CommandDevice, ASaveThatFails) {
    set("save", "echo 'flash is full' >&2; exit 1");
    EXPECT_EQ(failure([this] { device()->save(); }), "command_save: flash is full");
    EXPECT_EQ(failure([this] { device()->save({"backup.cfg"}, {}); }),
              "command_save: flash is full");
    set("save", "touch saved");
    EXPECT_EQ(failure([this] { device()->save({}, [] { throw std::runtime_error("given up"); }); }),
              "given up");
    EXPECT_FALSE(std::filesystem::exists(directory_ / "saved"));
}

TEST_F(CommandDevice, TasksWithoutAProgram) {
    unset("check"); // then the device judges when it applies
    device()->apply("bad\n");
    EXPECT_EQ(text("running"), "a\nbad\n");

    unset("show_startup");
    EXPECT_EQ(failure([this] { device()->show(ConfigurationStore::startup); }),
              "command_show_startup is not set: this device can't show its startup configuration");
    unset("save");
    EXPECT_EQ(failure([this] { device()->save(); }),
              "command_save is not set: this device can't save its configuration");
    EXPECT_EQ(failure([this] { device()->store_startup("x\n"); }),
              "command_store_startup is not set: this device can't take a startup configuration");
    unset("apply");
    EXPECT_EQ(failure_to_apply("x\n"),
              "command_apply is not set: this device can't apply a configuration");
    unset("show_running");
    EXPECT_EQ(failure_to_show(),
              "command_show_running is not set: this device can't show its running configuration");
}

TEST_F(CommandDevice, NothingIsUndoneWithoutReplace) {
    unset("replace");
    EXPECT_EQ(failure_to_apply("configuration replace\nx\n"),
              "command_replace is not set: this device can't replace its configuration");
    EXPECT_EQ(text("running"), "a\n");
    device()->apply("b\n");
    EXPECT_EQ(text("running"), "a\nb\n");
    set("apply", "echo 'line 1: no' >&2; exit 1");
    EXPECT_EQ(failure_to_apply("c\n"), "refused: line 1: no") << "there is nothing to undo";
    set("apply", "head -n 1 >>running; echo 'line 2: no' >&2; exit 1");
    EXPECT_EQ(failure_to_apply("c\nd\n"),
              "line 2: no; the configuration before it could not be restored: command_replace is "
              "not set: this device can't replace its configuration");
    EXPECT_EQ(text("running"), "a\nb\nc\n");
    device()->save(); // goes on
    EXPECT_EQ(text("startup"), "a\nb\nc\n");
}

TEST_F(CommandDevice, ABadSettingStopsAll) {
    for (const char *line : {"command_verify = verify\n", "command_verify = /nowhere/verify\n"}) {
        EXPECT_TRUE(failure([&] { device(line)->save(); }).ends_with("copies and saves fail"));
        EXPECT_TRUE(failure_to_apply("b\n", line).ends_with("copies and saves fail"));
        EXPECT_EQ(text("running"), "a\n");
        EXPECT_EQ(text("startup"), "s\n");
    }
}

} // namespace
