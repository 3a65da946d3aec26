// What an activated request leads to: a worker, a request to the system manager, or nothing.

#include "platform/system_manager.h"
#include "tests/unit/fakes/execution_fixture.h"
#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_msgbus.h"
#include "tests/unit/fakes/fake_process.h"
#include "tests/unit/fakes/fake_time.h"
#include "tests/unit/fakes/fake_utilities.h"

namespace {

constexpr int32_t index_of_row = 7;
const std::string initiated("\x40\x1e\x00\x03", 4);

class Launch : public ExecutionTest {
  protected:
    // Stores the request in the table.
    static void store(const ccCopyEntry &request) {
        add_row(request.ccCopyIndex);
        store_row(request);
    }
    static std::string octets_of_stored_row() {
        const ccCopyEntry row = stored_row(index_of_row);
        return {reinterpret_cast<const char *>(&row), sizeof row};
    }
    static void release_start_request() {
        ASSERT_NE(cfg_action_request, nullptr);
        fake_msgbus.release(std::exchange(cfg_action_request, nullptr));
    }
};

TEST_F(Launch, NetworkCopyIsRecordedBeforeTheWorkerExists) {
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    store(*request);
    journal.on_line = [](const std::string &line) {
        ASSERT_EQ(line, "fork");
        const ccCopyEntry row = stored_row(index_of_row);
        EXPECT_EQ(row.ccCopyState, COPY_STATE_RUNNING);
        EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_ACTIVE);
        EXPECT_EQ(row.ccCopyTimeStarted.tv_sec, TimeFake::start);
        EXPECT_EQ(row.ccCopyTimeStarted.tv_usec, 250000);
        EXPECT_EQ(child_copy_running, 0);
    };
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_CREATE_AND_GO), SNMP_ERR_NOERROR);
    EXPECT_EQ(journal.take(), Lines{"fork"});
    EXPECT_EQ(child_copy_running, 1);
    EXPECT_EQ(request->ccCopyState, COPY_STATE_RUNNING);
    EXPECT_EQ(request->ccCopyEntryRowStatus, ROW_STATUS_ACTIVE);
    EXPECT_LOGGED(EVTRACE_DEBUG, "start_copy : Created the process to copy with pid = 4711\n");
}

// The result for a pair of file types: the rules of the launch, written a second time.
struct Expected {
    enum { fork, system_manager, nothing, refused } way;
    int32_t status;
};

Expected expected_of(int32_t source, int32_t dest) {
    const auto unsupported = [](int32_t type) { return type == 2 || type == 5; };
    if (source == dest || (source == 1 && dest == 3)) {
        return {Expected::refused, SNMP_ERR_GENERR};
    }
    if (unsupported(source) || unsupported(dest)) {
        return {Expected::refused, SNMP_ERR_WRONGVALUE};
    }
    if ((dest == 6 || dest == 7) && source != 4) {
        return {Expected::refused, SNMP_ERR_GENERR};
    }
    if (source == 1 || dest == 1 || (source == 3 && dest == 4)) {
        return {Expected::fork, SNMP_ERR_NOERROR};
    }
    if (source == 4 && (dest == 3 || dest == 6 || dest == 7)) {
        return {Expected::system_manager, SNMP_ERR_NOERROR};
    }
    return {Expected::nothing, SNMP_ERR_NOERROR};
}

TEST_F(Launch, EveryPairOfFileTypes) {
    for (int32_t source = -1; source <= 8; ++source) {
        for (int32_t dest = -1; dest <= 8; ++dest) {
            SCOPED_TRACE(std::to_string(source) + " to " + std::to_string(dest));
            const auto request = copy_request(source, dest);
            request->ccCopyTimeStarted = {123, 456};
            request->ccCopyState = COPY_STATE_SUCCESSFUL;
            request->ccCopyEntryRowStatus = ROW_STATUS_NOT_READY;
            store(*request);
            const std::string before = octets_of_stored_row();
            const Expected expected = expected_of(source, dest);
            if (expected.way == Expected::system_manager) {
                fake_msgbus.answers = {{0, MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, initiated}};
            }

            EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), expected.status);

            const Lines calls = journal.take();
            const ccCopyEntry row = stored_row(index_of_row);
            switch (expected.way) {
            case Expected::fork:
                EXPECT_EQ(calls, Lines{"fork"});
                EXPECT_EQ(row.ccCopyState, COPY_STATE_RUNNING);
                break;
            case Expected::system_manager:
                ASSERT_EQ(calls.size(), 3U);
                EXPECT_TRUE(calls[0].starts_with("send 7 fe000000 3 1381 ")) << calls[0];
                EXPECT_EQ(row.ccCopyState, COPY_STATE_RUNNING);
                release_start_request();
                break;
            case Expected::nothing:
                EXPECT_EQ(calls, Lines{});
                EXPECT_EQ(octets_of_stored_row(), before);
                break;
            case Expected::refused:
                EXPECT_EQ(calls, Lines{});
                EXPECT_EQ(row.ccCopyTimeStarted.tv_sec, 0);
                EXPECT_EQ(row.ccCopyTimeStarted.tv_usec, 0);
                EXPECT_EQ(row.ccCopyState, COPY_STATE_SUCCESSFUL);
                EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
                break;
            }
            fake_utilities.errors.take();
            child_copy_running = 0;
            ASSERT_EQ(deleteCcCopyEntry(request.get()), 0U);
        }
    }
}

class LoopbackRefused : public Launch, public ::testing::WithParamInterface<const char *> {};

TEST_P(LoopbackRefused, AtBothEnds) {
    for (const auto &[source, dest] : {std::pair{COPY_FILE_RUNNING, COPY_FILE_NETWORK},
                                       {COPY_FILE_NETWORK, COPY_FILE_RUNNING}}) {
        Tracing trace;
        const auto request = copy_request(source, dest);
        put_text(request->ccCopyServerAddressRev1, GetParam());
        store(*request);
        const std::string before = octets_of_stored_row();
        EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), SNMP_ERR_WRONGVALUE);
        EXPECT_EQ(octets_of_stored_row(), before);
        EXPECT_EQ(child_copy_running, 0);
        const Lines traced = trace.take();
        ASSERT_EQ(traced.size(), 2U);
        EXPECT_EQ(
            traced[1],
            std::string(
                "validate_n_start_copy(#):validate_n_start_copy : Localhost address received (") +
                GetParam() + ").  Disallowing this operation.");
        ASSERT_EQ(deleteCcCopyEntry(request.get()), 0U);
    }
}
INSTANTIATE_TEST_SUITE_P(Launch, LoopbackRefused, ::testing::Values("0.0.0.0", "127.0.0.1"));

class OtherServer : public Launch, public ::testing::WithParamInterface<const char *> {};

TEST_P(OtherServer, IsLaunched) {
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    put_text(request->ccCopyServerAddressRev1, GetParam());
    store(*request);
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), SNMP_ERR_NOERROR);
    EXPECT_EQ(journal.take(), Lines{"fork"});
}
INSTANTIATE_TEST_SUITE_P(Launch, OtherServer,
                         ::testing::Values("127.0.0.2", "127.0.0.10", "127.0.0.1 ", " 127.0.0.1",
                                           "127.0.0", "0.0.0.00", "0.0.0", "::1", "localhost",
                                           "::ffff:127.0.0.1"));

TEST_F(Launch, ServerOfALocalCopyIsNotLookedAt) {
    const auto request = copy_request(COPY_FILE_STARTUP, COPY_FILE_RUNNING);
    put_text(request->ccCopyServerAddressRev1, "127.0.0.1");
    store(*request);
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), SNMP_ERR_NOERROR);
    EXPECT_EQ(journal.take(), Lines{"fork"});
}

TEST_F(Launch, RunningToStartupIsRecordedBeforeItIsAsked) {
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_STARTUP);
    store(*request);
    fake_msgbus.send_errors = {ECONNREFUSED};
    journal.on_line = [](const std::string &line) {
        ASSERT_TRUE(line.starts_with("send ")) << line;
        EXPECT_EQ(stored_row(index_of_row).ccCopyState, COPY_STATE_RUNNING);
        EXPECT_EQ(stored_row(index_of_row).ccCopyTimeStarted.tv_sec, TimeFake::start);
    };
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), SNMP_ERR_NOERROR);
    EXPECT_EQ(journal.take().size(), 1U);
    EXPECT_EQ(child_copy_running, 0);
}

TEST_F(Launch, RowThatIsGone) {
    Tracing trace;
    const auto network = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    EXPECT_EQ(validate_n_start_copy(network.get(), ROW_STATUS_ACTIVE), SNMP_ERR_GENERR);
    EXPECT_EQ(trace.take().back(), "validate_n_start_copy(#):validate_n_start_copy : Set to entry "
                                   "(index= 7) failed just before starting the copy \n");

    const auto local = copy_request(COPY_FILE_STARTUP, COPY_FILE_RUNNING);
    EXPECT_EQ(validate_n_start_copy(local.get(), ROW_STATUS_ACTIVE), SNMP_ERR_GENERR);
    EXPECT_EQ(trace.take().back(), "validate_n_start_copy(#):validate_n_start_copy : Set to entry "
                                   "(index= 7) failed just before starting the copy \n");

    const auto save = copy_request(COPY_FILE_RUNNING, COPY_FILE_ALL_STARTUP);
    EXPECT_EQ(validate_n_start_copy(save.get(), ROW_STATUS_ACTIVE), SNMP_ERR_GENERR);
    EXPECT_LOGGED(EVTRACE_ERROR, "validate_n_start_copy : Set to entry (index= 7) failed just "
                                 "beforestarting copy running to startup\n");

    const auto invalid = copy_request(COPY_FILE_KEX, COPY_FILE_RUNNING);
    trace.take();
    EXPECT_EQ(validate_n_start_copy(invalid.get(), ROW_STATUS_ACTIVE), SNMP_ERR_GENERR);
    EXPECT_EQ(trace.take().back(), "validate_n_start_copy(#):validate_n_start_copy : Set to entry "
                                   "(index= 7) failed after valdation failed\n");
    EXPECT_EQ(child_copy_running, 0);
}

TEST_F(Launch, WorkerStillRunning) {
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    store(*request);
    child_copy_running = 1;
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), SNMP_ERR_GENERR);
    // written before the fork was checked
    EXPECT_EQ(stored_row(index_of_row).ccCopyState, COPY_STATE_RUNNING);
    EXPECT_LOGGED(EVTRACE_ERROR, "start_copy: child process is still running\n");
    EXPECT_EQ(start_copy(request.get()), CCERR_FAILED);
    EXPECT_EQ(child_copy_running, 1);
}

TEST_F(Launch, FailedForkIsNotSeen) {
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    store(*request);
    fake_process.fork_result = -1;
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), SNMP_ERR_NOERROR);
    EXPECT_EQ(journal.take(), Lines{"fork"}); // no second attempt
    EXPECT_EQ(child_copy_running, 1);
    EXPECT_EQ(stored_row(index_of_row).ccCopyState, COPY_STATE_RUNNING);
    EXPECT_LOGGED(EVTRACE_DEBUG, "start_copy : Created the process to copy with pid = -1\n");
}

TEST_F(Launch, ChildCopiesReportsAndEnds) {
    const auto request = copy_request(COPY_FILE_STARTUP, COPY_FILE_RUNNING);
    store(*request);
    fake_process.real_child = true;
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), SNMP_ERR_NOERROR);
    EXPECT_EQ(journal.take(), Lines{"fork"});
    ASSERT_TRUE(fake_process.child.has_value());
    const ProcessFake::Child &child = *fake_process.child;
    EXPECT_FALSE(child.failed);
    EXPECT_EQ(child.exit_code, 0);
    EXPECT_EQ(child.journal,
              (Lines{"bind 4 -1 1,0,1024,26,0,15 req-resp = 100", "startup directory 100 2",
                     "apply /startup/system.cfg to /tmp/configcopy.txt", "shell notified 100 1 1 3",
                     "unbind 100 0"}) +
                  status_report(101, status_word(0)));
    ASSERT_FALSE(child.history.empty());
    EXPECT_EQ(child.history.back(),
              "start_copy : exit = child_id " + std::to_string(child.pid) + "\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "start_copy : Created the process to copy with pid = " +
                                     std::to_string(child.pid) + "\n");
    EXPECT_EQ(child_copy_running, 1);
    EXPECT_EQ(stored_row(index_of_row).ccCopyState, COPY_STATE_RUNNING);
}

TEST_F(Launch, IncompleteCreateAndGoAnswersSuccess) {
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    put_text(request->ccCopyFileName, "");
    request->ccCopyTimeStarted = {123, 456};
    request->ccCopyEntryRowStatus = ROW_STATUS_CREATE_AND_GO;
    store(*request);
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_CREATE_AND_GO), SNMP_ERR_NOERROR);
    const ccCopyEntry row = stored_row(index_of_row);
    EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_EQ(row.ccCopyState, COPY_STATE_WAITING);
    EXPECT_EQ(row.ccCopyTimeStarted.tv_sec, 0);
    EXPECT_EQ(row.ccCopyTimeStarted.tv_usec, 0);
}

TEST_F(Launch, IncompleteActivationIsRefused) {
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK, COPY_PROTO_RCP);
    store(*request);
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(stored_row(index_of_row).ccCopyFailCause, COPY_FAIL_UNSUPPORTED_PROTOCOL);
}

TEST_F(Launch, RequestIsTraced) {
    Tracing trace;
    fake_agent.start.tv_sec = TimeFake::start - 100;
    const auto request = copy_request(COPY_FILE_KEX, COPY_FILE_NETWORK, COPY_PROTO_SFTP);
    put_full_credentials(*request);
    request->ccCopyTimeStarted = {TimeFake::start - 90, 0};
    store(*request);
    EXPECT_EQ(validate_n_start_copy(request.get(), ROW_STATUS_ACTIVE), SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(trace.take(),
              (Lines{"validate_n_start_copy(#):validate_n_start_copy: Copy requested with: "
                     "ccCopyServerAddressRev1 = 10.0.0.1,ccCopyFileName= "
                     "dir/remote.cfg, ccCopyUserName=" +
                         full_user +
                         ", ccCopyTimeStarted=1000 ccCopyProtocol = 5 ccCopySourceFileType = 2, "
                         "ccCopyDestFileType= 1, "
                         "ccCopyServerAddressType= 1\n",
                     "validate_entry(#):validate_entry : KEX file type is not supported ",
                     "validate_n_start_copy(#):validate_n_start_copy : Validation failed row index "
                     "= 7 \n"}));
}

// --- through a SET

class LaunchBySet : public Launch {
  protected:
    void SetUp() override {
        Launch::SetUp();
        ASSERT_EQ(init_config_copy_mib(), 0);
    }
    void TearDown() override {
        deinit_config_copy_mib();
        Launch::TearDown();
    }
    static int activate() {
        return set({{CC_COLUMN_ENTRY_ROW_STATUS, index_of_row, integer(ROW_STATUS_ACTIVE)}}).status;
    }
};

TEST_F(LaunchBySet, NetworkCopy) {
    store(*copy_request(COPY_FILE_NETWORK, COPY_FILE_RUNNING));
    EXPECT_EQ(activate(), SNMP_ERR_NOERROR);
    EXPECT_EQ(journal.take(), Lines{"fork"});
    EXPECT_EQ(stored_row(index_of_row).ccCopyState, COPY_STATE_RUNNING);
    EXPECT_EQ(stored_row(index_of_row).ccCopyEntryRowStatus, ROW_STATUS_ACTIVE);
    EXPECT_EQ(stored_row(index_of_row).ccCopyTimeStarted.tv_sec, TimeFake::start);
}

TEST_F(LaunchBySet, RefusedServer) {
    const auto request = copy_request(COPY_FILE_NETWORK, COPY_FILE_RUNNING);
    put_text(request->ccCopyServerAddressRev1, "127.0.0.1");
    store(*request);
    const std::string before = octets_of_stored_row();
    EXPECT_EQ(activate(), SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(octets_of_stored_row(), before);
}

// The stored row stays running, whatever happens to the request.
TEST_F(LaunchBySet, SavedCopyThatEndsAtOnce) {
    const auto request = copy_request(COPY_FILE_RUNNING, COPY_FILE_STARTUP);
    store(*request);
    fake_msgbus.answers = {{0, MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, std::string(4, '\0')}};
    EXPECT_EQ(activate(), SNMP_ERR_NOERROR);
    EXPECT_EQ(stored_row(index_of_row).ccCopyState, COPY_STATE_RUNNING);
    EXPECT_EQ(stored_row(index_of_row).ccCopyTimeCompleted.tv_sec, 0);

    store_row(*request);
    fake_msgbus.send_errors = {ECONNREFUSED};
    EXPECT_EQ(activate(), SNMP_ERR_NOERROR);
    EXPECT_EQ(stored_row(index_of_row).ccCopyState, COPY_STATE_RUNNING);
    EXPECT_EQ(stored_row(index_of_row).ccCopyTimeCompleted.tv_sec, 0);
    journal.take();
}

TEST_F(LaunchBySet, RefusedSaveIsSeenInTheRow) {
    store(*copy_request(COPY_FILE_RUNNING, COPY_FILE_STARTUP));
    fake_msgbus.answers = {{0, MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, std::string(4, '\1')}};
    EXPECT_EQ(activate(), SNMP_ERR_NOERROR);
    EXPECT_EQ(stored_row(index_of_row).ccCopyState, COPY_STATE_FAILED);
    EXPECT_EQ(stored_row(index_of_row).ccCopyFailCause, COPY_FAIL_WARDEN_REFUSED);
    journal.take();
}

TEST_F(LaunchBySet, PairThatNothingCopies) {
    const auto request = copy_request(COPY_FILE_FABRIC_STARTUP, COPY_FILE_STARTUP);
    store(*request);
    EXPECT_EQ(activate(), SNMP_ERR_NOERROR);
    EXPECT_EQ(stored_row(index_of_row).ccCopyState, COPY_STATE_WAITING);
    EXPECT_EQ(stored_row(index_of_row).ccCopyTimeStarted.tv_sec, 0);
}

} // namespace
