// The worker: its use of files, shell and system manager for each kind of copy, and the one status
// that it reports.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/cli_shell.h"
#include "tests/unit/fakes/execution_fixture.h"
#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_cli_shell.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_execute.h"
#include "tests/unit/fakes/fake_msgbus.h"
#include "tests/unit/fakes/fake_system_manager.h"
#include "tests/unit/fakes/fake_tftp.h"
#include "tests/unit/fakes/fake_time.h"

namespace {

const std::string shell_endpoint = "bind 4 -1 1,0,1024,26,0,15 req-resp = ";
const Lines connected = {"chassis type", "tftp timeout 20", "tftp connect 10.0.0.1 -1"};

class Worker : public ExecutionTest {
  protected:
    void SetUp() override {
        ExecutionTest::SetUp();
        fake_tftp.remote_file = "hostname remote\n";
        fake_execute.output = "hostname running\n";
    }
    // Runs the worker's body. Its standard error is then in errors_.
    void run(const std::unique_ptr<ccCopyEntry> &request) {
        ::testing::internal::CaptureStderr();
        copy_function(request.get());
        errors_ = ::testing::internal::GetCapturedStderr();
    }
    std::string errors_;
};

// --- names

struct Name {
    const char *name;
    const char *base;
    const char *directory; // null: no line about a directory
};

class SplitName : public Worker, public ::testing::WithParamInterface<Name> {};

TEST_P(SplitName, IntoDirectoryAndBase) {
    // downloads and does nothing more
    const auto request = copy_request(COPY_FILE_NETWORK, COPY_FILE_FABRIC_STARTUP);
    put_text(request->ccCopyFileName, GetParam().name);
    fake_tftp.remote_file.reset();
    run(request);
    EXPECT_EQ(journal.take(), (connected + Lines{std::string("tftp get ") + GetParam().name + " " +
                                                 GetParam().base + " 0 default"}) +
                                  status_report(100, status_word(0)));
    EXPECT_EQ(text_of(request->ccCopySrcFileName), GetParam().base);
    const auto tells_directory = [](const EvtraceFake::Record &record) {
        return record.text.find("Retrieved") != std::string::npos;
    };
    if (GetParam().directory == nullptr) {
        EXPECT_TRUE(std::ranges::none_of(fake_evtrace.history, tells_directory));
    } else {
        EXPECT_LOGGED(EVTRACE_DEBUG,
                      std::string("copy_function : Retrieved the Directory name = ") +
                          GetParam().directory + "\n");
    }
}
INSTANTIATE_TEST_SUITE_P(
    Worker, SplitName,
    ::testing::Values(Name{"/a/b/c.cfg", "c.cfg", "/a/b"}, Name{"/c.cfg", "c.cfg", "."},
                      Name{"c.cfg", "c.cfg", nullptr}, Name{"dir\\c.cfg", "c.cfg", nullptr},
                      Name{"dir/c.cfg", "c.cfg", nullptr}, Name{"a/b\\c", "b\\c", nullptr},
                      Name{"a\\b/c", "c", nullptr}, Name{"/a\\b", "a\\b", "."},
                      Name{"/a/b\\c", "b\\c", "/a"}, Name{"//c", "c", "/"},
                      Name{"a\\b\\c", "c", nullptr}));

// --- downloads

TEST_F(Worker, FailedDownload) {
    for (const int32_t dest : {COPY_FILE_STARTUP, COPY_FILE_RUNNING, COPY_FILE_FABRIC_STARTUP}) {
        const auto request = copy_request(COPY_FILE_NETWORK, dest);
        fake_tftp.transfer_result = -210;
        fake_evtrace.clear();
        fake_msgbus.next_handle = 100;
        run(request);
        EXPECT_EQ(journal.take(),
                  (connected + Lines{"tftp get dir/remote.cfg remote.cfg 0 default"}) +
                      status_report(100, status_word(3)));
        EXPECT_LOGGED(EVTRACE_ERROR, "copy_function : Download of file dir/remote.cfg from n/w "
                                     "server failed. (error = 3) \n");
        EXPECT_EQ(errors_, "");
        EXPECT_EQ(files(), Lines{});
    }
}

TEST_F(Worker, DownloadToStartup) {
    const auto request = copy_request(COPY_FILE_NETWORK, COPY_FILE_STARTUP);
    run(request);
    EXPECT_EQ(
        journal.take(),
        (connected + Lines{"tftp get dir/remote.cfg remote.cfg 0 default", shell_endpoint + "100",
                           "write startup 100 " + path("system.cfg"), "unbind 100 0"}) +
            status_report(101, status_word(0)));
    EXPECT_EQ(fake_system_manager.written, "hostname remote\n");
    EXPECT_EQ(files(), Lines{"system.cfg"});
    EXPECT_EQ(contents("system.cfg"), "hostname remote\n");
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  "copy_function : File to copy to startup is " + path("system.cfg") + "\n");
    EXPECT_EQ(errors_, "copy_function : dir " + directory() + "\ncopy_function : full filename " +
                           path("remote.cfg") + "\n");
}

TEST_F(Worker, DownloadToStartupThatCannotBeRenamed) {
    const auto request = copy_request(COPY_FILE_NETWORK, COPY_FILE_STARTUP);
    fake_tftp.remote_file.reset();
    run(request);
    EXPECT_EQ(journal.take(), (connected + Lines{"tftp get dir/remote.cfg remote.cfg 0 default"}) +
                                  status_report(100, status_word(1)));
    EXPECT_EQ(errors_, "copy_function : dir " + directory() + "\ncopy_function : full filename " +
                           path("remote.cfg") +
                           "\nCould not rename the file: No such file or directory\n");
}

TEST_F(Worker, DownloadToStartupWithoutAnEndpoint) {
    const auto request = copy_request(COPY_FILE_NETWORK, COPY_FILE_STARTUP);
    fake_msgbus.bind_errors = {ENOENT};
    run(request);
    EXPECT_EQ(journal.take(), (connected + Lines{"tftp get dir/remote.cfg remote.cfg 0 default",
                                                 shell_endpoint + "-1"}) +
                                  status_report(100, status_word(1)));
    EXPECT_TRUE(errors_.ends_with("\nUnable to run: No such file or directory\n")) << errors_;
    EXPECT_EQ(files(), Lines{"system.cfg"});
}

TEST_F(Worker, DownloadToStartupThatIsRefused) {
    const auto request = copy_request(COPY_FILE_NETWORK, COPY_FILE_STARTUP);
    fake_system_manager.write_result = 0x401E0007;
    run(request);
    EXPECT_EQ(
        journal.take(),
        (connected + Lines{"tftp get dir/remote.cfg remote.cfg 0 default", shell_endpoint + "100",
                           "write startup 100 " + path("system.cfg"), "unbind 100 0"}) +
            status_report(101, status_word(1)));
    EXPECT_LOGGED(EVTRACE_ERROR, "copy_function : Error copying file into startup (ret_code = " +
                                     std::to_string(0x401E0007) + ": syserr_format 0x401e0007\n");
    EXPECT_EQ(files(), Lines{"system.cfg"}); // left in place
}

TEST_F(Worker, DownloadToRunning) {
    const auto request = copy_request(COPY_FILE_NETWORK, COPY_FILE_RUNNING);
    put_text(request->ccCopyFileName, "/a/remote.cfg");
    run(request);
    EXPECT_EQ(journal.take(),
              (connected + Lines{"tftp get /a/remote.cfg remote.cfg 0 default",
                                 "apply " + path("remote.cfg") + " to /tmp/configcopy.txt"}) +
                  status_report(100, status_word(0)));
    EXPECT_EQ(fake_cli_shell.applied, "hostname remote\n");
    EXPECT_EQ(files(), Lines{});
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  "copy_function : File to be executed  " + path("remote.cfg") + "\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : Return from cmdshell_execute_cfg_file2 is 0\n");
    EXPECT_EQ(errors_, "copy_function : dir " + directory() + "\ncopy_function : full filename " +
                           path("remote.cfg") +
                           "\ncopy_function : Return from cmdshell_execute_cfg_file2 is 0\n");
}

// All octets of the shell's parameter block except the two names are zero.
std::string parameter_block(const std::string &file) {
    std::string block(1044, '\0');
    block.replace(4, std::min<std::size_t>(file.size(), 128), file, 0, 128);
    const std::string output = "/tmp/configcopy.txt";
    return block.replace(388, output.size(), output);
}

TEST_F(Worker, ParameterBlockOfTheShell) {
    run(copy_request(COPY_FILE_NETWORK, COPY_FILE_RUNNING));
    EXPECT_EQ(hex(fake_cli_shell.parameters.data(), fake_cli_shell.parameters.size()),
              hex(parameter_block(path("remote.cfg")).data(), sizeof(cmdshell_exec_params)));

    // cut at the field's width, without a terminator
    fake_system_manager.directory = "/" + std::string(200, 'd');
    run(copy_request(COPY_FILE_STARTUP, COPY_FILE_RUNNING));
    EXPECT_EQ(
        hex(fake_cli_shell.parameters.data(), fake_cli_shell.parameters.size()),
        hex(parameter_block("/" + std::string(127, 'd')).data(), sizeof(cmdshell_exec_params)));
    journal.take();
}

struct ShellResult {
    uint32_t result;
    int32_t status;
};

class ShellFails : public Worker, public ::testing::WithParamInterface<ShellResult> {
  protected:
    static std::string in_decimal() {
        return std::to_string(static_cast<int32_t>(GetParam().result));
    }
    static std::string in_words() {
        char text[64];
        snprintf(text, sizeof text, "syserr_format 0x%08x", GetParam().result);
        return text;
    }
};

TEST_P(ShellFails, WhileADownloadIsApplied) {
    fake_cli_shell.apply_result = GetParam().result;
    run(copy_request(COPY_FILE_NETWORK, COPY_FILE_RUNNING));
    EXPECT_EQ(journal.take(),
              (connected + Lines{"tftp get dir/remote.cfg remote.cfg 0 default",
                                 "apply " + path("remote.cfg") + " to /tmp/configcopy.txt"}) +
                  status_report(100, status_word(GetParam().status)));
    EXPECT_EQ(files(), Lines{});
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : Return from cmdshell_execute_cfg_file2 is " +
                                     in_decimal() + "\n");
    EXPECT_LOGGED(EVTRACE_ERROR, "copy_function : cmdshell_execute_cfg_file2 : Copy from n/w to "
                                 "running failed (ret_code = " +
                                     in_decimal() + ") : " + in_words() + "\n");
    EXPECT_TRUE(errors_.ends_with("\ncopy_function : Return from cmdshell_execute_cfg_file2 is " +
                                  in_decimal() + "\n"))
        << errors_;
}

TEST_P(ShellFails, WhileTheStartupConfigurationIsApplied) {
    fake_cli_shell.apply_result = GetParam().result;
    run(copy_request(COPY_FILE_STARTUP, COPY_FILE_RUNNING));
    EXPECT_EQ(journal.take(),
              (Lines{shell_endpoint + "100", "startup directory 100 2",
                     "apply /startup/system.cfg to /tmp/configcopy.txt", "unbind 100 0"}) +
                  status_report(101, status_word(GetParam().status)));
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : Return from cmdshell_execute_cfg_file2 is " +
                                     in_decimal() + "\n");
    EXPECT_LOGGED(EVTRACE_ERROR, "copy_function : cmdshell_execute_cfg_file2 : Copy from startup "
                                 "(file = /startup/system.cfg) to running "
                                 "failed (ret_code = " +
                                     in_decimal() + ") : " + in_words() + ".\n");
}
INSTANTIATE_TEST_SUITE_P(Worker, ShellFails,
                         ::testing::Values(ShellResult{0x40540001, 7}, ShellResult{0x40540002, 5},
                                           ShellResult{0x40540003, 7}, ShellResult{0x40540000, 1},
                                           ShellResult{0x40540004, 1}, ShellResult{1, 1},
                                           ShellResult{0xFFFFFFFF, 1}));

TEST_F(Worker, DownloadToAnotherDestinationEndsThere) {
    run(copy_request(COPY_FILE_NETWORK, COPY_FILE_ALL_STARTUP));
    EXPECT_EQ(journal.take(), (connected + Lines{"tftp get dir/remote.cfg remote.cfg 0 default"}) +
                                  status_report(100, status_word(0)));
    EXPECT_EQ(files(), Lines{"remote.cfg"});
}

// If the source is the network, the worker downloads, whatever the destination.
TEST_F(Worker, NetworkToNetworkDownloads) {
    run(copy_request(COPY_FILE_NETWORK, COPY_FILE_NETWORK));
    EXPECT_EQ(journal.take(), (connected + Lines{"tftp get dir/remote.cfg remote.cfg 0 default"}) +
                                  status_report(100, status_word(0)));
}

// --- uploads

TEST_F(Worker, UploadOfTheRunningConfiguration) {
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    Tracing trace;
    run(request);
    EXPECT_EQ(journal.take(),
              (Lines{shell_endpoint + "100",
                     "execute -1 fd -1 /ulmo/bin/cmdshell [-c] [show running-config] default",
                     "shell notified 100 1 2 3", "unbind 100 0"} +
               connected + Lines{"tftp put " + path("remote.cfg") + " dir/remote.cfg 0 default"}) +
                  status_report(101, status_word(0)));
    EXPECT_EQ(fake_tftp.uploaded, "hostname running\n");
    EXPECT_EQ(files(), Lines{});
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : ret val = 0x0\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : notifiy copy running <file> done\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : Copying done with SUCCESS\n");
    EXPECT_EQ(trace.take().back(), "copy_function(#):copy_function: ccCopySrcFileName " +
                                       path("remote.cfg") + " from running to network\n");
    EXPECT_EQ(errors_, "");
}

TEST_F(Worker, UploadOfTheStartupConfiguration) {
    const auto request = copy_request(COPY_FILE_STARTUP, COPY_FILE_NETWORK);
    put_text(request->ccCopyFileName, "/a/b/saved.cfg");
    Tracing trace;
    run(request);
    EXPECT_EQ(journal.take(),
              (Lines{shell_endpoint + "100",
                     "execute -1 fd -1 /ulmo/bin/cmdshell [-c] [show startup-config] default",
                     "unbind 100 0"} +
               connected + Lines{"tftp put " + path("saved.cfg") + " /a/b/saved.cfg 0 default"}) +
                  status_report(101, status_word(0)));
    EXPECT_EQ(fake_tftp.uploaded, "hostname running\n");
    EXPECT_EQ(files(), Lines{});
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : ret val = 0x0\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : Copying done with SUCCESS\n");
    EXPECT_EQ(trace.take().back(), "copy_function(#):copy_function: ccCopySrcFileName " +
                                       path("saved.cfg") + " from startup to network\n");
}

TEST_F(Worker, UploadWithoutAnEndpointTellsTheShellNothing) {
    fake_msgbus.bind_errors = {ENOENT};
    run(copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK));
    Lines calls = journal.take();
    std::erase(calls, "unbind -1 0"); // whether it is closed does not matter
    EXPECT_EQ(calls,
              (Lines{shell_endpoint + "-1",
                     "execute -1 fd -1 /ulmo/bin/cmdshell [-c] [show running-config] default"} +
               connected + Lines{"tftp put " + path("remote.cfg") + " dir/remote.cfg 0 default"}) +
                  status_report(100, status_word(0)));
    EXPECT_NOT_LOGGED(EVTRACE_DEBUG, "copy_function : notifiy copy running <file> done\n");
}

TEST_F(Worker, DumpThatCannotBeOpened) {
    for (const int32_t source : {COPY_FILE_RUNNING, COPY_FILE_STARTUP}) {
        std::filesystem::create_directory("remote.cfg");
        fake_evtrace.clear();
        fake_msgbus.next_handle = 100;
        run(copy_request(source, COPY_FILE_NETWORK));
        EXPECT_EQ(journal.take(),
                  Lines{shell_endpoint + "100"} + status_report(101, status_word(1)));
        EXPECT_EQ(errors_, "copy_function : could not open remote.cfg, errno = 0x15\n");
        EXPECT_LOGGED(EVTRACE_ERROR, "copy_function : could not open remote.cfg, errno = 0x15\n");
    }
}

TEST_F(Worker, ShellProgramThatFails) {
    for (const auto &[source, word] :
         {std::pair{COPY_FILE_RUNNING, "running"}, {COPY_FILE_STARTUP, "startup"}}) {
        for (const auto &[result, shown] :
             {std::pair{0x100, "0x100"}, {-1, "0xffffffff"}, {9, "0x9"}}) {
            fake_execute.result = result;
            fake_evtrace.clear();
            fake_msgbus.next_handle = 100;
            run(copy_request(source, COPY_FILE_NETWORK));
            EXPECT_EQ(journal.take(),
                      (Lines{shell_endpoint + "100",
                             std::string("execute -1 fd -1 /ulmo/bin/cmdshell [-c] [show ") + word +
                                 "-config] default"}) +
                          status_report(101, status_word(1)));
            EXPECT_LOGGED(EVTRACE_DEBUG, std::string("copy_function : ret val = ") + shown + "\n");
            EXPECT_LOGGED(EVTRACE_ERROR, std::string("copy_function : Show ") + word +
                                             " config failed, ret_val = " + shown + "\n");
        }
    }
}

TEST_F(Worker, FailedUpload) {
    for (const int32_t source : {COPY_FILE_RUNNING, COPY_FILE_STARTUP}) {
        fake_tftp.transfer_result = -3;
        fake_evtrace.clear();
        run(copy_request(source, COPY_FILE_NETWORK));
        const Lines calls = journal.take();
        ASSERT_GT(calls.size(), 2U);
        EXPECT_TRUE(calls[calls.size() - 2].ends_with(" fe000000 28 10273 " + status_word(4)))
            << calls[calls.size() - 2];
        EXPECT_EQ(fake_tftp.uploaded, "hostname running\n");
        EXPECT_EQ(files(), Lines{}); // the dump is removed, successful or not
        EXPECT_LOGGED(EVTRACE_ERROR, "copy_function : Upload to n/w failed with code = 4 \n");
        EXPECT_NOT_LOGGED(EVTRACE_DEBUG, "copy_function : Copying done with SUCCESS\n");
    }
}

// The dump is complete and closed before it is uploaded.
TEST_F(Worker, DumpIsClosedBeforeTheUpload) {
    bool looked = false;
    journal.on_line = [&](const std::string &line) {
        if (!line.starts_with("tftp put")) {
            return;
        }
        looked = true;
        for (const auto &descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone; // the descriptor used for this check
            EXPECT_NE(std::filesystem::read_symlink(descriptor, gone), path("remote.cfg"));
        }
    };
    run(copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK));
    EXPECT_TRUE(looked);
    journal.take();
}

// The dump replaces any file that had its name before.
TEST_F(Worker, SpaceOfTheDumpIsGivenBackAfterTheReport) {
    run(copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK));
    EXPECT_EQ(files(), Lines{});
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    EXPECT_TRUE(std::any_of(begin(descriptors), end(descriptors),
                            [this](const std::filesystem::path &descriptor) {
                                std::error_code gone; // the iterator's own
                                return std::filesystem::read_symlink(descriptor, gone) ==
                                       path("remote.cfg") + " (deleted)";
                            }))
        << "the worker waits for the file system before it reports";
    journal.take();
}

TEST_F(Worker, DumpReplacesAnOlderFile) {
    std::ofstream("remote.cfg")
        << "an older and much longer file than the dump of the configuration\n";
    run(copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK));
    EXPECT_EQ(fake_tftp.uploaded, "hostname running\n");
    journal.take();
}

TEST_F(Worker, UploadOfAnotherSource) {
    const auto request = copy_request(COPY_FILE_FABRIC_STARTUP, COPY_FILE_NETWORK);
    put_text(request->ccCopySrcFileName, "left by the allocator");
    std::ofstream("left by the allocator") << "text";
    run(request);
    EXPECT_EQ(journal.take(), (Lines{shell_endpoint + "100"} + connected +
                               Lines{"tftp put  dir/remote.cfg 0 default"}) +
                                  status_report(101, status_word(0)));
    EXPECT_EQ(files(), Lines{"left by the allocator"});
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : Copying done with SUCCESS\n");
}

// --- local copies

TEST_F(Worker, StartupToRunning) {
    run(copy_request(COPY_FILE_STARTUP, COPY_FILE_RUNNING));
    EXPECT_EQ(journal.take(), (Lines{shell_endpoint + "100", "startup directory 100 2",
                                     "apply /startup/system.cfg to /tmp/configcopy.txt",
                                     "shell notified 100 1 1 3", "unbind 100 0"}) +
                                  status_report(101, status_word(0)));
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  "copy_function : Copying startup (file = /startup/system.cfg) to running\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : Return from cmdshell_execute_cfg_file2 is 0\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : Copying done with SUCCESS\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "copy_function : notifiy copy start running done\n");
    EXPECT_EQ(errors_, "");
}

TEST_F(Worker, StartupToRunningWithoutAnEndpoint) {
    fake_msgbus.bind_errors = {ECONNREFUSED};
    run(copy_request(COPY_FILE_STARTUP, COPY_FILE_RUNNING));
    EXPECT_EQ(journal.take(), Lines{shell_endpoint + "-1"} + status_report(100, status_word(1)));
    EXPECT_EQ(errors_, "Unable to run: Connection refused\n");
}

TEST_F(Worker, AnyOtherLocalPairDoesNothing) {
    for (int32_t source = 2; source <= 8; ++source) {
        for (int32_t dest = 2; dest <= 8; ++dest) {
            if (source == COPY_FILE_STARTUP && dest == COPY_FILE_RUNNING) {
                continue;
            }
            SCOPED_TRACE(std::to_string(source) + " to " + std::to_string(dest));
            fake_msgbus.next_handle = 100;
            run(copy_request(source, dest));
            EXPECT_EQ(journal.take(), status_report(100, status_word(0)));
        }
    }
    EXPECT_EQ(files(), Lines{});
}

// --- trace

TEST_F(Worker, RequestIsTraced) {
    Tracing trace;
    fake_agent.start.tv_sec = TimeFake::start - 100;
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_STARTUP, COPY_PROTO_SCP);
    put_full_credentials(*request);
    request->ccCopyTimeStarted = {TimeFake::start - 1, 500000};
    run(request);
    journal.take();
    EXPECT_EQ(trace.take(), Lines{"copy_function(#):copy_function: Copy started with : "
                                  "ccCopyServerAddressRev1 = 10.0.0.1,ccCopyFileName= "
                                  "dir/remote.cfg, ccCopyUserName=" +
                                  full_user +
                                  ",ccCopyTimeStarted=9950 ccCopyProtocol = 4 ccCopySourceFileType "
                                  "= 4, ccCopyDestFileType= 3, "
                                  "ccCopyServerAddressType= 1\n"});
}

// --- status report

class Report : public ModuleTest {};

TEST_F(Report, CarriesTheStatusInHostOrder) {
    for (const int32_t status : {0, 1, 5, 7, -1, 0x01020304}) {
        fake_msgbus.next_handle = 100;
        fake_evtrace.clear();
        send_status_2_parent(status);
        EXPECT_EQ(journal.take(), status_report(100, status_word(status)));
        EXPECT_EQ(fake_evtrace.history, (std::vector<EvtraceFake::Record>{
                                            {EVTRACE_ERROR, "send_status_2_parent: status is " +
                                                                std::to_string(status) + "\n"}}));
    }
}

TEST_F(Report, HandleZeroIsGood) {
    fake_msgbus.next_handle = 0;
    send_status_2_parent(0);
    EXPECT_EQ(journal.take(), status_report(0, status_word(0)));
}

TEST_F(Report, FailedSendIsNotRepeated) {
    fake_msgbus.send_errors = {ECONNREFUSED};
    send_status_2_parent(5);
    EXPECT_EQ(journal.take(), status_report(100, status_word(5)));
    EXPECT_LOGGED(EVTRACE_ERROR, "send_status_2_parent: msgbus_send failed. errno 111\n");
}

const std::string unbound = "bind 1 -1 1,0,1024,0,0,15 config_copy_task = -1";

TEST_F(Report, BindIsTriedAgain) {
    fake_msgbus.bind_errors = {EADDRINUSE, ENOENT, 0};
    send_status_2_parent(5);
    EXPECT_EQ(journal.take(),
              (Lines{unbound, "sleep 2", unbound, "sleep 2"}) + status_report(100, status_word(5)));
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{
                  {EVTRACE_ERROR, "send_status_2_parent: status is 5\n"},
                  {EVTRACE_ERROR, "send_status_2_parent: msgbus_bind failed. errno 98\n"},
                  {EVTRACE_ERROR, "send_status_2_parent: msgbus_bind failed. errno 2\n"}}));
}

TEST_F(Report, TenBindsAndNoMore) {
    fake_msgbus.bind_errors.assign(10, ENOENT);
    send_status_2_parent(0);
    Lines expected;
    for (int attempt = 0; attempt < 10; ++attempt) {
        expected = expected + Lines{unbound, "sleep 2"};
    }
    EXPECT_EQ(journal.take(), expected); // and nothing is sent
    EXPECT_EQ(
        fake_evtrace.count(EVTRACE_ERROR, "send_status_2_parent: msgbus_bind failed. errno 2\n"),
        11);
}

TEST_F(Report, TenthBindCanWork) {
    fake_msgbus.bind_errors.assign(9, ENOENT);
    fake_msgbus.bind_errors.push_back(0);
    send_status_2_parent(0);
    const Lines calls = journal.take();
    EXPECT_EQ(std::ranges::count(calls, "sleep 2"), 9);
    EXPECT_EQ(Lines(calls.end() - 3, calls.end()), status_report(100, status_word(0)));
}

} // namespace
