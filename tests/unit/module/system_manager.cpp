// Copies made by the system manager: the start request, its answer, and the abort.
#include <cerrno>
#include <unistd.h>

#include "platform/system_manager.h"
#include "tests/unit/fakes/execution_fixture.h"
#include "tests/unit/fakes/fake_agent_extension.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_msgbus.h"
#include "tests/unit/fakes/fake_time.h"

namespace {

constexpr int32_t index_of_row = 7;
const std::string function = "do_cp_runningtostartup";
const std::string initiated("\x40\x1e\x00\x03", 4);
const std::string done(4, '\0');
const std::string refused("\x40\x1e\x00\x07", 4);

constexpr uint32_t answer_opcode = MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION;

class SystemManager : public ModuleTest {
  protected:
    // A request in the table in the running state that the launch leaves.
    static std::unique_ptr<ccCopyEntry> running_request(int32_t dest,
                                                        int32_t source = COPY_FILE_RUNNING) {
        auto record = copy_request(source, dest);
        record->ccCopyState = COPY_STATE_RUNNING;
        record->ccCopyEntryRowStatus = ROW_STATUS_ACTIVE;
        record->ccCopyTimeStarted = {TimeFake::start - 1, 0};
        if (!row_exists(index_of_row)) {
            add_row(index_of_row);
        }
        store_row(*record);
        return record;
    }
    static std::string octets_of(const ccCopyEntry &record) {
        return {reinterpret_cast<const char *>(&record), sizeof record};
    }
    static void release_start_request() {
        ASSERT_NE(cfg_action_request, nullptr);
        fake_msgbus.release(std::exchange(cfg_action_request, nullptr));
    }
    // The payload of the start request for this destination, user and session.
    static std::string payload_of(int32_t dest, const std::string &user,
                                  const std::string &session) {
        fake_agent_extension.user = user;
        fake_agent_extension.session = session;
        fake_msgbus.answers = {{0, answer_opcode, done}};
        const auto record = running_request(dest);
        EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
        const Lines calls = journal.take();
        const std::string head = "send 7 fe000000 3 1381 ";
        EXPECT_EQ(calls.at(0).substr(0, head.size()), head);
        std::string octets;
        for (std::size_t at = head.size(); at + 1 < calls[0].size() && calls[0][at] != ' ';
             at += 2) {
            octets.push_back(static_cast<char>(std::stoi(calls[0].substr(at, 2), nullptr, 16)));
        }
        return octets;
    }
    static std::string sent_user(const std::string &user) {
        return payload_of(COPY_FILE_STARTUP, user, "").substr(44, 32).c_str();
    }
};

// --- the start request

std::string start_payload(bool fabric, bool all, const std::string &user,
                          const std::string &session) {
    std::string payload(140, '\0');
    payload[3] = 26;
    payload[7] = 1;
    payload[10] = 1;
    payload[31] = fabric ? 1 : 0;
    payload[43] = all ? 1 : 0;
    payload.replace(44, user.size(), user);
    payload.replace(76, session.size(), session);
    return payload;
}

TEST_F(SystemManager, StartRequest) {
    const auto check = [](int32_t dest, bool fabric, bool all) {
        const std::string payload = payload_of(dest, "operator", "session-1");
        const std::string expected = start_payload(fabric, all, "operator", "session-1");
        EXPECT_EQ(hex(payload.data(), payload.size()), hex(expected.data(), expected.size()));
    };
    check(COPY_FILE_STARTUP, false, false);
    check(COPY_FILE_FABRIC_STARTUP, true, false);
    check(COPY_FILE_ALL_STARTUP, false, true);
}

TEST_F(SystemManager, LongUserAndSessionAreCut) {
    const std::string payload =
        payload_of(COPY_FILE_STARTUP, std::string(31, 'u').append("U"), std::string(200, 's'));
    const std::string expected =
        start_payload(false, false, std::string(31, 'u'), std::string(31, 's'));
    EXPECT_EQ(hex(payload.data(), payload.size()), hex(expected.data(), expected.size()));
}

TEST_F(SystemManager, NoUserAndNoSession) {
    const std::string payload = payload_of(COPY_FILE_STARTUP, "", "");
    const std::string expected = start_payload(false, false, "", "");
    EXPECT_EQ(hex(payload.data(), payload.size()), hex(expected.data(), expected.size()));
}

// A '%' is a conversion, but a harmless one.
TEST_F(SystemManager, PercentSignInUserAndSession) {
    EXPECT_EQ(sent_user("100%%"), "100%");
    EXPECT_EQ(sent_user("a%%b%%%%c"), "a%b%%c");
    EXPECT_NE(sent_user("a%db").substr(0, 3), "a%d");
    EXPECT_EQ(payload_of(COPY_FILE_STARTUP, "", "s%%1").substr(76, 5), std::string("s%1\0\0", 5));
}

class HostileName : public SystemManager, public ::testing::WithParamInterface<const char *> {};

TEST_P(HostileName, DoesNoHarm) {
    const std::string payload = payload_of(COPY_FILE_FABRIC_STARTUP, GetParam(), GetParam());
    ASSERT_EQ(payload.size(), 140U);
    // Both texts end inside their fields, and nothing else changes.
    for (const std::size_t at : {44U, 76U}) {
        EXPECT_NE(payload.substr(at, 32).find('\0'), std::string::npos);
    }
    const std::string expected = start_payload(true, false, "", "");
    EXPECT_EQ(payload.substr(0, 44), expected.substr(0, 44));
    EXPECT_EQ(payload.substr(108), expected.substr(108));
}
INSTANTIATE_TEST_SUITE_P(
    SystemManager, HostileName,
    ::testing::Values("%s%n%9$s%99999d%*d%Lf", "%s", "%n", "%hhn%hn%ln%lln%jn%zn%tn", "%9$s",
                      "%1$n", "%99999d", "%*d", "%*.*s", "%.99999s", "%.*s", "%Lf", "%La", "%p",
                      "%c", "%lc", "%ls", "%S", "%C", "%m", "%", "a%", "%-", "%l", "%5", "%5$",
                      "%1$*2$d", "%hhd%hd%ld%lld%jd%zd%td", "%e%g%a%f%x%o%u%X%i",
                      "%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s", "%y", "%'d%I64d", "%2147483648d",
                      "%4294967297$s", "%-2147483647d", "%.2147483647f", "%20$n", "%#0- +10.3lls"));

// --- no answer

TEST_F(SystemManager, RequestThatCannotBeSent) {
    // a request of an earlier exchange that ended without an answer
    for (const bool kept : {false, true}) {
        fake_msgbus.send_errors = {ECONNREFUSED};
        cfg_action_request = kept ? fake_msgbus.make(answer_opcode, "") : nullptr;
        fake_evtrace.clear();
        const auto record = running_request(COPY_FILE_STARTUP);
        record->ccCopyNotificationOnCompletion = TRUTH_TRUE;
        const std::string stored = octets_of(stored_row(index_of_row));
        EXPECT_EQ(do_cp_runningtostartup(record.get()), CCERR_SEND_FAILED);
        const Lines calls = journal.take();
        ASSERT_EQ(calls.size(), kept ? 2U : 1U);
        EXPECT_EQ(cfg_action_request, nullptr);
        EXPECT_EQ(record->ccCopyState, COPY_STATE_FAILED);
        EXPECT_EQ(record->ccCopyTimeCompleted.tv_sec, TimeFake::start);
        EXPECT_EQ(record->ccCopyTimeCompleted.tv_usec, 250000);
        EXPECT_EQ(record->ccCopyFailCause, COPY_FAIL_GENERAL);
        EXPECT_EQ(octets_of(stored_row(index_of_row)), stored);
        EXPECT_LOGGED(EVTRACE_DEBUG, "Sending request to warden to start copy running to startup");
        EXPECT_LOGGED(EVTRACE_ERROR,
                      function +
                          " :  Unable to send message MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION: "
                          "Connection refused (111).\n");
    }
}

TEST_F(SystemManager, EtimeIsWaitedOut) {
    fake_msgbus.answers = {
        {ETIME, 0, ""}, {ETIME, 0, ""}, {ETIME, 0, ""}, {ETIME, 0, ""}, {0, answer_opcode, done}};
    const auto record = running_request(COPY_FILE_STARTUP);
    EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
    const Lines calls = journal.take();
    ASSERT_EQ(calls.size(), 8U);
    EXPECT_TRUE(calls[0].ends_with(" kept"));
    EXPECT_EQ(Lines(calls.begin() + 1, calls.end()),
              (Lines{"receive 7", "receive 7", "receive 7", "receive 7", "receive 7", "drop 1381",
                     "drop 1381"}));
    EXPECT_EQ(record->ccCopyState, COPY_STATE_SUCCESSFUL);
}

TEST_F(SystemManager, AnyOtherErrorEndsTheWait) {
    for (const int error : {ECONNRESET, ETIMEDOUT, EINTR, EAGAIN}) {
        fake_msgbus.answers = {{ETIME, 0, ""}, {error, 0, ""}};
        fake_evtrace.clear();
        const auto record = running_request(COPY_FILE_STARTUP);
        const std::string stored = octets_of(stored_row(index_of_row));
        EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
        const Lines calls = journal.take();
        EXPECT_EQ(Lines(calls.begin() + 1, calls.end()), (Lines{"receive 7", "receive 7"}));
        EXPECT_EQ(octets_of(stored_row(index_of_row)), stored);
        EXPECT_EQ(record->ccCopyState, COPY_STATE_RUNNING);
        EXPECT_LOGGED(
            EVTRACE_ERROR,
            function + " : no response from warden (error id ffffffff). may be copy is progress\n");
        release_start_request();
    }
}

TEST_F(SystemManager, UnknownMessageEndsTheWait) {
    fake_msgbus.answers = {{0, 1391, ""}};
    const auto record = running_request(COPY_FILE_STARTUP);
    const std::string stored = octets_of(stored_row(index_of_row));
    EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
    const Lines calls = journal.take();
    EXPECT_EQ(Lines(calls.begin() + 1, calls.end()), (Lines{"receive 7", "drop 1391"}));
    EXPECT_EQ(octets_of(stored_row(index_of_row)), stored);
    EXPECT_LOGGED(EVTRACE_ERROR, function + ": unknown message 1391 received, dropping.\n");
    release_start_request();
}

// --- answers

TEST_F(SystemManager, CopyIsInitiated) {
    fake_msgbus.answers = {{0, answer_opcode, initiated}};
    const auto record = running_request(COPY_FILE_FABRIC_STARTUP);
    const std::string stored = octets_of(stored_row(index_of_row));
    EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
    const Lines calls = journal.take();
    EXPECT_EQ(Lines(calls.begin() + 1, calls.end()), (Lines{"receive 7", "drop 1381"}));
    EXPECT_EQ(octets_of(stored_row(index_of_row)), stored);
    EXPECT_EQ(octets_of(*record), stored);
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{
                  {EVTRACE_DEBUG, "Sending request to warden to start copy running to startup"},
                  {EVTRACE_DEBUG, function + " : copy state : syserr2str 0x401e0003\n"},
                  {EVTRACE_DEBUG, function + " : copy is initiated\n"}}));
    ASSERT_NE(cfg_action_request, nullptr);
    EXPECT_EQ(msgbus_rr_token_get(cfg_action_request), MsgbusFake::first_token);
    release_start_request();
}

TEST_F(SystemManager, CopyIsDone) {
    fake_msgbus.answers = {{0, answer_opcode, done}};
    const auto record = running_request(COPY_FILE_STARTUP);
    record->ccCopyNotificationOnCompletion = TRUTH_TRUE;
    const std::string stored = octets_of(stored_row(index_of_row));
    EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
    EXPECT_EQ(journal.take().size(), 4U);
    EXPECT_EQ(cfg_action_request, nullptr);
    EXPECT_EQ(record->ccCopyState, COPY_STATE_SUCCESSFUL);
    EXPECT_EQ(record->ccCopyTimeCompleted.tv_sec, TimeFake::start);
    EXPECT_EQ(record->ccCopyTimeCompleted.tv_usec, 250000);
    EXPECT_EQ(octets_of(stored_row(index_of_row)), stored); // only the caller's copy changes
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{
                  {EVTRACE_DEBUG, "Sending request to warden to start copy running to startup"},
                  {EVTRACE_DEBUG, function + " : copy state : syserr2str 0x00000000\n"},
                  {EVTRACE_DEBUG, function + " : copy is done\n\n"}}));
}

TEST_F(SystemManager, CopyIsRefused) {
    for (const int32_t notify : {TRUTH_FALSE, TRUTH_TRUE}) {
        fake_msgbus.answers = {{0, answer_opcode, refused}};
        fake_evtrace.clear();
        const auto record = running_request(COPY_FILE_FABRIC_STARTUP);
        record->ccCopyNotificationOnCompletion = notify;
        EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
        EXPECT_EQ(journal.take().size(), 4U);
        EXPECT_EQ(cfg_action_request, nullptr);
        const ccCopyEntry row = stored_row(index_of_row);
        EXPECT_EQ(row.ccCopyState, COPY_STATE_FAILED);
        EXPECT_EQ(row.ccCopyFailCause, COPY_FAIL_WARDEN_REFUSED);
        EXPECT_EQ(row.ccCopyTimeCompleted.tv_sec, TimeFake::start);
        EXPECT_EQ(record->ccCopyState, COPY_STATE_FAILED);
        EXPECT_EQ(record->ccCopyFailCause, COPY_FAIL_WARDEN_REFUSED);
        EXPECT_LOGGED(EVTRACE_DEBUG, function + " : copy state : syserr2str 0x401e0007\n");
        EXPECT_LOGGED(EVTRACE_ERROR, function + " : copy failed\n");
        ccCopyErrorEntry error{};
        EXPECT_NE(getnextCcCopyErrorEntry(&error), 0U); // the error table is not filled
        const auto notifications = fake_agent_extension.notifications.take();
        ASSERT_EQ(notifications.size(), notify == TRUTH_TRUE ? 1U : 0U);
        if (notify == TRUTH_TRUE) {
            EXPECT_EQ(notifications[0].kind, 6);
            EXPECT_EQ(notifications[0].name,
                      (Oid{1, 3, 6, 1, 4, 1, 41927, 9, 96, 2, 1, 1, index_of_row}));
            EXPECT_EQ(notifications[0].bindings.size(), 8U);
        }
    }
}

TEST_F(SystemManager, EveryOtherStatusIsARefusal) {
    for (const std::string &status :
         {std::string("\0\0\0\1", 4), std::string("\3\0\x1e\x40", 4),
          std::string("\xff\xff\xff\xff", 4), std::string("\1\0\0\0", 4),
          std::string("\x40\x1e\0\3", 4).replace(3, 1, "\4")}) {
        fake_msgbus.answers = {{0, answer_opcode, status}};
        const auto record = running_request(COPY_FILE_STARTUP);
        EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
        EXPECT_EQ(stored_row(index_of_row).ccCopyFailCause, COPY_FAIL_WARDEN_REFUSED);
        journal.take();
    }
}

TEST_F(SystemManager, RefusedCopyOfARowThatIsGone) {
    const auto record = running_request(COPY_FILE_STARTUP);
    ASSERT_EQ(deleteCcCopyEntry(record.get()), 0U);
    fake_msgbus.answers = {{0, answer_opcode, refused}};
    EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
    EXPECT_LOGGED(EVTRACE_ERROR, "ERROR  " + function + " : Set to entry (index= 7) failed \n");
    journal.take();
}

// An answer without a status word does not mean "done".
TEST_F(SystemManager, AnswerWithoutAStatus) {
    fake_msgbus.answers = {{0, answer_opcode, ""}};
    const auto record = running_request(COPY_FILE_STARTUP);
    EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
    EXPECT_NE(stored_row(index_of_row).ccCopyState, COPY_STATE_SUCCESSFUL);
    EXPECT_NE(record->ccCopyState, COPY_STATE_SUCCESSFUL);
    journal.take();
    if (cfg_action_request != nullptr) {
        release_start_request();
    }
}

TEST_F(SystemManager, AgentsDebugFileGetsStateAndSilence) {
    FILE *file = tmpfile();
    ASSERT_NE(file, nullptr);
    const auto written = [file] {
        fflush(file);
        std::string text(static_cast<std::size_t>(ftell(file)), '\0');
        rewind(file);
        EXPECT_EQ(fread(text.data(), 1, text.size(), file), text.size());
        rewind(file);
        EXPECT_EQ(ftruncate(fileno(file), 0), 0);
        return text;
    };
    ld_dbg_fp = file;
    fake_msgbus.answers = {{0, answer_opcode, done}};
    do_cp_runningtostartup(running_request(COPY_FILE_STARTUP).get());
    EXPECT_EQ(written(), function + " : copy state : syserr2str 0x00000000\n");

    fake_msgbus.answers = {{EPIPE, 0, ""}};
    do_cp_runningtostartup(running_request(COPY_FILE_STARTUP).get());
    EXPECT_EQ(written(),
              function +
                  " : no response from warden (error id ffffffff). may be copy is progress\n");
    release_start_request();
    ld_dbg_fp = nullptr;
    fclose(file);
    journal.take();
}

// A request may still be kept after its row has gone, for example if the row aged out after an
// abandoned destroy.
TEST_F(SystemManager, NextRequestReplacesOneThatIsKeptStill) {
    cfg_action_request = fake_msgbus.make(answer_opcode, "");
    fake_msgbus.answers = {{0, answer_opcode, initiated}};
    EXPECT_EQ(do_cp_runningtostartup(running_request(COPY_FILE_STARTUP).get()), 0U);
    // the previous request dropped; sent, received, answer dropped
    ASSERT_EQ(journal.take().size(), 4U);
    ASSERT_NE(cfg_action_request, nullptr);
    EXPECT_EQ(msgbus_rr_token_get(cfg_action_request), MsgbusFake::first_token);
    release_start_request(); // the fake detects a lost message
}

// --- abort

class Abort : public SystemManager {
  protected:
    // Leaves a start request in place, as an initiated copy does.
    static std::unique_ptr<ccCopyEntry> initiated_copy(int32_t dest) {
        fake_msgbus.answers = {{0, answer_opcode, initiated}};
        auto record = running_request(dest);
        EXPECT_EQ(do_cp_runningtostartup(record.get()), 0U);
        journal.take();
        fake_evtrace.clear();
        return record;
    }
};

const Lines abort_calls = {"send 7 fe000000 3 1383 a1b2c3d400000000", "drop 1381"};

TEST_F(Abort, OfEachDestination) {
    for (const int32_t dest :
         {COPY_FILE_STARTUP, COPY_FILE_FABRIC_STARTUP, COPY_FILE_ALL_STARTUP}) {
        fake_msgbus.next_token = MsgbusFake::first_token;
        const auto record = initiated_copy(dest);
        EXPECT_EQ(handle_abort(record.get()), 0U);
        EXPECT_EQ(journal.take(), abort_calls);
        EXPECT_EQ(cfg_action_request, nullptr);
        EXPECT_EQ(fake_evtrace.history,
                  (std::vector<EvtraceFake::Record>{
                      {EVTRACE_DEBUG,
                       "Sending request to warden to abort the copy running to startup"}}));
    }
}

TEST_F(Abort, ThatCannotBeSent) {
    const auto record = initiated_copy(COPY_FILE_STARTUP);
    fake_msgbus.send_errors = {ECONNREFUSED};
    EXPECT_EQ(handle_abort(record.get()), 0U);
    EXPECT_EQ(journal.take(), abort_calls);
    EXPECT_EQ(cfg_action_request, nullptr);
}

TEST_F(Abort, OfAnyOtherRowSendsNothing) {
    initiated_copy(COPY_FILE_STARTUP);
    for (int32_t state = 0; state <= 5; ++state) {
        for (int32_t source = 0; source <= 8; ++source) {
            for (int32_t dest = 0; dest <= 8; ++dest) {
                if (state == COPY_STATE_RUNNING && source == 4 &&
                    (dest == 3 || dest == 6 || dest == 7)) {
                    continue;
                }
                const auto other = copy_request(source, dest);
                other->ccCopyState = state;
                EXPECT_EQ(handle_abort(other.get()), 0U);
                ASSERT_EQ(journal.take(), Lines{}) << state << ": " << source << " to " << dest;
            }
        }
    }
    EXPECT_TRUE(fake_evtrace.history.empty());
    release_start_request();
}

// The row still runs if the system manager gave no usable answer and the request was dropped.
TEST_F(Abort, WithoutAStartRequest) {
    const auto record = running_request(COPY_FILE_STARTUP);
    ASSERT_EQ(cfg_action_request, nullptr);
    EXPECT_EQ(handle_abort(record.get()), 0U);
    for (const std::string &call : journal.take()) {
        EXPECT_EQ(call, "send 7 fe000000 3 1383 0000000000000000");
    }
}

TEST_F(Abort, ComesWithTheDestructionOfTheRow) {
    ASSERT_EQ(init_config_copy_mib(), 0);
    initiated_copy(COPY_FILE_ALL_STARTUP);
    EXPECT_EQ(set({{CC_COLUMN_ENTRY_ROW_STATUS, index_of_row, integer(ROW_STATUS_DESTROY)}}).status,
              SNMP_ERR_NOERROR);
    EXPECT_EQ(journal.take(), abort_calls);
    EXPECT_FALSE(row_exists(index_of_row));
    deinit_config_copy_mib();
}

} // namespace
