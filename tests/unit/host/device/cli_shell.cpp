#include "platform/cli_shell.h"

#include "platform/host/system_manager/status.h"
#include "platform/system_manager.h"
#include "tests/unit/child.h"
#include "tests/unit/host/device/fixture.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <cstring>
#include <vector>

namespace {

constexpr const char *factory_text = "hostname switch\nend\n";

class CliShell : public DeviceTest {
  protected:
    uint32_t execute(const std::string &file, const std::string &output) const {
        cmdshell_exec_params params{};
        EXPECT_LE(file.size(), sizeof(params.file));
        EXPECT_LE(output.size(), sizeof(params.output));
        std::memcpy(params.file, file.data(), file.size());
        std::memcpy(params.output, output.data(), output.size());
        return cmdshell_execute_cfg_file2(&params);
    }
    uint32_t execute(const std::string &text) const {
        return execute(file("new.cfg", text), output());
    }
    std::string output() const { return directory_ / "out.txt"; }

    // A path of exactly `length` octets.
    std::string long_path(const std::string &beginning, std::size_t length) const {
        std::string path = directory_ / beginning;
        return path + std::string(length - path.size(), 'x');
    }
};

TEST_F(CliShell, AppliesAFile) {
    EXPECT_EQ(execute("hostname applied\nvlan 3\n"), 0U);
    EXPECT_EQ(content(running()), "hostname applied\nvlan 3\nend\n");
    EXPECT_EQ(content(output()), (directory_ / "new.cfg").string() + ": applied\n");
    EXPECT_EQ(permissions(output()), 0600U);
}

TEST_F(CliShell, AnEmptyFileIsAValidConfiguration) {
    EXPECT_EQ(execute(""), 0U);
    EXPECT_EQ(content(running()), factory_text);
}

TEST_F(CliShell, EveryRefusalHasItsCodeAndChangesNothing) {
    ASSERT_EQ(execute("hostname before\n"), 0U);
    const std::string name = directory_ / "new.cfg";
    struct Case {
        std::string text;
        uint32_t code;
        std::string reason;
    };
    const Case cases[] = {
        {"hostname x\nvlan 5000\n", 0x40540003U,
         "line 2: vlan number expected, 1 to 4094, not '5000'"},
        {"hostname x\nfoo\n", 0x40540003U, "line 2: unknown statement 'foo'"},
        {"!" + std::string(4096, 'x'), 0x40540003U, "line 1: longer than 4096 octets"},
        {std::string("hostname x\n\0", 12), 0x40540002U, "line 2: not a text (octet 0x00)"},
        {"\x7F"
         "ELF\x02\x01",
         0x40540002U, "line 1: not a text (octet 0x7f)"},
        {std::string(134217729, '\n'), 0x40540002U,
         name + " is larger than 134217728 octets: File too large"},
    };
    for (const Case &refused : cases) {
        EXPECT_EQ(execute(refused.text), refused.code) << refused.reason;
        EXPECT_EQ(content(output()), name + ": " + refused.reason + "\n");
        EXPECT_EQ(content(running()), "hostname before\nend\n");
    }
    EXPECT_EQ(execute(directory_ / "none", output()), 0x40540002U);
    EXPECT_EQ(execute(directory_, output()), 0x40540002U);
    EXPECT_EQ(execute("", output()), 0x40540002U);
    EXPECT_EQ(content(running()), "hostname before\nend\n");
}

TEST_F(CliShell, AFailureOfTheDeviceIsAnErrorOfApplying) {
    file("platform.conf", "device_backend = remote\n");
    EXPECT_EQ(execute("hostname x\n"), 0x40540001U);
    EXPECT_EQ(content(output()), (directory_ / "new.cfg").string() + ": " +
                                     (directory_ / "platform.conf").string() +
                                     " line 1: device_backend = remote: must be one of embedded, "
                                     "frr, command; copies and saves fail\n");
    file("platform.conf", "");
    file("state/running.cfg", "damaged\n");
    EXPECT_EQ(execute("hostname x\n"), 0x40540001U);
    EXPECT_EQ(content(running()), "damaged\n");
    ::setenv("ULMO_STATE_DIR", (directory_ / "new.cfg" / "below").c_str(), 1);
    EXPECT_EQ(execute("hostname x\n"), 0x40540001U);
}

TEST_F(CliShell, NamesMayFillTheirFieldsWithoutATerminator) {
    const std::string configuration = long_path("c", CMDSHELL_FILE_SIZE);
    const std::string result = long_path("o", CMDSHELL_FILE_SIZE);
    std::filesystem::copy_file(file("short", "hostname long-name\n"), configuration);
    cmdshell_exec_params params;
    // the octets after the names must not be taken for a part of them
    std::memset(&params, 'z', sizeof(params));
    std::memcpy(params.file, configuration.data(), sizeof(params.file));
    std::memcpy(params.output, result.data(), sizeof(params.output));
    EXPECT_EQ(cmdshell_execute_cfg_file2(&params), 0U);
    EXPECT_EQ(content(running()), "hostname long-name\nend\n");
    EXPECT_EQ(content(result), configuration + ": applied\n");
}

TEST_F(CliShell, NothingIsWrittenThroughAnOutputFileThatSomebodyElsePlanted) {
    const auto victim = file("victim", "precious");
    std::filesystem::permissions(victim, std::filesystem::perms(0644));
    std::filesystem::create_symlink(victim, output());
    EXPECT_EQ(execute("hostname a\n"), 0U);
    EXPECT_EQ(content(victim), "precious");

    std::filesystem::remove(output());
    std::filesystem::create_symlink(directory_ / "made", output());
    EXPECT_EQ(execute("hostname b\n"), 0U);
    EXPECT_FALSE(std::filesystem::exists(directory_ / "made"));

    std::filesystem::remove(output());
    std::filesystem::create_hard_link(victim, output());
    EXPECT_EQ(execute("hostname c\n"), 0U);
    EXPECT_EQ(content(victim), "precious");
    EXPECT_EQ(permissions(victim), 0644U);

    std::filesystem::remove(output());
    ASSERT_EQ(::mkfifo(output().c_str(), 0600), 0);
    EXPECT_EQ(execute("hostname d\n"), 0U);

    if (::geteuid() == 0) {
        constexpr uid_t nobody = 65534;
        std::filesystem::remove(output());
        ASSERT_EQ(::chown(victim.c_str(), nobody, nobody), 0);
        std::filesystem::rename(victim, output());
        EXPECT_EQ(execute("hostname e\n"), 0U);
        EXPECT_EQ(content(output()), "precious");
        EXPECT_EQ(content(running()), "hostname e\nend\n");
    }
}

TEST_F(CliShell, WithoutAnOutputFileTheConfigurationIsAppliedAllTheSame) {
    EXPECT_EQ(execute(file("new.cfg", "hostname a\n"), ""), 0U);
    EXPECT_EQ(content(running()), "hostname a\nend\n");
    EXPECT_EQ(execute(file("new.cfg", "hostname b\n"), directory_ / "none" / "out"), 0U);
    EXPECT_EQ(content(running()), "hostname b\nend\n");
}

TEST_F(CliShell, AnOlderOutputIsReplacedAndMadePrivate) {
    file("out.txt", std::string(1000, 'x'));
    std::filesystem::permissions(output(), std::filesystem::perms(0666));
    EXPECT_EQ(execute("hostname a\n"), 0U);
    EXPECT_EQ(content(output()), (directory_ / "new.cfg").string() + ": applied\n");
    EXPECT_EQ(permissions(output()), 0600U);
}

TEST_F(CliShell, TheConfigurationFileMayBearTheOutputFilesName) {
    const std::string both = file("out.txt", "hostname same\n");
    EXPECT_EQ(execute(both, both), 0U);
    EXPECT_EQ(content(running()), "hostname same\nend\n");
}

TEST_F(CliShell, KnowsBothKindsOfUpdate) {
    EXPECT_EQ(cmdshell_notify_cfg_update(-1, 1, CMDSHELL_CFG_STARTUP_TO_RUNNING, 3), 0);
    EXPECT_EQ(cmdshell_notify_cfg_update(-1, 1, CMDSHELL_CFG_RUNNING_COPIED, 3), 0);
    EXPECT_NE(cmdshell_notify_cfg_update(-1, 1, 3, 3), 0);
}

class SystemManager : public DeviceTest {};

TEST_F(SystemManager, TellsTheDirectoryOfTheStartupConfiguration) {
    const char *first = warden_cli_dir_get(-1, 2);
    EXPECT_EQ(first, state().string());
    const auto other = directory_ / "other";
    ::setenv("ULMO_STATE_DIR", other.c_str(), 1);
    EXPECT_EQ(warden_cli_dir_get(-1, 2), other.string());
    EXPECT_EQ(first, state().string());
    ::setenv("ULMO_STATE_DIR", (file("plain", "") / "a" / "b").c_str(), 1);
    const std::string nowhere = std::string(warden_cli_dir_get(-1, 2)) + "/" WARDEN_STARTUP_FILE;
    EXPECT_FALSE(std::filesystem::exists(nowhere));
}

TEST_F(SystemManager, StoresTheStartupConfigurationOctetForOctet) {
    const std::string text = "! saved by hand\r\nvlan 9\r\n  name nine\r\n\r\nhostname nine";
    EXPECT_EQ(warden_cli_write_ascii_cfg(-1, file("new.cfg", text).c_str()), 0U);
    EXPECT_EQ(content(startup()), text);
    EXPECT_EQ(permissions(startup()), 0600U);
    EXPECT_EQ(warden_cli_write_ascii_cfg(-1, startup().c_str()), 0U);
    EXPECT_EQ(content(startup()), text);
    EXPECT_EQ(warden_cli_write_ascii_cfg(-1, file("new.cfg", "").c_str()), 0U);
    EXPECT_EQ(content(startup()), "");
}

TEST_F(SystemManager, EveryRefusalHasItsCodeAndChangesNothing) {
    ASSERT_EQ(warden_cli_write_ascii_cfg(-1, file("new.cfg", "hostname before\n").c_str()), 0U);
    EXPECT_EQ(warden_cli_write_ascii_cfg(-1, file("new.cfg", "hostname a\nfoo\n").c_str()),
              ulmo::warden_err_bad_line);
    EXPECT_EQ(warden_cli_write_ascii_cfg(-1, file("new.cfg", "\x1F\x8B").c_str()),
              ulmo::warden_err_bad_file);
    EXPECT_EQ(warden_cli_write_ascii_cfg(-1, (directory_ / "none").c_str()),
              ulmo::warden_err_bad_file);
    EXPECT_EQ(warden_cli_write_ascii_cfg(-1, directory_.c_str()), ulmo::warden_err_bad_file);
    const auto good = file("new.cfg", "hostname a\n");
    file("platform.conf", "device_backend = remote\n");
    EXPECT_EQ(warden_cli_write_ascii_cfg(-1, good.c_str()), ulmo::warden_err_store);
    EXPECT_EQ(content(startup()), "hostname before\n");
}

// The program as it is installed.
class CmdshellProgram : public DeviceTest {
  protected:
    struct Result {
        int status; // exit status, or minus the signal
        std::string output;
        std::string errors;
    };

    // Runs cmdshell with standard input from a file of that text, and standard output to `sink`
    // unless that is empty.
    Result run(const std::vector<std::string> &arguments, const std::string &input = "",
               const std::string &sink = "") const {
        const auto in = file("stdin", input);
        const std::string out = sink.empty() ? (directory_ / "stdout").string() : sink;
        std::string command = "exec " + host_test::quoted_program("cmdshell");
        for (const std::string &argument : arguments) {
            command += " '" + argument + "'";
        }
        command += " <" + in.string() + " >" + out + " 2>" + (directory_ / "stderr").string();
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status),
                sink.empty() ? content(out) : "", content(directory_ / "stderr")};
    }
    Result command(const std::string &text) const { return run({"-c", text}); }

    static void expect_result(const Result &result, int status, const std::string &output,
                              const std::string &errors) {
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.output, output);
        EXPECT_EQ(result.errors, errors);
    }
};

TEST_F(CmdshellProgram, ShowsAndCopies) {
    expect_result(command("show running-config"), 0, factory_text, "");
    expect_result(command("show startup-config"), 1, "",
                  "cmdshell: show startup-config: there is no startup configuration\n");
    expect_result(
        command("copy startup-config running-config"), 1, "",
        "cmdshell: copy startup-config running-config: there is no startup configuration\n");
    expect_result(command("configure " + file("a file.cfg", "hostname a\n").string()), 0, "", "");
    expect_result(command("  copy\trunning-config   startup-config "), 0, "", "");
    expect_result(command("show startup-config"), 0, "hostname a\nend\n", "");
    expect_result(command("configure " + file("b.cfg", "vlan 2\nhostname b\n").string()), 0, "",
                  "");
    expect_result(command("copy startup-config running-config"), 0, "", "");
    expect_result(command("show running-config"), 0, "hostname a\nvlan 2\nend\n", "");
}

TEST_F(CmdshellProgram, SaysWhyACommandFailed) {
    expect_result(command("shew"), 1, "",
                  "cmdshell: shew: unknown command; 'help' lists the commands\n");
    expect_result(command(""), 1, "", "cmdshell: : unknown command; 'help' lists the commands\n");
    expect_result(command("show running-config x"), 1, "",
                  "cmdshell: show running-config x: unknown command; 'help' lists the commands\n");
    expect_result(command("configure"), 1, "", "cmdshell: configure: a file name is missing\n");
    const std::string bad = "configure " + file("bad.cfg", "hostname x\nfoo\n").string();
    expect_result(command(bad), 1, "", "cmdshell: " + bad + ": line 2: unknown statement 'foo'\n");
    expect_result(command("show running-config"), 0, factory_text, "");
    file("platform.conf", "device_backend = remote\n");
    expect_result(command("show running-config"), 1, "",
                  "cmdshell: show running-config: " + (directory_ / "platform.conf").string() +
                      " line 1: device_backend = remote: must be one of embedded, frr, command; "
                      "copies and saves fail\n");
}

TEST_F(CmdshellProgram, ShowsTheSettingsAndWhatIsWrongWithThem) {
    const Result defaults = command("show settings");
    EXPECT_EQ(defaults.status, 0);
    EXPECT_EQ(defaults.errors, "");
    EXPECT_NE(defaults.output.find("\n#startup_copy = backup.cfg\n"), std::string::npos);
    EXPECT_NE(defaults.output.find("\n#wwn =\n"), std::string::npos);
    const auto path = file(
        "platform.conf", "startup_copy = a\nstartup_copy = b\nfabric_auth_passphrase = hush-hush\n"
                         "fabric_member = x auth-passphrase=hush-hush\n"
                         "device_backend = remote\nhistori = all\nhistory = erors\n");
    const Result set = command("show settings");
    EXPECT_EQ(set.status, 0);
    for (const char *lines :
         {"\nstartup_copy = a\nstartup_copy = b\n", "\nfabric_auth_passphrase = ...\n",
          "\nfabric_member = ...\n", "\ndevice_backend = (bad: copies and saves fail)\n",
          "\n#history = errors\n"}) {
        EXPECT_NE(set.output.find(lines), std::string::npos) << lines;
    }
    EXPECT_EQ(set.output.find("hush"), std::string::npos);
    EXPECT_EQ(set.errors,
              "cmdshell: " + path.string() +
                  " line 5: device_backend = remote: must be one of embedded, frr, command; copies "
                  "and saves fail\n" +
                  "cmdshell: " + path.string() +
                  " line 6: histori: unknown setting; the line is ignored\n" +
                  "cmdshell: " + path.string() +
                  " line 7: history = erors: must be one of all, errors, off; the default errors "
                  "is used\n");
}

TEST_F(CmdshellProgram, TellsWhatHappenedUnderSettingsThatCantBeRead) {
    file("run/last-save", "saved");
    std::filesystem::create_directory(directory_ / "platform.conf");
    expect_result(command("show last-save"), 0, "saved\n", "");
    const std::string why = (directory_ / "platform.conf").string() +
                            " can't be read: Is a directory; copies and saves fail\n";
    expect_result(command("show running-config"), 1, "", "cmdshell: show running-config: " + why);
    EXPECT_EQ(command("show settings").errors, "cmdshell: " + why);
}

TEST_F(CmdshellProgram, ListsItsCommands) {
    const Result result = command("help");
    EXPECT_EQ(result.status, 0);
    for (const char *words :
         {"show running-config ", "show startup-config ", "show settings ",
          "copy running-config startup-config ", "copy startup-config running-config ",
          "configure FILE ", "help ", "exit "}) {
        EXPECT_NE(("\n" + result.output).find(std::string("\n") + words), std::string::npos)
            << words;
    }
}

TEST_F(CmdshellProgram, RefusesAWrongCall) {
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{"-c"},
                                                      {"-x"},
                                                      {"show running-config"},
                                                      {"-c", "help", "more"},
                                                      {"-x", "help"}}) {
        expect_result(run(arguments), 2, "", "usage: cmdshell [-c COMMAND]\n");
    }
}

TEST_F(CmdshellProgram, ReadsCommandsUntilOneFails) {
    expect_result(run({}, "\n copy running-config startup-config\r\nshow startup-config"), 0,
                  factory_text, "");
    expect_result(run({}, "shew\nshow running-config\n"), 1, "",
                  "cmdshell: shew: unknown command; 'help' lists the commands\n");
    expect_result(run({}, "exit\nshew\n"), 0, "", "");
    expect_result(run({}), 0, "", "");
}

TEST_F(CmdshellProgram, PrintsAStartupConfigurationAsItIsWhereverTheOutputGoes) {
    std::string text = "hostname a\n";
    // more than a pipe holds, and more than the copy moves in one step
    for (unsigned line = 0; text.size() < 300'000; ++line) {
        text += "! comment " + std::to_string(line) + "\n";
    }
    const auto appended = file("appended", "before\n");
    std::ofstream(startup(), std::ios::binary) << text;
    EXPECT_EQ(command("show startup-config").output, text);
    expect_result(run({"-c", "show startup-config"}, "", ">" + appended.string()), 0, "", "");
    EXPECT_EQ(content(appended), "before\n" + text);
    expect_result(
        run({"-c", "show startup-config"}, "", "/dev/full"), 1, "",
        "cmdshell: show startup-config: cannot write the output: No space left on device\n");
    expect_result(run({"-c", "show startup-config"}, "", "&-"), 1, "",
                  "cmdshell: show startup-config: cannot write the output: Bad file descriptor\n");
}

TEST_F(CmdshellProgram, OutputThatGetsLostIsAFailure) {
    expect_result(
        run({"-c", "show running-config"}, "", "/dev/full"), 1, "",
        "cmdshell: show running-config: cannot write the output: No space left on device\n");
    expect_result(run({"-c", "help"}, "", "/dev/full"), 1, "",
                  "cmdshell: help: cannot write the output: No space left on device\n");
    expect_result(run({"-c", "show running-config"}, "", "&-"), 1, "",
                  "cmdshell: show running-config: cannot write the output: Bad file descriptor\n");
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ASSERT_EQ(::close(ends[0]), 0);
    // sh(1) takes one digit; the present descriptor of that number is restored
    constexpr int sink = 9;
    const int holder = ::fcntl(sink, F_DUPFD_CLOEXEC, sink + 1);
    ASSERT_EQ(::dup2(ends[1], sink), sink);
    const Result result = run({"-c", "show running-config"}, "", "&" + std::to_string(sink));
    if (holder >= 0) {
        ASSERT_EQ(::dup2(holder, sink), sink);
        ASSERT_EQ(::close(holder), 0);
    } else {
        ASSERT_EQ(::close(sink), 0);
    }
    if (ends[1] != sink) {
        ASSERT_EQ(::close(ends[1]), 0);
    }
    expect_result(result, 1, "",
                  "cmdshell: show running-config: cannot write the output: Broken pipe\n");
}

} // namespace
