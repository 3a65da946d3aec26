// File transfers within a VRF: the same scripts with one more argument, and TFTP by a program of
// its own that a shell runs.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>

#include "tests/unit/fakes/execution_fixture.h"
#include "tests/unit/fakes/fake_agent_extension.h"
#include "tests/unit/fakes/fake_chassis.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_execute.h"
#include "tests/unit/fakes/fake_process.h"

namespace {

using Records = std::vector<EvtraceFake::Record>;
const std::string function = "do_nw_upload_download_on_vrf";

class VrfTransfer : public ExecutionTest {
  protected:
    static std::unique_ptr<ccCopyEntry> request(int32_t protocol) {
        auto record = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK, protocol);
        put_text(record->ccCopySrcFileName, "/tmp/a");
        put_text(record->ccCopyFileName, "b");
        return record;
    }
    // Runs one transfer. Its standard error is then in errors_, and its calls in calls_.
    int32_t run(int32_t direction, const std::unique_ptr<ccCopyEntry> &record) {
        char work_dir[256] = "unused";
        fake_evtrace.clear();
        ::testing::internal::CaptureStderr();
        const int32_t result = do_nw_upload_download_on_vrf(direction, work_dir, record.get());
        errors_ = ::testing::internal::GetCapturedStderr();
        calls_ = journal.take();
        return result;
    }

    std::string errors_;
    Lines calls_;
};

// --- the VRF

TEST_F(VrfTransfer, VrfOfTheRequest) {
    EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_RCP)), 1);
    EXPECT_EQ(calls_, Lines{"vrf id red"});
    EXPECT_EQ(fake_evtrace.history,
              (Records{{EVTRACE_DEBUG, function + " : vrf name red vrf_id 2\n"}}));
    EXPECT_EQ(errors_, "");
}

TEST_F(VrfTransfer, ManagementIsTheDefaultVrf) {
    fake_agent_extension.vrf_status = 3;
    fake_chassis.vrf_id = -1; // passed on unchanged
    EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_TFTP)), 0);
    EXPECT_EQ(
        calls_,
        (Lines{"vrf id management",
               "system /ulmo/bin/brix-tftp 1 10.0.0.1 69 \"/tmp/a\" \"b\" 1 management default"}));
    EXPECT_LOGGED(EVTRACE_ERROR, function + " : get vrf failed with 3\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, function + " : vrf name management vrf_id -1\n");
}

TEST_F(VrfTransfer, LongVrfNameIsCut) {
    fake_agent_extension.vrf = std::string(40, 'v');
    EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_RCP)), 1);
    EXPECT_EQ(calls_, Lines{"vrf id " + std::string(31, 'v')});
}

// --- TFTP

TEST_F(VrfTransfer, TftpCommand) {
    fake_agent_extension.vrf = "management";
    EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_TFTP)), 0);
    const std::string upload = "/ulmo/bin/brix-tftp 1 10.0.0.1 69 \"/tmp/a\" \"b\" 1 management";
    EXPECT_EQ(calls_, (Lines{"vrf id management", "system " + upload + " default"}));
    EXPECT_EQ(fake_evtrace.history,
              (Records{{EVTRACE_DEBUG, function + " : vrf name management vrf_id 2\n"},
                       {EVTRACE_DEBUG, function + " : tftp_cmd " + upload + "\n"}}));
    EXPECT_EQ(errors_, "");

    EXPECT_EQ(run(COPY_DOWNLOAD, request(COPY_PROTO_TFTP)), 0);
    const std::string download = "/ulmo/bin/brix-tftp 0 10.0.0.1 69 \"/tmp/a\" \"b\" 1 management";
    EXPECT_EQ(calls_, (Lines{"vrf id management", "system " + download + " default"}));
    EXPECT_LOGGED(EVTRACE_DEBUG, function + " : tftp_cmd " + download + "\n");
}

TEST_F(VrfTransfer, StatusOfTheTftpCommand) {
    for (const int status : {1, 9, 0x100, 0x200, 0x300, 0x400, 127, 127 << 8, 0xff00}) {
        fake_process.system_result = status;
        fake_process.system_errno = 3; // has no effect
        EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_TFTP)), 1) << status;
        EXPECT_EQ(run(COPY_DOWNLOAD, request(COPY_PROTO_TFTP)), 1) << status;
    }
    fake_process.system_result = 0;
    EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_TFTP)), 0);
}

TEST_F(VrfTransfer, TftpCommandThatCannotBeRun) {
    const std::map<int, int> causes = {{1, 2}, {2, 2}, {3, 4}, {101, 3}, {110, 3}};
    fake_process.system_result = -1;
    for (int error = 0; error <= 133; ++error) {
        fake_process.system_errno = error;
        const auto cause = causes.find(error);
        EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_TFTP)),
                  cause == causes.end() ? 1 : cause->second)
            << error;
    }
}

TEST_F(VrfTransfer, ServerTextIsCut) {
    const auto record = request(COPY_PROTO_TFTP);
    put_text(record->ccCopyServerAddressRev1, std::string(64, 's'));
    EXPECT_EQ(run(COPY_UPLOAD, record), 0);
    EXPECT_EQ(calls_[1], "system /ulmo/bin/brix-tftp 1 " + std::string(63, 's') +
                             " 69 \"/tmp/a\" \"b\" 1 red default");
}

// --- TFTP through a real shell

class Shell : public VrfTransfer, public ::testing::WithParamInterface<std::string> {
  protected:
    void SetUp() override {
        VrfTransfer::SetUp();
        std::ofstream("arguments") << "#!/bin/sh\nprintf '%s\\0' \"$@\"\n";
        std::filesystem::permissions("arguments", std::filesystem::perms::owner_all);
    }
    // The arguments that a program gets if a shell runs the command with it in place of the
    // transfer program.
    static Lines words_of(const std::string &command) {
        const std::string program = "/ulmo/bin/brix-tftp ";
        EXPECT_EQ(command.substr(0, program.size()), program);
        FILE *stream = popen(("./arguments " + command.substr(program.size())).c_str(), "re");
        if (stream == nullptr) {
            ADD_FAILURE() << "popen";
            return {};
        }
        Lines words(1);
        for (int octet = getc(stream); octet != EOF; octet = getc(stream)) {
            if (octet == '\0') {
                words.emplace_back();
            } else {
                words.back().push_back(static_cast<char>(octet));
            }
        }
        EXPECT_EQ(pclose(stream), 0);
        words.pop_back();
        return words;
    }
    std::string command_of(int32_t direction, const std::string &local, const std::string &remote) {
        const auto record = request(COPY_PROTO_TFTP);
        put_text(record->ccCopySrcFileName, local);
        put_text(record->ccCopyFileName, remote);
        std::string command;
        journal.on_line = [&](const std::string &line) {
            if (line.starts_with("system ")) {
                command = line.substr(7, line.size() - 7 - sizeof " default" + 1);
            }
        };
        EXPECT_EQ(run(direction, record), 0);
        return command;
    }
};

TEST_P(Shell, NameArrivesUnharmedAndNeverRuns) {
    for (const int32_t direction : {COPY_UPLOAD, COPY_DOWNLOAD}) {
        const std::string number = direction == COPY_UPLOAD ? "1" : "0";
        EXPECT_EQ(words_of(command_of(direction, "/tmp/a", GetParam())),
                  (Lines{number, "10.0.0.1", "69", "/tmp/a", GetParam(), "1", "red"}));
        EXPECT_EQ(words_of(command_of(direction, GetParam(), "b")),
                  (Lines{number, "10.0.0.1", "69", GetParam(), "b", "1", "red"}));
    }
    EXPECT_EQ(files(), Lines{"arguments"});
}

INSTANTIATE_TEST_SUITE_P(
    VrfTransfer, Shell,
    ::testing::Values("plain", "", " ", "two  blanks", " leading", "trailing ", "a\tb", "a\nb",
                      "\n", "a\r\nb", "$(touch ran)", "`touch ran`", "\"; touch ran; \"", "\"",
                      "\"\"", "'", "'; touch ran; '", "a;touch ran", "a|touch ran", "a&touch ran&",
                      "a>ran", "$HOME", "${HOME}", "$", "$$", "a$", "*", "?rguments", "~", "#a",
                      "!1", "\\", "\\\\", "a\\", "\\n", "\\$(touch ran)", "\\\"$(touch ran)",
                      "\\`touch ran\\`", "a\\\nb", "$((1+1))", "-x", "%s%n", "\x01\x7f\xff\xfe",
                      "b\xc3\xa4", std::string(128, '"'), std::string(128, '$'),
                      std::string(128, '\\'), std::string(128, '`')));

TEST_F(Shell, LongestNames) {
    const std::string local(255, '"');
    const std::string remote(255, '$');
    EXPECT_EQ(words_of(command_of(COPY_UPLOAD, local, remote)),
              (Lines{"1", "10.0.0.1", "69", local, remote, "1", "red"}));
}

TEST_F(Shell, VrfNameIsOneWordToo) {
    for (const char *name : {"a b", "$(touch ran)", "a;touch ran", "'", "\"", "a\\b", "*"}) {
        fake_agent_extension.vrf = name;
        EXPECT_EQ(words_of(command_of(COPY_UPLOAD, "a", "b")),
                  (Lines{"1", "10.0.0.1", "69", "a", "b", "1", name}));
    }
    EXPECT_EQ(files(), Lines{"arguments"});
}

// --- scripts

struct Script {
    int32_t protocol;
    int32_t direction;
    const char *command;
    const char *announce;
    const char *script;
    const char *trace;
};

class VrfScripts : public VrfTransfer, public ::testing::WithParamInterface<Script> {};

const Script scripts[] = {
    {COPY_PROTO_FTP, COPY_UPLOAD,
     "/ulmo/bin/snmp.ftp.expect [10.0.0.1] [/tmp/a] [b] [alice] [secret] [put] [2]",
     " : Putting the file (/tmp/a)to the server (b)\n", "ftp.expect",
     "FTP_PUT  add 10.0.0.1 ccCopySrcFileName /tmp/a ccCopyFileName b ccCopyUserName alice "
     "ccCopyUserPassword secret vrf_id 2"},
    {COPY_PROTO_FTP, COPY_DOWNLOAD,
     "/ulmo/bin/snmp.ftp.expect [10.0.0.1] [b] [/tmp/a] [alice] [secret] [get] [2]",
     " : Getting file b to local file /tmp/a \n", "ftp.expect",
     "FTP_GET  add 10.0.0.1 ccCopySrcFileName /tmp/a ccCopyFileName b ccCopyUserName alice "
     "ccCopyUserPassword secret vrf_id 2"},
    {COPY_PROTO_SFTP, COPY_UPLOAD,
     "/ulmo/bin/sftp.expect [10.0.0.1] [alice] [secret] [put] [/tmp/a] [b] [2]",
     " : Putting the file (/tmp/a)to the server (b)\n", "sftp.expect",
     "SFTP_PUT  add 10.0.0.1 ccCopySrcFileName /tmp/a ccCopyFileName b ccCopyUserName alice "
     "ccCopyUserPassword secret vrf_id 2"},
    {COPY_PROTO_SFTP, COPY_DOWNLOAD,
     "/ulmo/bin/sftp.expect [10.0.0.1] [alice] [secret] [get] [b] [/tmp/a] [2]",
     " : Getting file b to local file /tmp/a \n", "sftp.expect",
     "SFTP_GET  add 10.0.0.1 ccCopySrcFileName /tmp/a ccCopyFileName b ccCopyUserName alice "
     "ccCopyUserPassword secret vrf_id 2"},
    {COPY_PROTO_SCP, COPY_UPLOAD, "/ulmo/bin/scp.expect [/tmp/a] [alice@10.0.0.1:b] [secret] [2]",
     nullptr, "scp.expect",
     "SCP_PUT ccCopySrcFileName /tmp/a tmp_buf alice@10.0.0.1:b passwd secret vrf_id 2"},
    {COPY_PROTO_SCP, COPY_DOWNLOAD, "/ulmo/bin/scp.expect [alice@10.0.0.1:b] [/tmp/a] [secret] [2]",
     nullptr, "scp.expect",
     "SCP_GET ccCopySrcFileName /tmp/a tmp_buf alice@10.0.0.1:b passwd secret vrf_id 2"},
};

TEST_P(VrfScripts, ArgumentsMessagesAndResults) {
    const Script &script = GetParam();
    struct Result {
        int status;
        const char *shown;
        int exit_code;
        int cause;
    };
    for (const Result &result : {Result{0, "0x0", 0, 0},
                                 {0x100, "0x100", 1, 3},
                                 {0x200, "0x200", 2, 2},
                                 {0x300, "0x300", 3, 4},
                                 {0x900, "0x900", 9, 1},
                                 {-1, "0xffffffff", 255, 1},
                                 {INT32_MIN, "0x80000000", 0, 1}}) {
        fake_execute.result = result.status;
        EXPECT_EQ(run(script.direction, request(script.protocol)), result.cause) << result.status;
        EXPECT_EQ(calls_, (Lines{"vrf id red",
                                 std::string("execute -1 -1 -1 ") + script.command + " default"}));
        EXPECT_EQ(errors_, function + ": " + script.trace + " ret_code " + result.shown + "\n");
        ASSERT_EQ(fake_evtrace.history.size(), 3U);
        if (script.announce != nullptr) {
            EXPECT_LOGGED(EVTRACE_DEBUG, function + script.announce);
        } else {
            // program and arguments, with or without the VRF
            EXPECT_EQ(fake_evtrace.history[1].text.find(
                          function + ": executing command: /ulmo/bin/scp.expect "),
                      0U);
        }
        EXPECT_LOGGED(EVTRACE_DEBUG, function + " : Return code from " + script.script + " is  " +
                                         std::to_string(result.exit_code) + "\n");
    }
}
INSTANTIATE_TEST_SUITE_P(VrfTransfer, VrfScripts, ::testing::ValuesIn(scripts));

TEST_F(VrfTransfer, FullCredentials) {
    const auto record = request(COPY_PROTO_SFTP);
    put_full_credentials(*record);
    EXPECT_EQ(run(COPY_UPLOAD, record), 0);
    EXPECT_EQ(calls_[1], "execute -1 -1 -1 /ulmo/bin/sftp.expect [10.0.0.1] [" + full_user + "] [" +
                             full_password + "] [put] [/tmp/a] [b] [2] default");
    EXPECT_EQ(
        errors_,
        function +
            ": SFTP_PUT  add 10.0.0.1 ccCopySrcFileName /tmp/a ccCopyFileName b ccCopyUserName " +
            full_user + " ccCopyUserPassword " + full_password + " vrf_id 2 ret_code 0x0\n");
}

TEST_F(VrfTransfer, UnknownProtocol) {
    EXPECT_EQ(run(COPY_UPLOAD, request(7)), 6);
    EXPECT_EQ(calls_, Lines{"vrf id red"});
    EXPECT_LOGGED(EVTRACE_ERROR, function + " : Protocol not supported\n");
}

TEST_F(VrfTransfer, AnotherDirectionTransfersNothing) {
    for (const int32_t protocol : {COPY_PROTO_FTP, COPY_PROTO_SFTP, COPY_PROTO_SCP}) {
        run(3, request(protocol));
        EXPECT_EQ(calls_, Lines{"vrf id red"});
    }
}

} // namespace
