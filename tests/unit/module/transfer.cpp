// File transfers with a server, outside any VRF.
#include <map>
#include <set>

#include "tests/unit/fakes/execution_fixture.h"
#include "tests/unit/fakes/fake_chassis.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_execute.h"
#include "tests/unit/fakes/fake_tftp.h"

namespace {

// local file /data/local.cfg, remote file dir/remote.cfg
class Transfer : public ExecutionTest {
  protected:
    static std::unique_ptr<ccCopyEntry> request(int32_t protocol) {
        auto record = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK, protocol);
        put_text(record->ccCopySrcFileName, "/data/local.cfg");
        return record;
    }
    // Runs one transfer. Its standard error is then in errors_, and its calls, without the chassis
    // look-up, in calls_.
    int32_t run(int32_t direction, const std::unique_ptr<ccCopyEntry> &record) {
        char work_dir[256] = "unused";
        fake_evtrace.clear();
        ::testing::internal::CaptureStderr();
        const int32_t result = do_nw_upload_download(direction, work_dir, record.get());
        errors_ = ::testing::internal::GetCapturedStderr();
        calls_ = journal.take();
        if (calls_.empty() || calls_.front() != "chassis type") {
            ADD_FAILURE() << "the chassis was not looked up first";
            return result;
        }
        calls_.erase(calls_.begin());
        return result;
    }
    static std::vector<EvtraceFake::Record> history() { return fake_evtrace.history; }

    std::string errors_;
    Lines calls_;
};
using Records = std::vector<EvtraceFake::Record>;

// --- error numbers

TEST_F(Transfer, TftpErrorsAsFailCauses) {
    const std::map<int, int> causes = {{-1, 2},   {-2, 2},   {-3, 4},   {-101, 2},
                                       {-102, 2}, {-103, 4}, {-201, 3}, {-210, 3}};
    for (int error = -300; error <= 5; ++error) {
        const auto cause = causes.find(error);
        EXPECT_EQ(tftperr2miberr(error), cause == causes.end() ? 1 : cause->second) << error;
    }
    EXPECT_EQ(tftperr2miberr(INT32_MIN), 1);
    EXPECT_EQ(tftperr2miberr(INT32_MAX), 1);
}

// --- chassis

TEST_F(Transfer, ChassisTypesWithVrf) {
    const std::set<int> with_vrf = {10, 11, 19, 20, 21, 22, 26, 27, 28, 29, 30, 31, 32,
                                    33, 34, 39, 41, 42, 43, 44, 45, 46, 47, 49, 52};
    ASSERT_EQ(with_vrf.size(), 25U);
    for (int type = -2; type <= 300; ++type) {
        fake_chassis.type = type;
        EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_RCP)), 1);
        EXPECT_EQ(calls_, with_vrf.contains(type) ? Lines{"vrf id red"} : Lines{}) << type;
    }
}

TEST_F(Transfer, UnknownChassisHasNoVrf) {
    fake_chassis.type = 26;
    for (const bool stores : {false, true}) {
        fake_chassis.stores_on_failure = stores;
        for (const int result : {1, -1}) {
            fake_chassis.type_result = result;
            EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_RCP)), 1);
            EXPECT_EQ(calls_, Lines{});
        }
    }
}

TEST_F(Transfer, ResultWithinAVrfIsTheResult) {
    fake_chassis.type = 26;
    for (const auto &[code, cause] : {std::pair{0, 0}, {1, 3}, {2, 2}, {3, 4}, {9, 1}}) {
        fake_execute.result = code << 8;
        EXPECT_EQ(run(COPY_DOWNLOAD, request(COPY_PROTO_FTP)), cause);
        ASSERT_EQ(calls_.size(), 2U);
        EXPECT_TRUE(calls_[1].ends_with(" [get] [2] default")) << calls_[1];
    }
}

// --- TFTP

const Lines tftp_connected = {"tftp timeout 20", "tftp connect 10.0.0.1 -1"};

TEST_F(Transfer, TftpUpload) {
    for (const int good : {0, 1, 4096}) {
        fake_tftp.transfer_result = good;
        EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_TFTP)), 0);
        EXPECT_EQ(calls_,
                  tftp_connected + Lines{"tftp put /data/local.cfg dir/remote.cfg 0 default"});
        EXPECT_EQ(history(),
                  (Records{{EVTRACE_DEBUG, "do_nw_upload_download : get chassis type return 0\n"},
                           {EVTRACE_DEBUG, "do_nw_upload_download : Putting the file "
                                           "(/data/local.cfg)to the server (dir/remote.cfg)\n"},
                           {EVTRACE_DEBUG,
                            "do_nw_upload_download : File dir/remote.cfg is uploaded\n"}}));
        EXPECT_EQ(errors_, "");
    }
}

TEST_F(Transfer, TftpDownload) {
    fake_chassis.type_result = 77;
    EXPECT_EQ(run(COPY_DOWNLOAD, request(COPY_PROTO_TFTP)), 0);
    EXPECT_EQ(calls_, tftp_connected + Lines{"tftp get dir/remote.cfg /data/local.cfg 0 default"});
    EXPECT_EQ(
        history(),
        (Records{{EVTRACE_DEBUG, "do_nw_upload_download : get chassis type return 77\n"},
                 {EVTRACE_DEBUG, "do_nw_upload_download : Getting file dir/remote.cfg to local "
                                 "file /data/local.cfg \n"},
                 {EVTRACE_DEBUG, "do_nw_upload_download :  File dir/remote.cfg is downloaded\n"}}));
    EXPECT_EQ(errors_, "");
}

TEST_F(Transfer, TftpTimeoutThatCannotBeSet) {
    fake_tftp.timeout_result = -3; // not mapped
    EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_TFTP)), 1);
    EXPECT_EQ(calls_, Lines{"tftp timeout 20"});
    EXPECT_LOGGED(EVTRACE_ERROR,
                  "do_nw_upload_download : Setting timeout failed : tftp error -3\n");
}

TEST_F(Transfer, TftpConnectFails) {
    for (const auto &[error, cause] : {std::pair{-201, 3}, {-2, 2}, {-122, 1}, {-3, 4}}) {
        fake_tftp.connect_result = error;
        EXPECT_EQ(run(COPY_DOWNLOAD, request(COPY_PROTO_TFTP)), cause);
        EXPECT_EQ(calls_, tftp_connected); // no second attempt
        EXPECT_LOGGED(EVTRACE_ERROR,
                      "do_nw_upload_download : Connecting to the tftp server failed : tftp error " +
                          std::to_string(error) + "\n");
    }
}

TEST_F(Transfer, TftpTransferFails) {
    for (const auto &[error, cause] : {std::pair{-1, 2},
                                       {-2, 2},
                                       {-3, 4},
                                       {-5, 1},
                                       {-102, 2},
                                       {-103, 4},
                                       {-110, 1},
                                       {-201, 3},
                                       {-210, 3}}) {
        const std::string number = std::to_string(error);
        fake_tftp.transfer_result = error;
        EXPECT_EQ(run(COPY_UPLOAD, request(COPY_PROTO_TFTP)), cause);
        EXPECT_EQ(calls_,
                  tftp_connected + Lines{"tftp put /data/local.cfg dir/remote.cfg 0 default"});
        EXPECT_LOGGED(EVTRACE_ERROR,
                      "do_nw_upload_download : Putting to  the tftp server failed : tftp error " +
                          number + " (errno: " + number + ")\n");

        EXPECT_EQ(run(COPY_DOWNLOAD, request(COPY_PROTO_TFTP)), cause);
        EXPECT_EQ(calls_,
                  tftp_connected + Lines{"tftp get dir/remote.cfg /data/local.cfg 0 default"});
        EXPECT_LOGGED(EVTRACE_ERROR, "do_nw_upload_download : Getting from tftp server failed :(" +
                                         number + ") tftp error " + number + "\n");
    }
}

TEST_F(Transfer, ServerTextIsCut) {
    const auto tftp = request(COPY_PROTO_TFTP);
    put_text(tftp->ccCopyServerAddressRev1, std::string(64, 's'));
    EXPECT_EQ(run(COPY_UPLOAD, tftp), 0);
    EXPECT_EQ(calls_[1], "tftp connect " + std::string(63, 's') + " -1");

    const auto sftp = request(COPY_PROTO_SFTP);
    put_text(sftp->ccCopyServerAddressRev1, std::string(64, 's'));
    EXPECT_EQ(run(COPY_UPLOAD, sftp), 0);
    EXPECT_EQ(calls_[0], "execute -1 -1 -1 /ulmo/bin/sftp.expect [" + std::string(63, 's') +
                             "] [alice] [secret] [put] [/data/local.cfg] [dir/remote.cfg] default");
}

// --- scripts

struct Script {
    int32_t protocol;
    int32_t direction;
    const char *command;  // program and arguments
    const char *announce; // message before it
    const char *script;   // name in the message after it
    const char *trace;    // line on standard error, up to the status
};

class Scripts : public Transfer, public ::testing::WithParamInterface<Script> {};

const Script scripts[] = {
    {COPY_PROTO_FTP, COPY_UPLOAD,
     "/ulmo/bin/snmp.ftp.expect [10.0.0.1] [/data/local.cfg] [dir/remote.cfg] [alice] [secret] "
     "[put]",
     " : Putting the file (/data/local.cfg)to the server (dir/remote.cfg)\n", "ftp.expect",
     "FTP_PUT  add 10.0.0.1 ccCopySrcFileName /data/local.cfg ccCopyFileName dir/remote.cfg "
     "ccCopyUserName alice ccCopyUserPassword "
     "secret"},
    {COPY_PROTO_FTP, COPY_DOWNLOAD,
     "/ulmo/bin/snmp.ftp.expect [10.0.0.1] [dir/remote.cfg] [/data/local.cfg] [alice] [secret] "
     "[get]",
     " : Getting file dir/remote.cfg to local file /data/local.cfg \n", "ftp.expect",
     "FTP_GET  add 10.0.0.1 ccCopySrcFileName /data/local.cfg ccCopyFileName dir/remote.cfg "
     "ccCopyUserName alice ccCopyUserPassword "
     "secret"},
    {COPY_PROTO_SFTP, COPY_UPLOAD,
     "/ulmo/bin/sftp.expect [10.0.0.1] [alice] [secret] [put] [/data/local.cfg] [dir/remote.cfg]",
     " : Putting the file (/data/local.cfg)to the server (dir/remote.cfg)\n", "sftp.expect",
     "SFTP_PUT  add 10.0.0.1 ccCopySrcFileName /data/local.cfg ccCopyFileName dir/remote.cfg "
     "ccCopyUserName alice ccCopyUserPassword "
     "secret"},
    {COPY_PROTO_SFTP, COPY_DOWNLOAD,
     "/ulmo/bin/sftp.expect [10.0.0.1] [alice] [secret] [get] [dir/remote.cfg] [/data/local.cfg]",
     " : Getting file dir/remote.cfg to local file /data/local.cfg \n", "sftp.expect",
     "SFTP_GET  add 10.0.0.1 ccCopySrcFileName /data/local.cfg ccCopyFileName dir/remote.cfg "
     "ccCopyUserName alice ccCopyUserPassword "
     "secret"},
    {COPY_PROTO_SCP, COPY_UPLOAD,
     "/ulmo/bin/scp.expect [/data/local.cfg] [alice@10.0.0.1:dir/remote.cfg] [secret]",
     ": executing command: /ulmo/bin/scp.expect /data/local.cfg alice@10.0.0.1:dir/remote.cfg "
     "secret",
     "scp.expect",
     "SCP_PUT ccCopySrcFileName /data/local.cfg tmp_buf alice@10.0.0.1:dir/remote.cfg passwd "
     "secret"},
    {COPY_PROTO_SCP, COPY_DOWNLOAD,
     "/ulmo/bin/scp.expect [alice@10.0.0.1:dir/remote.cfg] [/data/local.cfg] [secret]",
     ": executing command: /ulmo/bin/scp.expect alice@10.0.0.1:dir/remote.cfg /data/local.cfg "
     "secret",
     "scp.expect",
     "SCP_GET ccCopySrcFileName /data/local.cfg tmp_buf alice@10.0.0.1:dir/remote.cfg passwd "
     "secret"},
};

TEST_P(Scripts, ArgumentsMessagesAndResults) {
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
                                 {0x400, "0x400", 4, 1},
                                 {0x900, "0x900", 9, 1},
                                 {0xff00, "0xff00", 255, 1},
                                 {-1, "0xffffffff", 255, 1},
                                 {-65280, "0xffff0100", 1, 1},
                                 {INT32_MIN, "0x80000000", 0, 1}}) {
        fake_execute.result = result.status;
        EXPECT_EQ(run(script.direction, request(script.protocol)), result.cause) << result.status;
        EXPECT_EQ(calls_, Lines{std::string("execute -1 -1 -1 ") + script.command + " default"});
        EXPECT_EQ(errors_, std::string("do_nw_upload_download: ") + script.trace + " ret_code " +
                               result.shown + "\n");
        EXPECT_EQ(
            history(),
            (Records{{EVTRACE_DEBUG, std::string("do_nw_upload_download") + script.announce},
                     {EVTRACE_DEBUG, std::string("do_nw_upload_download : Return code from ") +
                                         script.script + " is  " +
                                         std::to_string(result.exit_code) + "\n"}}));
    }
}

// Only the exit code counts; it is 0 for a script that a signal ended.
TEST_P(Scripts, OnlyBitsEightToFifteenCount) {
    fake_execute.result = 9;
    EXPECT_EQ(run(GetParam().direction, request(GetParam().protocol)), 0);
    fake_execute.result = 0x70280;
    EXPECT_EQ(run(GetParam().direction, request(GetParam().protocol)), 2);
}

// User name and password fill their fields, and neither runs into the next field.
TEST_P(Scripts, FullCredentials) {
    const Script &script = GetParam();
    const auto record = request(script.protocol);
    put_full_credentials(*record);
    EXPECT_EQ(run(script.direction, record), 0);
    const auto with_full_credentials = [](std::string text) {
        for (const auto &[word, full] :
             {std::pair{"alice", full_user}, {"secret", full_password}}) {
            text.replace(text.find(word), std::string(word).size(), full);
        }
        return text;
    };
    EXPECT_EQ(calls_,
              Lines{"execute -1 -1 -1 " + with_full_credentials(script.command) + " default"});
    EXPECT_EQ(errors_,
              "do_nw_upload_download: " + with_full_credentials(script.trace) + " ret_code 0x0\n");
}

INSTANTIATE_TEST_SUITE_P(Transfer, Scripts, ::testing::ValuesIn(scripts));

TEST_F(Transfer, TargetOfScpIsCut) {
    const auto record = request(COPY_PROTO_SCP);
    put_text(record->ccCopyFileName, std::string(255, 'f'));
    EXPECT_EQ(run(COPY_UPLOAD, record), 0);
    const std::string target = ("alice@10.0.0.1:" + std::string(255, 'f')).substr(0, 255);
    EXPECT_EQ(calls_, Lines{"execute -1 -1 -1 /ulmo/bin/scp.expect [/data/local.cfg] [" + target +
                            "] [secret] default"});
}

// --- what is refused

TEST_F(Transfer, RcpIsRefusedSilently) {
    for (const int32_t direction : {COPY_UPLOAD, COPY_DOWNLOAD}) {
        EXPECT_EQ(run(direction, request(COPY_PROTO_RCP)), 1);
        EXPECT_EQ(calls_, Lines{});
        EXPECT_EQ(history(), Records{});
        EXPECT_EQ(errors_, "");
    }
}

TEST_F(Transfer, UnknownProtocols) {
    for (const int32_t protocol : {-1, 0, 6, 7, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(run(COPY_UPLOAD, request(protocol)), 6);
        EXPECT_EQ(calls_, Lines{});
        EXPECT_EQ(history(),
                  (Records{{EVTRACE_ERROR, "do_nw_upload_download : Protocol not supported\n"}}));
    }
}

TEST_F(Transfer, AnotherDirectionTransfersNothing) {
    for (const int32_t direction : {0, 3, -1}) {
        EXPECT_EQ(run(direction, request(COPY_PROTO_TFTP)), 0);
        EXPECT_EQ(calls_, tftp_connected);
        for (const int32_t protocol : {COPY_PROTO_FTP, COPY_PROTO_SFTP, COPY_PROTO_SCP}) {
            run(direction, request(protocol));
            EXPECT_EQ(calls_, Lines{});
        }
    }
}

} // namespace
