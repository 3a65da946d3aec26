// Values from platform.conf, which of them take effect, and how problems are reported.
#include "base/settings.h"

#include "base/folders.h"
#include "base/unique_fd.h"
#include "tests/unit/child.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"

#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

const ulmo::Setting &setting(std::string_view name) {
    return *std::find_if(std::begin(ulmo::all_settings), std::end(ulmo::all_settings),
                         [&](const auto &each) { return each.name == name; });
}

// The text of the SettingsError that a call throws.
std::string refusal(const std::function<void()> &call) {
    try {
        call();
    } catch (const ulmo::SettingsError &error) {
        return error.what();
    }
    return "accepted";
}

Texts reported; // the problems reported during one test

// Reports whether a file was opened since the last query.
class OpenWatch {
  public:
    explicit OpenWatch(const std::filesystem::path &file)
        : events_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        EXPECT_GE(::inotify_add_watch(events_.get(), file.c_str(), IN_OPEN), 0);
    }
    [[nodiscard]] bool is_opened() const {
        char event[512];
        return ::read(events_.get(), event, sizeof event) > 0;
    }

  private:
    ulmo::UniqueFd events_;
};

class HostSettings : public testing::Test {
  protected:
    void SetUp() override {
        reported.clear();
        ulmo::set_settings_listener(
            [](const std::string &problem) { reported.push_back(problem); });
    }
    void TearDown() override { ulmo::set_settings_listener(nullptr); }

    [[nodiscard]] std::filesystem::path file() const { return scratch.root() / "platform.conf"; }
    [[nodiscard]] std::string line(int number) const {
        return file().string() + " line " + std::to_string(number) + ": ";
    }
    [[nodiscard]] std::string unreadable(const std::string &why) const {
        return file().string() + " can't be read: " + why + "; copies and saves fail";
    }
    // Reads settings until the file is old enough not to be read in every call.
    void ask_until_the_file_is_not_read() const {
        const OpenWatch watch(file());
        const auto given_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        do {
            ASSERT_LT(std::chrono::steady_clock::now(), given_up)
                << "the file is still read in each call";
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ulmo::text_setting("history");
        } while (watch.is_opened());
    }
    Texts values(const std::string &name, const std::string &text) const {
        scratch.configure(text);
        return ulmo::setting_values(setting(name));
    }
    std::string value(const std::string &name, const std::string &text) const {
        const Texts all = values(name, name + " = " + text + "\n");
        return all.size() == 1 ? all[0] : std::to_string(all.size()) + " values";
    }

    const Scratch scratch;
};

TEST_F(HostSettings, AMissingFileMeansDefaultsForAll) {
    for (const ulmo::Setting &each : ulmo::all_settings) {
        EXPECT_EQ(ulmo::setting_values(each),
                  each.fallback.empty() ? Texts{} : Texts{std::string(each.fallback)})
            << each.name;
        EXPECT_TRUE(ulmo::is_default(each)) << each.name;
    }
    EXPECT_NO_THROW(ulmo::require_settings());
    EXPECT_EQ(ulmo::number_setting("chassis_type"), std::nullopt);
    EXPECT_EQ(ulmo::number_setting("msgbus_answer_limit"), 250);
    EXPECT_EQ(ulmo::text_setting("history"), "errors")
        << "by default no text with a password is kept";
    EXPECT_EQ(ulmo::list_setting("startup_copy"), Texts{"backup.cfg"});
    EXPECT_EQ(reported, Texts{});
}

TEST_F(HostSettings, AProgramMustBeThere) {
    const auto refused = [&](const std::string &text) {
        return refusal([&] {
            scratch.configure("command_apply = " + text + "\n");
            ulmo::program_setting("command_apply");
        });
    };
    const auto expected = [&](const std::string &text) {
        return line(1) + "command_apply = " + text +
               ": must begin with the absolute path of a program that exists and that this user "
               "may run; copies and saves fail";
    };
    const std::string folder = scratch.root();
    Scratch::write(scratch.root() / "x", "");
    for (const std::string &text : {std::string("true"), std::string("./true x"), folder,
                                    folder + "/absent -v", folder + "/x"}) {
        // its text may be cut
        EXPECT_EQ(refused(text).substr(0, 60), expected(text).substr(0, 60));
        EXPECT_TRUE(refused(text).ends_with(expected("").substr(line(1).size() + 16))) << text;
    }
    EXPECT_EQ(ulmo::settings_problems().size(), 1U);

    EXPECT_EQ(refused("  /bin/sh\t-c  {} "), "accepted");
    EXPECT_EQ(ulmo::program_setting("command_apply"), (Texts{"/bin/sh", "-c", "{}"}));
    EXPECT_EQ(refused(""), "accepted");
    EXPECT_EQ(ulmo::program_setting("command_apply"), Texts{});
    EXPECT_EQ(ulmo::program_setting("command_save"), Texts{});
}

TEST_F(HostSettings, AProgramMayComeLater) {
    scratch.configure("command_apply = " + (scratch.root() / "x").string() + "\n");
    const auto written = std::filesystem::last_write_time(file());
    while (std::filesystem::file_time_type::clock::now() - written < std::chrono::seconds(1)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10)); // until it counts as settled
    }
    EXPECT_NE(refusal([] { ulmo::program_setting("command_apply"); }), "accepted");
    Scratch::write(scratch.root() / "x", "");
    ASSERT_EQ(::chmod((scratch.root() / "x").c_str(), 0700), 0);
    EXPECT_EQ(refusal([] { ulmo::program_setting("command_apply"); }), "accepted");
}

TEST_F(HostSettings, APrivateFileIsNobodyElses) {
    const std::string key = scratch.root() / "key";
    Scratch::write(key, "");
    const auto refused = [&](const std::string &text) {
        scratch.configure("ssh_identity = " + text + "\n");
        return refusal([] { ulmo::setting_values(setting("ssh_identity")); });
    };
    const std::string must = ": must be the absolute path of a file that belongs to the agent's "
                             "user, with mode 0600; copies by SFTP and SCP fail";
    for (const mode_t mode : {0700U, 0600U, 0400U}) {
        ASSERT_EQ(::chmod(key.c_str(), mode), 0);
        EXPECT_EQ(refused(key), "accepted") << mode;
    }
    EXPECT_EQ(ulmo::setting_values(setting("ssh_identity")), Texts{key});
    for (const mode_t mode : {0640U, 0620U, 0610U, 0604U, 0602U, 0601U}) {
        ASSERT_EQ(::chmod(key.c_str(), mode), 0);
        EXPECT_TRUE(refused(key).ends_with(must)) << mode;
    }
    ASSERT_EQ(::chmod(key.c_str(), 0600), 0);
    // It may be put right without a change of the settings.
    EXPECT_EQ(refusal([] { ulmo::setting_values(setting("ssh_identity")); }), "accepted");
    for (const char *text : {"key", "~/key", "/absent", "/dev/null", "/tmp"}) {
        EXPECT_EQ(refused(text), line(1) + "ssh_identity = " + text + must);
    }
    EXPECT_EQ(refused(""), "accepted");
    EXPECT_EQ(ulmo::setting_values(setting("ssh_identity")), Texts{});
}

TEST_F(HostSettings, APrivateFileBelongsToTheAgentsUser) {
    REQUIRE_SUPERUSER("gives files away");
    const std::string key = scratch.root() / "key";
    Scratch::write(key, "");
    ASSERT_EQ(::chmod(key.c_str(), 0600), 0);
    scratch.configure("ssh_identity = " + key + "\n");
    const auto ask = [] { ulmo::setting_values(setting("ssh_identity")); };
    ASSERT_EQ(::chown(key.c_str(), 1, 1), 0);
    EXPECT_NE(refusal(ask), "accepted");
    ASSERT_EQ(::chown(ulmo::state_path().c_str(), 1, 1), 0);
    EXPECT_EQ(refusal(ask), "accepted") << "the owner of the state directory is the agent's user";
    ASSERT_EQ(::chown(key.c_str(), 0, 0), 0);
    EXPECT_NE(refusal(ask), "accepted");
}

TEST_F(HostSettings, ValuesAreTakenFromTheirLines) {
    scratch.configure("# history = off\n\n  history\t=  all "
                      "\r\nmsgbus_answer_limit=007\nagent_debug_file = /a b=c\nchassis_type =\n"
                      "msgbus_answer_limit = 8");
    EXPECT_EQ(ulmo::text_setting("history"), "all");
    EXPECT_EQ(ulmo::number_setting("msgbus_answer_limit"), 8) << "the last line counts";
    EXPECT_EQ(ulmo::text_setting("agent_debug_file"), "/a b=c");
    EXPECT_EQ(ulmo::number_setting("chassis_type"), std::nullopt);
    EXPECT_FALSE(ulmo::is_default(setting("history")));
    EXPECT_TRUE(ulmo::is_default(setting("wwn")));
    EXPECT_EQ(reported, Texts{});
}

TEST_F(HostSettings, ABadValueLeavesTheDefaultInForceUnlessSomethingFails) {
    scratch.configure("history = erors\nwwn = x\n");
    EXPECT_TRUE(ulmo::is_default(setting("history")));
    EXPECT_FALSE(ulmo::is_default(setting("wwn")));
    scratch.configure("history = erors\nhistory = errors\n");
    EXPECT_FALSE(ulmo::is_default(setting("history")));
}

TEST_F(HostSettings, AListHasAllItsLines) {
    EXPECT_EQ(values("startup_copy", "startup_copy = b\nstartup_copy = a\nstartup_copy = b\n"),
              (Texts{"b", "a", "b"}));
    EXPECT_EQ(values("startup_copy", "startup_copy =\n"), Texts{""});
    EXPECT_EQ(
        values("vrf_context", "vrf_context = " + std::string(33, 'x') + "\nvrf_context = red\n"),
        Texts{"red"});
    EXPECT_EQ(reported, Texts{line(1) + "vrf_context = " + std::string(33, 'x') +
                              ": must be 1 to 32 octets long; the line is ignored"});
}

TEST_F(HostSettings, YesAndNoHaveSixWordsInAnyCase) {
    for (const char *word : {"yes", "Yes", "YES", "on", "On", "true", "TRUE"}) {
        EXPECT_EQ(value("ssh_accept_new_host_keys", word), "yes") << word;
    }
    for (const char *word : {"no", "No", "NO", "off", "Off", "false", "False"}) {
        EXPECT_EQ(value("ssh_accept_new_host_keys", word), "no") << word;
    }
    EXPECT_EQ(reported, Texts{});
    for (const char *word : {"maybe", "", "0", "1", "y", "n", "none", "yes no", "yes,", ","}) {
        EXPECT_EQ(refusal([&] { value("ssh_accept_new_host_keys", word); }),
                  line(1) + "ssh_accept_new_host_keys = " + word +
                      ": must be yes or no; copies by SFTP and SCP fail");
    }
}

TEST_F(HostSettings, ABadValueLeavesTheDefaultAndIsTold) {
    scratch.configure("msgbus_answer_limit = 2s\n#\nhistory = erors\ntransfer_idle_limit = "
                      "0\ntransfer_time_limit = 1000000000\n"
                      "history_kilobytes = 15\ndebug_print = off,\n");
    EXPECT_EQ(ulmo::number_setting("msgbus_answer_limit"), 250);
    EXPECT_EQ(ulmo::text_setting("history"), "errors");
    EXPECT_EQ(ulmo::number_setting("transfer_idle_limit"), 30);
    EXPECT_EQ(ulmo::number_setting("transfer_time_limit"), 3600);
    EXPECT_EQ(ulmo::number_setting("history_kilobytes"), 512);
    EXPECT_EQ(
        reported,
        (Texts{
            line(1) + "msgbus_answer_limit = 2s: must be a number from 1 to 60000; the default "
                      "250 is used",
            line(3) +
                "history = erors: must be one of all, errors, off; the default errors is used",
            line(4) + "transfer_idle_limit = 0: must be a number from 1 to 999999999; the default "
                      "30 is used",
            line(5) + "transfer_time_limit = 1000000000: must be a number from 1 to 999999999; the "
                      "default 3600 is used",
            line(6) + "history_kilobytes = 15: must be a number from 16 to 1048576; the default "
                      "512 is used",
            line(7) +
                "debug_print = off,: must be one of all, errors, off; the default off is used"}));
    EXPECT_EQ(ulmo::settings_problems(), reported);
}

TEST_F(HostSettings, NumbersAreTakenUpToTheirBounds) {
    for (const char *number : {"1", "60000"}) {
        EXPECT_EQ(value("msgbus_answer_limit", number), number);
    }
    for (const char *number :
         {"0", "60001", "-1", "+1", "1.5", "0x10", "1 2", "99999999999999999999"}) {
        EXPECT_EQ(value("msgbus_answer_limit", number), "250") << number;
    }
}

TEST_F(HostSettings, ABadValueThatGuardsSomethingIsRefused) {
    EXPECT_EQ(refusal([&] { value("chassis_type", "1O"); }),
              line(1) + "chassis_type = 1O: must be a number from 0 to 2147483647; copies fail");
    EXPECT_EQ(refusal([&] { value("device_backend", "remote"); }),
              line(1) + "device_backend = remote: must be one of " +
                  std::string(setting("device_backend").words) + "; copies and saves fail");
    EXPECT_EQ(refusal([&] { value("wwn", "00:00:00:00:00:00:00:00"); }),
              line(1) + "wwn = 00:00:00:00:00:00:00:00: must be a world-wide name, such as "
                        "20:00:00:00:00:00:00:01; saves in the fabric fail");
    EXPECT_EQ(
        refusal([&] { value("fabric_time_limit", "301"); }),
        line(1) +
            "fabric_time_limit = 301: must be a number from 1 to 300; saves in the fabric fail");
    scratch.configure("chassis_type = x\nchassis_type = 10\n");
    EXPECT_EQ(ulmo::number_setting("chassis_type"), 10)
        << "the last line counts, and the other one is reported";
    EXPECT_EQ(reported.back(),
              line(1) + "chassis_type = x: must be a number from 0 to 2147483647; copies fail");
}

TEST_F(HostSettings, AnUnknownSettingIsReportedWithoutItsValue) {
    scratch.configure("chasis_type = 10\nfabric_auth_pasphrase = hush\nHistory = all\n= "
                      "5\nhush\nkey\x1b[2J = 5\n" +
                      std::string(100, 'k') + " = 1\n");
    EXPECT_EQ(ulmo::text_setting("history"), "errors");
    const std::string ignored = ": unknown setting; the line is ignored";
    EXPECT_EQ(reported,
              (Texts{line(1) + "chasis_type" + ignored, line(2) + "fabric_auth_pasphrase" + ignored,
                     line(3) + "History" + ignored, line(4) + ignored,
                     line(5) + "no '='; the line is ignored", line(6) + "key?[2J" + ignored,
                     line(7) + std::string(60, 'k') + "..." + ignored}));
}

TEST_F(HostSettings, ProblemsAreToldOnceForEachChangeOfTheFile) {
    scratch.configure("history = erors\n");
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ulmo::text_setting("history"), "errors");
    }
    EXPECT_EQ(reported.size(), 1U);
    ask_until_the_file_is_not_read();
    EXPECT_EQ(ulmo::text_setting("history"), "errors");
    EXPECT_EQ(ulmo::text_setting("history"), "errors");
    EXPECT_EQ(reported.size(), 1U);
    scratch.configure("history = error\n");
    ulmo::require_settings();
    EXPECT_EQ(reported.size(), 2U);
    scratch.configure("history = all\n");
    ulmo::require_settings();
    EXPECT_EQ(reported.size(), 2U);
    scratch.configure("history = error\n");
    ulmo::require_settings();
    EXPECT_EQ(reported.size(), 3U);
}

TEST_F(HostSettings, AChangeHoldsAtOnce) {
    // Files of the same length, written faster than the clock of their time stamps ticks.
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(value("history", i % 2 == 0 ? "all" : "off"), i % 2 == 0 ? "all" : "off") << i;
    }
    ask_until_the_file_is_not_read();
    EXPECT_EQ(ulmo::text_setting("history"), "off");
    EXPECT_EQ(value("history", "all"), "all");
    std::filesystem::remove(file());
    EXPECT_EQ(ulmo::text_setting("history"), "errors");
}

TEST_F(HostSettings, AFileThatIsNotReadRefusesWhatItMayGuard) {
    const auto expect_refused = [&](const std::string &why) {
        EXPECT_EQ(refusal([] { ulmo::require_settings(); }), unreadable(why));
        for (const ulmo::Setting &each : ulmo::all_settings) {
            EXPECT_EQ(refusal([&] { ulmo::setting_values(each); }),
                      each.fails.empty() ? "accepted" : unreadable(why))
                << each.name;
        }
        EXPECT_EQ(ulmo::text_setting("history"), "errors") << "the log goes on";
        EXPECT_EQ(reported, Texts{unreadable(why)});
        reported.clear();
        std::filesystem::remove_all(file());
        EXPECT_NO_THROW(ulmo::require_settings());
    };
    std::filesystem::create_directory(file());
    expect_refused("Is a directory");
    std::filesystem::create_symlink("nowhere", file());
    expect_refused("No such file or directory");
    std::filesystem::create_symlink(file(), file());
    expect_refused("Too many levels of symbolic links");
    ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
    expect_refused("it is not a regular file");
    // A file whose reading fails (proc(5)): nothing is mapped at its beginning.
    std::filesystem::create_symlink("/proc/self/mem", file());
    expect_refused("Input/output error");
}

TEST_F(HostSettings, ARelativePathIsRefused) {
    ::setenv("ULMO_CONF", "platform.conf", 1);
    EXPECT_EQ(refusal([] { ulmo::require_settings(); }),
              "platform.conf can't be read: its path is not absolute; copies and saves fail");
}

TEST_F(HostSettings, AnotherUserReadsForItself) {
    REQUIRE_SUPERUSER("becomes another user");
    constexpr uid_t other = 65534;
    scratch.configure("history = all\n");
    ASSERT_EQ(::chmod(scratch.root().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(file().c_str(), 0600), 0);
    ask_until_the_file_is_not_read();
    EXPECT_EQ(ulmo::text_setting("history"), "all");
    const auto is_refused = [&] {
        return ::setresuid(other, other, other) == 0 &&
                       refusal([] { ulmo::require_settings(); }) == unreadable("Permission denied")
                   ? 0
                   : 1;
    };
    EXPECT_EQ(host_test::in_child(is_refused), 0)
        << "what the superuser read before must not hold for the user it becomes";
    ASSERT_EQ(::chmod(file().c_str(), 0644), 0);
    EXPECT_EQ(host_test::in_child(is_refused), 1);
}

TEST_F(HostSettings, AnUnchangedFileIsNotReadAgain) {
    scratch.configure("history = all\n");
    ask_until_the_file_is_not_read();
    const OpenWatch watch(file());
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(ulmo::text_setting("history"), "all");
    }
    EXPECT_FALSE(watch.is_opened());
    // A file that has just been written is read again: another change may have the same time stamp.
    bool is_read_again = false;
    // a machine that stalls for 100 ms proves nothing
    for (int i = 0; i < 50 && !is_read_again; ++i) {
        scratch.configure("history = all\n");
        EXPECT_EQ(ulmo::text_setting("history"), "all");
        EXPECT_TRUE(watch.is_opened());
        EXPECT_EQ(ulmo::text_setting("history"), "all");
        is_read_again = watch.is_opened();
    }
    EXPECT_TRUE(is_read_again);
    scratch.configure("history = off\n");
    EXPECT_TRUE(watch.is_opened());
    EXPECT_EQ(ulmo::text_setting("history"), "off");
    EXPECT_TRUE(watch.is_opened());
}

} // namespace
