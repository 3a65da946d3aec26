// The platform messages that begin and end copies, and their effect on the rows.

#include "platform/system_manager.h"
#include "tests/unit/fakes/execution_fixture.h"
#include "tests/unit/fakes/fake_agent_extension.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_fabric.h"
#include "tests/unit/fakes/fake_keyedset.h"
#include "tests/unit/fakes/fake_msgbus.h"
#include "tests/unit/fakes/fake_time.h"

namespace {

using Records = std::vector<EvtraceFake::Record>;

class Completion : public ModuleTest {
  protected:
    // Adds a row of this kind to the table.
    static void add(int32_t index, int32_t state, int32_t source, int32_t dest,
                    int32_t notify = TRUTH_FALSE) {
        const auto record = copy_request(source, dest);
        record->ccCopyIndex = index;
        record->ccCopyState = state;
        record->ccCopyNotificationOnCompletion = notify;
        record->ccCopyFailCause = 42; // shows whether anything writes it
        add_row(index);
        store_row(*record);
    }
    static std::string octets_of(int32_t index) {
        const ccCopyEntry row = stored_row(index);
        return {reinterpret_cast<const char *>(&row), sizeof row};
    }

    struct Handled {
        uint32_t send_flag;
        std::vector<Binding> bindings; // of the returned list
        Oid name;                      // of the notification
    };
    // Passes a message to the handler as the agent's dispatcher does: with an old send flag and the
    // outcome word.
    static Handled handle(uint32_t opcode, const std::string &payload, uint32_t outcome = 0) {
        msgbus_message *message = fake_msgbus.make(opcode, payload);
        oid name[AGENT_NOTIFICATION_OID_MAX] = {};
        uint32_t length = outcome;
        uint32_t send_flag = 77;
        netsnmp_variable_list *list = handle_notifications(message, name, &length, &send_flag);
        EXPECT_TRUE(fake_msgbus.alive.contains(message)) << "the message is the dispatcher's";
        fake_msgbus.release(message);
        Handled handled{send_flag, {}, {}};
        if (list != nullptr) {
            handled.name.assign(name, name + length);
            handled.bindings = taken_bindings(list);
        }
        return handled;
    }
    static Handled worker_status(int32_t status) {
        return handle(AGENT_OPC_WORKER_STATUS,
                      std::string(reinterpret_cast<const char *>(&status), sizeof status));
    }
    // The handler returns nothing for the dispatcher to send.
    static void expect_nothing_returned(const Handled &handled) {
        EXPECT_EQ(handled.send_flag, 0U);
        EXPECT_TRUE(handled.bindings.empty());
    }
    static void expect_sent(int32_t index) {
        const auto sent = fake_agent_extension.notifications.take();
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0].kind, 6);
        EXPECT_EQ(sent[0].name,
                  (Oid{1, 3, 6, 1, 4, 1, 41927, 9, 96, 2, 1, 1, static_cast<oid>(index)}));
        EXPECT_EQ(sent[0].bindings.size(), 8U);
    }
    // The start request of an initiated copy.
    static void keep_start_request() {
        cfg_action_request = fake_msgbus.make(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, "");
    }
};

// --- worker status

TEST_F(Completion, WorkerSucceeded) {
    add(3, COPY_STATE_WAITING, COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    child_copy_running = 1;
    expect_nothing_returned(worker_status(0));
    const ccCopyEntry row = stored_row(7);
    EXPECT_EQ(row.ccCopyState, COPY_STATE_SUCCESSFUL);
    EXPECT_EQ(row.ccCopyFailCause, 1);
    EXPECT_EQ(row.ccCopyTimeCompleted.tv_sec, TimeFake::start);
    EXPECT_EQ(row.ccCopyTimeCompleted.tv_usec, 250000);
    EXPECT_EQ(child_copy_running, 0);
    EXPECT_EQ(stored_row(3).ccCopyState, COPY_STATE_WAITING);
    EXPECT_EQ(fake_evtrace.history,
              (Records{{EVTRACE_ERROR, "handle_copy_done : Copy is done with status 0\n"}}));
}

TEST_F(Completion, WorkerFailed) {
    for (const int32_t status : {1, 2, 3, 4, 5, 6, 7, -1, 0x01020304}) {
        add(7, COPY_STATE_RUNNING, COPY_FILE_NETWORK, COPY_FILE_RUNNING);
        child_copy_running = 1;
        fake_evtrace.clear();
        expect_nothing_returned(worker_status(status));
        EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_FAILED);
        EXPECT_EQ(stored_row(7).ccCopyFailCause, status);
        EXPECT_EQ(stored_row(7).ccCopyTimeCompleted.tv_sec, TimeFake::start);
        EXPECT_EQ(child_copy_running, 0);
        EXPECT_LOGGED(EVTRACE_ERROR, "handle_copy_done : Copy is done with status " +
                                         std::to_string(status) + "\n");
        const ccCopyEntry row = stored_row(7);
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
    }
}

TEST_F(Completion, WorkerStatusWithoutPayloadIsAFailure) {
    // missing or too short
    for (const std::string &payload : {std::string(), std::string(3, '\0')}) {
        add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_NETWORK);
        child_copy_running = 1;
        fake_evtrace.clear();
        expect_nothing_returned(handle(AGENT_OPC_WORKER_STATUS, payload));
        EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_FAILED);
        EXPECT_EQ(stored_row(7).ccCopyFailCause, 1);
        EXPECT_EQ(child_copy_running, 0);
        EXPECT_EQ(fake_evtrace.history,
                  (Records{{EVTRACE_ERROR, "handle_notifications: MSGBUS Payload NULL\n"},
                           {EVTRACE_ERROR, "handle_copy_done : Copy is done with status 1\n"}}));
        const ccCopyEntry row = stored_row(7);
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
    }
}

TEST_F(Completion, FirstRunningRowIsCompleted) {
    add(9, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    add(4, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    worker_status(0);
    EXPECT_EQ(stored_row(4).ccCopyState, COPY_STATE_SUCCESSFUL);
    EXPECT_EQ(stored_row(9).ccCopyState, COPY_STATE_RUNNING);
}

TEST_F(Completion, WorkerEndIsNotified) {
    add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_NETWORK, TRUTH_TRUE);
    expect_nothing_returned(worker_status(2)); // sent by the module itself
    const auto sent = fake_agent_extension.notifications.take();
    ASSERT_EQ(sent.size(), 1U);
    ASSERT_EQ(sent[0].bindings.size(), 8U);
    EXPECT_EQ(sent[0].name, (Oid{1, 3, 6, 1, 4, 1, 41927, 9, 96, 2, 1, 1, 7}));
    EXPECT_EQ(sent[0].bindings[3].value, "4"); // the row as it is now: state and fail cause
    EXPECT_EQ(sent[0].bindings[6].value, "2");
}

TEST_F(Completion, OnlyTrueAsksForANotification) {
    for (const int32_t notify : {0, 2, 3, -1, 0x101}) {
        add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_NETWORK, notify);
        worker_status(0);
        EXPECT_EQ(fake_agent_extension.notifications.take().size(), 0U);
        const ccCopyEntry row = stored_row(7);
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
    }
}

TEST_F(Completion, NoRunningRowSendsTheLastRowsNotification) {
    add(3, COPY_STATE_WAITING, COPY_FILE_RUNNING, COPY_FILE_NETWORK, TRUTH_FALSE);
    add(9, COPY_STATE_SUCCESSFUL, COPY_FILE_RUNNING, COPY_FILE_NETWORK, TRUTH_TRUE);
    const std::string before = octets_of(9);
    child_copy_running = 1;
    expect_nothing_returned(worker_status(0));
    EXPECT_EQ(child_copy_running, 0);
    EXPECT_EQ(octets_of(9), before);
    expect_sent(9);
    EXPECT_EQ(
        fake_evtrace.count(EVTRACE_DEBUG, "handle_copy_done : No copy is running... 9 \n") +
            fake_evtrace.count(EVTRACE_ERROR, "handle_copy_done : No copy is running... 9 \n"),
        1);
}

TEST_F(Completion, NoRunningRowAndALastRowWithoutNotification) {
    add(3, COPY_STATE_WAITING, COPY_FILE_RUNNING, COPY_FILE_NETWORK, TRUTH_TRUE);
    add(9, COPY_STATE_FAILED, COPY_FILE_RUNNING, COPY_FILE_NETWORK, TRUTH_FALSE);
    worker_status(0);
    EXPECT_EQ(fake_agent_extension.notifications.take().size(), 0U);
}

TEST_F(Completion, NoRowAtAll) {
    child_copy_running = 1;
    expect_nothing_returned(worker_status(0));
    EXPECT_EQ(child_copy_running, 0);
    EXPECT_EQ(
        fake_evtrace.count(EVTRACE_DEBUG, "handle_copy_done : No copy is running... 0 \n") +
            fake_evtrace.count(EVTRACE_ERROR, "handle_copy_done : No copy is running... 0 \n"),
        1);
}

TEST_F(Completion, ExportedEndsBothRecordAFailure) {
    for (uint32_t (*end)() : {&handle_copy_failure, &handle_copy_success}) {
        add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_NETWORK);
        child_copy_running = 1;
        end();
        EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_FAILED);
        EXPECT_EQ(stored_row(7).ccCopyFailCause, 1);
        EXPECT_EQ(child_copy_running, 0);
        const ccCopyEntry row = stored_row(7);
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
    }
}

// --- the system manager's copy begins

TEST_F(Completion, BegunCopyRuns) {
    add(3, COPY_STATE_SUCCESSFUL, COPY_FILE_RUNNING, COPY_FILE_STARTUP);
    add(5, COPY_STATE_WAITING, COPY_FILE_NETWORK, COPY_FILE_RUNNING); // no further check of the row
    add(7, COPY_STATE_WAITING, COPY_FILE_RUNNING, COPY_FILE_STARTUP);
    ccCopyEntry expected = stored_row(5);
    expected.ccCopyState = COPY_STATE_RUNNING;
    expect_nothing_returned(handle(MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN, ""));
    // and nothing else changes
    EXPECT_EQ(octets_of(5),
              std::string(reinterpret_cast<const char *>(&expected), sizeof expected));
    EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_WAITING);
    EXPECT_EQ(stored_row(3).ccCopyState, COPY_STATE_SUCCESSFUL);
    EXPECT_EQ(fake_evtrace.history, Records{});
}

TEST_F(Completion, BegunCopyWithoutAWaitingRow) {
    add(3, COPY_STATE_SUCCESSFUL, COPY_FILE_RUNNING, COPY_FILE_STARTUP, TRUTH_TRUE);
    const std::string before = octets_of(3);
    expect_nothing_returned(handle(MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN, ""));
    EXPECT_EQ(octets_of(3), before);
    EXPECT_EQ(fake_evtrace.history, Records{});
}

// --- the system manager's copy ends

TEST_F(Completion, EndedCopySucceeded) {
    for (const int32_t dest :
         {COPY_FILE_STARTUP, COPY_FILE_FABRIC_STARTUP, COPY_FILE_ALL_STARTUP}) {
        add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, dest);
        keep_start_request();
        fake_evtrace.clear();
        expect_nothing_returned(handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, std::string(4, '\0'), 0));
        const ccCopyEntry row = stored_row(7);
        EXPECT_EQ(row.ccCopyState, COPY_STATE_SUCCESSFUL);
        EXPECT_EQ(row.ccCopyFailCause, 42); // unchanged
        EXPECT_EQ(row.ccCopyTimeCompleted.tv_sec, TimeFake::start);
        EXPECT_EQ(row.ccCopyTimeCompleted.tv_usec, 250000);
        EXPECT_EQ(journal.take(),
                  (Lines{"configuration changed 2", "configuration changed 3", "drop 1381"}));
        EXPECT_EQ(cfg_action_request, nullptr);
        EXPECT_EQ(
            fake_evtrace.history,
            (Records{{EVTRACE_DEBUG, "handle_notifications: COPY SUCCESSFULL trap enabled 0\n"}}));
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
    }
}

TEST_F(Completion, EndedCopyFailed) {
    for (const int32_t dest : {COPY_FILE_STARTUP, COPY_FILE_ALL_STARTUP}) {
        add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, dest);
        keep_start_request();
        fake_evtrace.clear();
        // any word but zero
        expect_nothing_returned(handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, "", 0x80000000));
        const ccCopyEntry row = stored_row(7);
        EXPECT_EQ(row.ccCopyState, COPY_STATE_FAILED);
        EXPECT_EQ(row.ccCopyFailCause, COPY_FAIL_WARDEN_FAILED);
        EXPECT_EQ(row.ccCopyTimeCompleted.tv_sec, TimeFake::start);
        EXPECT_EQ(journal.take(), Lines{"drop 1381"});
        EXPECT_EQ(fake_evtrace.history,
                  (Records{{EVTRACE_ERROR, "handle_notifications: COPY failed\n"}}));
        EXPECT_TRUE(fake_fabric.calls.empty());
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
    }
}

TEST_F(Completion, FailedFabricCopyFillsTheErrorTable) {
    fake_fabric.scripted = true;
    fake_fabric.switches = {
        {{1, 2, 3, 4, 5, 6, 7, 8}, false, {INET_ADDRESS_IPV4, {10, 0, 0, 9}}, "no space left"},
        {{1, 2, 3, 4, 5, 6, 7, 9}, false, {INET_ADDRESS_IPV4, {10, 0, 0, 10}}, "success"}};
    add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_FABRIC_STARTUP);
    keep_start_request();
    expect_nothing_returned(handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, "", 1));
    EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_FAILED);
    EXPECT_EQ(stored_row(7).ccCopyFailCause, COPY_FAIL_WARDEN_FAILED);
    ccCopyErrorEntry error{};
    ASSERT_EQ(getnextCcCopyErrorEntry(&error), 0U);
    EXPECT_EQ(error.ccCopyIndex, 7);
    EXPECT_EQ(text_of(error.ccCopyErrorText), "no space left");
    ASSERT_EQ(getnextCcCopyErrorEntry(&error), 0U);
    EXPECT_EQ(text_of(error.ccCopyErrorText), "success");
    EXPECT_EQ(journal.take(), Lines{"drop 1381"});
}

TEST_F(Completion, SucceededFabricCopyFillsNothing) {
    add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_FABRIC_STARTUP);
    handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, "", 0);
    EXPECT_TRUE(fake_fabric.calls.empty());
    EXPECT_EQ(journal.take(), (Lines{"configuration changed 2", "configuration changed 3"}));
}

TEST_F(Completion, EndedCopyIsNotifiedThroughTheDispatcher) {
    for (const uint32_t outcome : {0U, 5U}) {
        add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_STARTUP, TRUTH_TRUE);
        fake_evtrace.clear();
        const Handled handled = handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, "", outcome);
        EXPECT_EQ(handled.send_flag, 1U);
        EXPECT_EQ(handled.name, (Oid{1, 3, 6, 1, 4, 1, 41927, 9, 96, 2, 1, 1, 7}));
        ASSERT_EQ(handled.bindings.size(), 8U);
        EXPECT_EQ(handled.bindings[3].value, outcome == 0 ? "3" : "4");
        EXPECT_EQ(handled.bindings[6].value, outcome == 0 ? "42" : "9");
        EXPECT_EQ(fake_evtrace.count(EVTRACE_DEBUG,
                                     "handle_notifications: COPY SUCCESSFULL trap enabled 1\n"),
                  outcome == 0 ? 1 : 0);
        journal.take();
        const ccCopyEntry row = stored_row(7);
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
    }
}

TEST_F(Completion, EndedCopyOfSomebodyElse) {
    for (int32_t source = 0; source <= 8; ++source) {
        for (int32_t dest = 0; dest <= 8; ++dest) {
            if (source == 4 && (dest == 3 || dest == 6 || dest == 7)) {
                continue;
            }
            add(7, COPY_STATE_RUNNING, source, dest, TRUTH_TRUE);
            const std::string before = octets_of(7);
            fake_evtrace.clear();
            expect_nothing_returned(handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, "", 0));
            EXPECT_EQ(octets_of(7), before);
            ASSERT_EQ(fake_evtrace.history.size(), 1U);
            EXPECT_EQ(fake_evtrace.history[0].text,
                      "handle_notifications: copy run2start not initiated by us. ignore it\n");
            const ccCopyEntry row = stored_row(7);
            ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
        }
    }
}

// Only the first running row counts, even if a later one would match.
TEST_F(Completion, OnlyTheFirstRunningRowIsLookedAt) {
    add(3, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_NETWORK);
    add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_STARTUP);
    handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, "", 0);
    EXPECT_EQ(stored_row(3).ccCopyState, COPY_STATE_RUNNING);
    EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_RUNNING);
}

TEST_F(Completion, EndedCopyWithoutARunningRow) {
    add(7, COPY_STATE_WAITING, COPY_FILE_RUNNING, COPY_FILE_STARTUP, TRUTH_TRUE);
    const std::string before = octets_of(7);
    expect_nothing_returned(handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, "", 0));
    EXPECT_EQ(octets_of(7), before);
    EXPECT_EQ(fake_evtrace.history, Records{});
}

// --- rows that can't be written

// The write's search is the table's first search by key.
class UnwritableRow : public Completion {
  protected:
    static void fail_write() { fake_keyedset.fail_find(&ccCopyTable, 1); }
};

TEST_F(UnwritableRow, AtWorkerStatus) {
    add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_NETWORK, TRUTH_TRUE);
    fail_write();
    worker_status(2);
    EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_RUNNING);
    EXPECT_LOGGED(EVTRACE_ERROR, "handle_copy_done : Set to entry (index= 7) failed \n");
    const auto sent = fake_agent_extension.notifications.take(); // of how the copy ended
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].bindings.at(3).value, "4");
}

TEST_F(UnwritableRow, AtBegin) {
    add(7, COPY_STATE_WAITING, COPY_FILE_RUNNING, COPY_FILE_STARTUP);
    fail_write();
    expect_nothing_returned(handle(MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN, ""));
    EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_WAITING);
    EXPECT_EQ(fake_evtrace.history,
              (Records{{EVTRACE_ERROR,
                        "ERROR  handle_notifications : Set to entry (index= 7) failed \n"}}));
}

TEST_F(UnwritableRow, AtEnd) {
    add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_STARTUP, TRUTH_TRUE);
    keep_start_request();
    fail_write();
    const Handled handled = handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, "", 0);
    EXPECT_EQ(handled.send_flag, 1U);
    ASSERT_EQ(handled.bindings.size(), 8U);
    EXPECT_EQ(handled.bindings[3].value, "3");
    EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_RUNNING);
    EXPECT_LOGGED(EVTRACE_ERROR, "ERROR  handle_notifications : Set to entry (index= 7) failed \n");
    EXPECT_EQ(journal.take(),
              (Lines{"configuration changed 2", "configuration changed 3", "drop 1381"}));
}

// --- other messages, and subscriptions

TEST_F(Completion, OtherMessagesDoNothing) {
    add(7, COPY_STATE_RUNNING, COPY_FILE_RUNNING, COPY_FILE_STARTUP, TRUTH_TRUE);
    const std::string before = octets_of(7);
    child_copy_running = 1;
    for (const uint32_t opcode : {0U, 1381U, 1383U, 1360U, 1390U, 10272U, 10274U}) {
        expect_nothing_returned(handle(opcode, std::string(4, '\0')));
    }
    EXPECT_EQ(octets_of(7), before);
    EXPECT_EQ(child_copy_running, 1);
}

TEST_F(Completion, LoadSubscribesAndUnloadUnsubscribes) {
    EXPECT_EQ(init_config_copy_mib(), 0);
    const std::vector<uint32_t> opcodes = {1391, 1361, 10273};
    EXPECT_EQ(fake_agent_extension.registered, opcodes);
    for (const uint32_t opcode : opcodes) {
        EXPECT_EQ(fake_agent_extension.handlers[opcode], &handle_notifications) << opcode;
    }
    deinit_config_copy_mib();
    EXPECT_EQ(fake_agent_extension.unregistered, opcodes);
    EXPECT_TRUE(fake_agent_extension.handlers.empty());
}

TEST_F(Completion, LastSubscriptionIsTheResultOfTheLoad) {
    fake_agent_extension.register_results = {{1391, 11}, {1361, 12}};
    EXPECT_EQ(init_config_copy_mib(), 0);
    deinit_config_copy_mib();
    fake_agent_extension.register_results = {{10273, 13}};
    EXPECT_EQ(init_config_copy_mib(), 13);
    deinit_config_copy_mib();
}

// From the SET to the notification.
TEST_F(Completion, SavedCopyFromSetToEnd) {
    ASSERT_EQ(init_config_copy_mib(), 0);
    const oid index = 7;
    fake_msgbus.answers = {
        {0, MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, std::string("\x40\x1e\x00\x03", 4)}};
    EXPECT_EQ(
        set({{CC_COLUMN_ENTRY_ROW_STATUS, index, integer(ROW_STATUS_CREATE_AND_WAIT)}}).status,
        SNMP_ERR_NOERROR);
    EXPECT_EQ(set({{3, index, integer(COPY_FILE_RUNNING)},
                   {4, index, integer(COPY_FILE_STARTUP)},
                   {9, index, integer(TRUTH_TRUE)}})
                  .status,
              SNMP_ERR_NOERROR);
    EXPECT_EQ(set({{CC_COLUMN_ENTRY_ROW_STATUS, index, integer(ROW_STATUS_ACTIVE)}}).status,
              SNMP_ERR_NOERROR);
    EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_RUNNING);
    EXPECT_EQ(handle(MSGBUS_OPC_WARDEN_CFG_ACTION_END, "", 0).send_flag, 1U);
    EXPECT_EQ(stored_row(7).ccCopyState, COPY_STATE_SUCCESSFUL);
    EXPECT_EQ(cfg_action_request, nullptr);
    // sent, received, answer dropped; both changes marked, request dropped
    EXPECT_EQ(journal.take().size(), 6U);
    deinit_config_copy_mib();
}

} // namespace
