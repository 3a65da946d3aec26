// The write method of the row status, phase by phase, and its undo list.
#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_keyedset.h"
#include "tests/unit/fakes/fake_memory.h"
#include "tests/unit/fakes/fake_utilities.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

constexpr int reserve1 = 0;
constexpr int reserve2 = 1;
constexpr int action = 2;
constexpr int commit = 3;
constexpr int free_phase = 4;
constexpr int undo = 5;

constexpr oid largest_index = 2147483647;

Request status_request(long value, oid index = 5) {
    return Request({CC_COLUMN_ENTRY_ROW_STATUS, index, integer(value)});
}

std::string log_text(const std::string &text) {
    return "set_ccCopyEntryRowStatus" + text;
}

class RowStatus : public LoadedModuleTest {
  protected:
    static bool saved(int32_t index = 5) {
        ccCopyEntry key{};
        key.ccCopyIndex = index;
        return keyedset_find(&ccCopyUndoList, &key) != nullptr;
    }

    // A network copy without server and file name, so its activation is refused.
    static void add(int32_t index = 5) {
        add_row(index);
        fake_evtrace.clear();
    }

    static void make_running(int32_t index) {
        ccCopyEntry row = stored_row(index);
        row.ccCopyState = COPY_STATE_RUNNING;
        row.ccCopyEntryRowStatus = ROW_STATUS_ACTIVE;
        store_row(row);
    }

    static void remove(int32_t index) {
        ccCopyEntry key{};
        key.ccCopyIndex = index;
        ASSERT_EQ(deleteCcCopyEntry(&key), 0U);
    }

    static void expect_refused_while_copying() {
        EXPECT_LOGGED(EVTRACE_ERROR, ": set_ccCopyEntryRowStatus : Another Copy is in progress\n");
        EXPECT_EQ(fake_utilities.errors.take(),
                  (std::vector<std::pair<uint32_t, uint32_t>>{{0x40490049, 584}}));
    }
};

// --- RESERVE1

TEST_F(RowStatus, WrongType) {
    for (int type = 0; type <= 255; ++type) {
        if (type == ASN_INTEGER) {
            continue;
        }
        ::testing::internal::CaptureStderr();
        const int status =
            call_phase(set_ccCopyEntryRowStatus, reserve1,
                       with_type(integer(5), static_cast<unsigned char>(type)), 14, 5);
        const std::string text = ::testing::internal::GetCapturedStderr();
        ASSERT_EQ(status, SNMP_ERR_WRONGTYPE) << type;
        ASSERT_EQ(text, "write to ccCopyEntryRowStatus not ASN_INTEGER\n");
    }
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, reserve1, octet_string("5"), 14, 5),
              SNMP_ERR_WRONGTYPE);
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, reserve1, Value{ASN_NULL, 0, nullptr}, 14, 5),
              SNMP_ERR_WRONGTYPE);
    ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(stored_indexes().empty());
}

TEST_F(RowStatus, Length) {
    for (std::size_t length = 0; length <= 20; ++length) {
        SCOPED_TRACE(length);
        ::testing::internal::CaptureStderr();
        const int status = call_phase(set_ccCopyEntryRowStatus, reserve1,
                                      integer_of_length(ROW_STATUS_DESTROY, length), 14, 5);
        const std::string text = ::testing::internal::GetCapturedStderr();
        const bool accepted = length <= 4 || length == sizeof(long);
        EXPECT_EQ(status, accepted ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGLENGTH);
        EXPECT_EQ(text, accepted ? "" : "write to ccCopyEntryRowStatus: bad length\n");
    }
}

TEST_F(RowStatus, ValuesThatCannotBeWritten) {
    add();
    const ccCopyEntry before = stored_row(5);
    for (const long value : {2L, 3L, 0L, 7L, -1L, 255L, 2147483647L, -2147483647L - 1}) {
        EXPECT_EQ(status_request(value).run(reserve1), SNMP_ERR_INCONSISTENTVALUE) << value;
        EXPECT_EQ(status_request(value, 6).run(reserve1), SNMP_ERR_INCONSISTENTVALUE) << value;
    }
    const ccCopyEntry after = stored_row(5);
    EXPECT_EQ(memcmp(&before, &after, sizeof after), 0);
    EXPECT_FALSE(row_exists(6));
    EXPECT_FALSE(saved());
}

TEST_F(RowStatus, OnlyTheLow32BitsCount) {
    EXPECT_EQ(status_request(beyond_a_word(6)).run(reserve1), SNMP_ERR_NOERROR);
    EXPECT_EQ(status_request(beyond_a_word(2)).run(reserve1), SNMP_ERR_INCONSISTENTVALUE);
}

class Creation : public RowStatus, public ::testing::WithParamInterface<int32_t> {};

TEST_P(Creation, MakesTheRowInReserve1) {
    EXPECT_EQ(status_request(GetParam()).run(reserve1), 0);
    const ccCopyEntry row = stored_row(5);
    EXPECT_EQ(row.ccCopyEntryRowStatus, GetParam());
    EXPECT_EQ(row.ccCopyProtocol, COPY_PROTO_TFTP);
    EXPECT_EQ(row.ccCopyState, COPY_STATE_WAITING);
    EXPECT_EQ(row.reserve2_seen, 0);
    EXPECT_FALSE(saved());
    EXPECT_LOGGED(EVTRACE_DEBUG, log_text(" : Added new entry to ccCopyTable ( index = 5)\n"));
    EXPECT_LOGGED(EVTRACE_DEBUG, log_text(" : Setting ccCopyEntryRowStatus to 0 \n"));
}

TEST_P(Creation, NeedsAnIndexFrom1To2147483647) {
    for (const oid index : {0UL, 2147483648UL, 2147483649UL, 4294967295UL}) {
        EXPECT_EQ(status_request(GetParam(), index).run(reserve1), SNMP_ERR_INCONSISTENTNAME)
            << index;
    }
    EXPECT_TRUE(stored_indexes().empty());
    EXPECT_TRUE(fake_agent.alarms.empty());
    EXPECT_EQ(status_request(GetParam(), largest_index).run(reserve1), SNMP_ERR_NOERROR);
    EXPECT_EQ(status_request(GetParam(), 1).run(reserve1), SNMP_ERR_NOERROR);
    EXPECT_EQ(stored_indexes(), (std::vector<int32_t>{1, 2147483647}));
}

TEST_P(Creation, WithoutMemory) {
    fake_memory.failing_size = sizeof(ccCopyEntry);
    EXPECT_EQ(status_request(GetParam()).run(reserve1), SNMP_ERR_GENERR);
    fake_memory.failing_size = 0;
    EXPECT_LOGGED(
        EVTRACE_ERROR,
        log_text(" : RESERVE1 - Could not malloc for the ccCopyEntry for  a new entry \n"));
    EXPECT_FALSE(row_exists(5));
}

// The leak checker detects a record that is not freed.
TEST_P(Creation, ThatTheTableRefuses) {
    fake_keyedset.next_add = nullptr;
    EXPECT_EQ(status_request(GetParam()).run(reserve1), SNMP_ERR_GENERR);
    EXPECT_LOGGED(EVTRACE_ERROR, log_text(" : Adding a new entry (index = 5) failed\n"));
    EXPECT_FALSE(row_exists(5));
}

TEST_P(Creation, WhoseStatusCannotBeStored) {
    add(9);
    // The first search is for the row itself, the second for its update.
    fake_keyedset.fail_find(&ccCopyTable, 3);
    EXPECT_EQ(status_request(GetParam()).run(reserve1), SNMP_ERR_GENERR);
    EXPECT_LOGGED(EVTRACE_ERROR, log_text(" : Setting a new entry (index = 5) failed\n"));
    EXPECT_EQ(row_exists(5), GetParam() == ROW_STATUS_ACTIVE);
    EXPECT_TRUE(row_exists(9));
}

INSTANTIATE_TEST_SUITE_P(RowStatus, Creation,
                         ::testing::Values(ROW_STATUS_ACTIVE, ROW_STATUS_CREATE_AND_GO,
                                           ROW_STATUS_CREATE_AND_WAIT));

TEST_F(RowStatus, DestroyOfAnAbsentRow) {
    for (const oid index : {5UL, 0UL, 2147483648UL}) {
        Request request = status_request(ROW_STATUS_DESTROY, index);
        for (const int phase : {reserve1, reserve2, action, commit}) {
            EXPECT_EQ(request.run(phase), 0) << phase;
        }
    }
    EXPECT_TRUE(stored_indexes().empty());
    EXPECT_EQ(ccCopyTable.impl, nullptr);
    EXPECT_EQ(keyedset_size(&ccCopyUndoList), 0U);
}

TEST_F(RowStatus, CreateAndGoOfAnExistingRow) {
    add();
    EXPECT_EQ(status_request(ROW_STATUS_CREATE_AND_GO).run(reserve1), SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_LOGGED(EVTRACE_ERROR, log_text(" : CreateAndGo on a existing row\n"));
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_FALSE(saved());
}

TEST_F(RowStatus, CreateAndWaitOfAnExistingRow) {
    add();
    EXPECT_EQ(status_request(ROW_STATUS_CREATE_AND_WAIT).run(reserve1), SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_LOGGED(EVTRACE_ERROR, log_text(" : CREATE on a existing row (index = 5)\n"));
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_TRUE(saved());
}

TEST_F(RowStatus, CreateAndGoOfARowThatAppearedMeanwhile) {
    add();
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, reserve1, integer(ROW_STATUS_CREATE_AND_GO), 14,
                         5, nullptr),
              SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_LOGGED(EVTRACE_ERROR, log_text(" : CREATE on a existing row (index = 5)\n"));
    EXPECT_FALSE(saved());
}

TEST_F(RowStatus, ActivationWhileACopyRuns) {
    add(9);
    make_running(9);
    add();
    const ccCopyEntry before = stored_row(5);
    EXPECT_EQ(status_request(ROW_STATUS_ACTIVE).run(reserve1), SNMP_ERR_GENERR);
    expect_refused_while_copying();
    const ccCopyEntry after = stored_row(5);
    EXPECT_EQ(memcmp(&before, &after, sizeof after), 0);
    EXPECT_FALSE(saved());

    fake_evtrace.clear();
    EXPECT_EQ(status_request(ROW_STATUS_ACTIVE, 6).run(reserve1), SNMP_ERR_GENERR);
    expect_refused_while_copying();
    fake_evtrace.clear();
    EXPECT_EQ(status_request(ROW_STATUS_CREATE_AND_GO, 6).run(reserve1), SNMP_ERR_GENERR);
    expect_refused_while_copying();
    EXPECT_FALSE(row_exists(6));

    EXPECT_EQ(status_request(ROW_STATUS_CREATE_AND_GO).run(reserve1), SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(status_request(ROW_STATUS_CREATE_AND_WAIT, 6).run(reserve1), 0);
    EXPECT_EQ(status_request(ROW_STATUS_DESTROY).run(reserve1), 0);
    EXPECT_EQ(status_request(ROW_STATUS_DESTROY, 9).run(reserve1), 0);
}

TEST_F(RowStatus, ActivationWhileTheWorkerRuns) {
    add();
    child_copy_running = 1;
    EXPECT_EQ(status_request(ROW_STATUS_ACTIVE).run(reserve1), SNMP_ERR_GENERR);
    expect_refused_while_copying();
}

TEST_F(RowStatus, CopyOfTheRowIsKept) {
    add();
    ccCopyEntry row = stored_row(5);
    put_text(row.ccCopyFileName, "switch.cfg");
    store_row(row);
    EXPECT_EQ(status_request(ROW_STATUS_ACTIVE).run(reserve1), 0);
    EXPECT_LOGGED(EVTRACE_DEBUG, log_text(" : Setting ccCopyEntryRowStatus to 3 \n"));
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_ACTIVE);
    const auto *copy = static_cast<ccCopyEntry *>(keyedset_find(&ccCopyUndoList, &row));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_EQ(text_of(copy->ccCopyFileName), "switch.cfg");
}

TEST_F(RowStatus, NoMemoryForTheCopyOfTheRow) {
    add();
    Request request = status_request(ROW_STATUS_DESTROY);
    fake_memory.failing_size = sizeof(ccCopyEntry);
    EXPECT_EQ(request.run(reserve1), SNMP_ERR_GENERR);
    fake_memory.failing_size = 0;
    EXPECT_LOGGED(EVTRACE_ERROR, log_text(" : Mallocing for entry into undolist failed\n"));
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
}

// The leak checker detects a copy that is not freed.
TEST_F(RowStatus, UndoListThatRefusesTheCopy) {
    add();
    fake_keyedset.next_add = nullptr;
    EXPECT_EQ(status_request(ROW_STATUS_DESTROY).run(reserve1), SNMP_ERR_GENERR);
    EXPECT_LOGGED(EVTRACE_ERROR, log_text(" : Adding undolist failed\n"));
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
}

TEST_F(RowStatus, StatusOfAnExistingRowThatCannotBeStored) {
    add();
    Request request = status_request(ROW_STATUS_DESTROY);
    ASSERT_EQ(request.run(6), SNMP_ERR_NOTWRITABLE);
    // The agent makes one search before it calls the handler.
    fake_keyedset.fail_find(&ccCopyTable, 3);
    EXPECT_EQ(request.run(reserve1), SNMP_ERR_GENERR);
    EXPECT_LOGGED(EVTRACE_ERROR, log_text(" : Setting a new entry (index = 5) failed\n"));
    EXPECT_TRUE(row_exists(5));
}

// --- RESERVE2

TEST_F(RowStatus, Reserve2MarksTheRowAndTheReadersBuffer) {
    add();
    Request request = status_request(ROW_STATUS_DESTROY);
    ASSERT_EQ(request.run(reserve1), 0);
    ASSERT_EQ(request.state(),
              reinterpret_cast<unsigned char *>(&cc_last_read_row.ccCopyEntryRowStatus));
    EXPECT_EQ(request.run(reserve2), 0);
    EXPECT_EQ(*request.state(), 1);
    EXPECT_EQ(stored_row(5).reserve2_seen, 1);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_DESTROY);
}

TEST_F(RowStatus, Reserve2WithoutAState) {
    Request request = status_request(ROW_STATUS_CREATE_AND_WAIT);
    ASSERT_EQ(request.run(reserve1), 0);
    ASSERT_EQ(request.state(), nullptr);
    EXPECT_EQ(request.run(reserve2), 0);
    EXPECT_EQ(stored_row(5).reserve2_seen, 1);
}

TEST_F(RowStatus, Reserve2WithoutARow) {
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, reserve2, integer(6), 14, 5), 0);
    EXPECT_FALSE(row_exists(5));
}

// --- ACTION

TEST_F(RowStatus, ActionWithoutARow) {
    for (const long value : {1L, 4L, 5L}) {
        EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, action, integer(value), 14, 5),
                  SNMP_ERR_GENERR)
            << value;
    }
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, action, integer(6), 14, 5), 0);
}

TEST_F(RowStatus, CreateAndWaitBecomesNotReady) {
    EXPECT_EQ(set({{CC_COLUMN_ENTRY_ROW_STATUS, 5, integer(ROW_STATUS_CREATE_AND_WAIT)}}).status,
              0);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_EQ(keyedset_size(&ccCopyUndoList), 0U);
}

TEST_F(RowStatus, CreateAndWaitOfARowWithAnotherStatus) {
    add();
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, action, integer(5), 14, 5), 0);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_CREATE_AND_WAIT);
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, action, integer(5), 14, 5), 0);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
}

TEST_F(RowStatus, StatusThatCannotBeStoredInAction) {
    add();
    fake_keyedset.fail_find(&ccCopyTable, 2);
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, action, integer(5), 14, 5), SNMP_ERR_GENERR);
}

TEST_F(RowStatus, DestroyDeletesTheRowAndItsErrors) {
    add();
    add(9);
    ccCopyErrorEntry error{};
    error.ccCopyIndex = 5;
    error.ccCopyErrorIndex = 1;
    ASSERT_EQ(keyedset_create(&ccCopyErrorTable, 1, 1, ccCopyErrorEntry_comp_func, 1),
              KEYEDSET_CREATED);
    ASSERT_EQ(addCcCopyErrorEntry(nullptr, &error), 0U);
    EXPECT_EQ(set({{CC_COLUMN_ENTRY_ROW_STATUS, 5, integer(ROW_STATUS_DESTROY)}}).status, 0);
    EXPECT_EQ(stored_indexes(), std::vector<int32_t>{9});
    EXPECT_EQ(keyedset_size(&ccCopyErrorTable), 0U);
    EXPECT_EQ(keyedset_size(&ccCopyUndoList), 0U);
}

TEST_F(RowStatus, IncompleteActivationIsRefused) {
    add();
    ccCopyEntry row = stored_row(5);
    row.ccCopyDestFileType = COPY_FILE_RUNNING;
    store_row(row);
    Request request = status_request(ROW_STATUS_ACTIVE);
    ASSERT_EQ(request.run(reserve1), 0);
    ASSERT_EQ(request.run(reserve2), 0);
    EXPECT_EQ(request.run(action), SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_ACTIVE); // UNDO restores it
    EXPECT_EQ(request.run(undo), 0);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_EQ(stored_row(5).reserve2_seen, 0);
    EXPECT_EQ(keyedset_size(&ccCopyUndoList), 0U);
}

TEST_F(RowStatus, IncompleteCreateAndGoLeavesARowThatIsNotReady) {
    // The default is a copy from the network to startup, so the destination is corrected before
    // ACTION.
    Request request = status_request(ROW_STATUS_CREATE_AND_GO);
    ASSERT_EQ(request.run(reserve1), 0);
    ASSERT_EQ(request.run(reserve2), 0);
    ccCopyEntry row = stored_row(5);
    row.ccCopyDestFileType = COPY_FILE_RUNNING;
    store_row(row);
    EXPECT_EQ(request.run(action), 0);
    EXPECT_EQ(request.run(commit), 0);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_EQ(stored_row(5).ccCopyState, COPY_STATE_WAITING);
}

// --- COMMIT

TEST_F(RowStatus, CommitDropsTheCopyOfItsRowOnly) {
    add();
    add(9);
    Request five = status_request(ROW_STATUS_DESTROY);
    Request nine = status_request(ROW_STATUS_DESTROY, 9);
    ASSERT_EQ(five.run(reserve1), 0);
    ASSERT_EQ(nine.run(reserve1), 0);
    EXPECT_EQ(five.run(commit), 0);
    EXPECT_FALSE(saved(5));
    EXPECT_TRUE(saved(9));
    EXPECT_EQ(five.run(commit), 0); // already dropped
    EXPECT_TRUE(row_exists(5));     // COMMIT itself changes no row
}

TEST_F(RowStatus, CommitNeedsAnInstanceOfExactLength) {
    add();
    ASSERT_EQ(status_request(ROW_STATUS_DESTROY).run(reserve1), 0);
    Oid name = copy_instance(CC_COLUMN_ENTRY_ROW_STATUS, 5);
    name.push_back(5);
    const Value value = integer(ROW_STATUS_DESTROY);
    EXPECT_EQ(set_ccCopyEntryRowStatus(commit, value.octets.get(), value.type, value.length,
                                       nullptr, name.data(), name.size()),
              0);
    EXPECT_TRUE(saved());
}

// --- FREE

TEST_F(RowStatus, FreeDeletesTheRowThatTheTransactionCreated) {
    for (const long value : {4L, 5L}) {
        Request request = status_request(value);
        ASSERT_EQ(request.run(reserve1), 0);
        ASSERT_EQ(request.run(reserve2), 0);
        EXPECT_EQ(request.run(free_phase), 0);
        EXPECT_FALSE(row_exists(5));
    }
}

TEST_F(RowStatus, FreeBeforeReserve2KeepsTheRow) {
    Request request = status_request(ROW_STATUS_CREATE_AND_WAIT);
    ASSERT_EQ(request.run(reserve1), 0);
    EXPECT_EQ(request.run(free_phase), 0);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_CREATE_AND_WAIT);
}

TEST_F(RowStatus, FreeOfAnActivationThatCreatedTheRowKeepsIt) {
    Request request = status_request(ROW_STATUS_ACTIVE);
    ASSERT_EQ(request.run(reserve1), 0);
    ASSERT_EQ(request.run(reserve2), 0);
    EXPECT_EQ(request.run(free_phase), 0);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_ACTIVE);
}

TEST_F(RowStatus, FreeKeepsTheCopyOfAnActiveOrDestroyRequest) {
    for (const long value : {1L, 6L}) {
        add();
        Request request = status_request(value);
        ASSERT_EQ(request.run(reserve1), 0);
        ASSERT_EQ(request.run(reserve2), 0);
        EXPECT_EQ(request.run(free_phase), 0);
        EXPECT_TRUE(saved());
        EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, value);
        // The copy that was left makes the next one fail.
        EXPECT_EQ(status_request(ROW_STATUS_DESTROY).run(reserve1), SNMP_ERR_GENERR);
        EXPECT_LOGGED(EVTRACE_ERROR, log_text(" : Adding undolist failed\n"));
        cc_undo_clear();
        remove(5);
    }
}

TEST_F(RowStatus, FreeOfARefusedCreateAndWait) {
    add();
    Request request = status_request(ROW_STATUS_CREATE_AND_WAIT);
    ASSERT_EQ(request.run(reserve1), SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(request.run(free_phase), 0);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_TRUE(saved()); // the row's status is neither of the two, so nothing was checked
}

TEST_F(RowStatus, FreeDropsTheCopyOfARowThatIsStillBeingCreated) {
    Request first = status_request(ROW_STATUS_CREATE_AND_WAIT);
    ASSERT_EQ(first.run(reserve1), 0);
    ASSERT_EQ(first.run(free_phase), 0);
    Request second = status_request(ROW_STATUS_CREATE_AND_WAIT);
    ASSERT_EQ(second.run(reserve1), SNMP_ERR_INCONSISTENTVALUE);
    ASSERT_TRUE(saved());
    EXPECT_EQ(second.run(free_phase), 0);
    EXPECT_FALSE(saved());
    EXPECT_TRUE(row_exists(5));

    // A destroy keeps both.
    Request third = status_request(ROW_STATUS_DESTROY);
    ASSERT_EQ(third.run(reserve1), 0);
    ccCopyEntry row = stored_row(5);
    row.ccCopyEntryRowStatus = ROW_STATUS_CREATE_AND_WAIT;
    row.reserve2_seen = 1;
    store_row(row);
    EXPECT_EQ(third.run(free_phase), 0);
    EXPECT_TRUE(saved());
    EXPECT_TRUE(row_exists(5));
}

TEST_F(RowStatus, FreeWithoutARow) {
    add();
    Request request = status_request(ROW_STATUS_CREATE_AND_WAIT);
    ASSERT_EQ(request.run(reserve1), SNMP_ERR_INCONSISTENTVALUE);
    remove(5);
    EXPECT_EQ(request.run(free_phase), 0);
    EXPECT_FALSE(saved());
}

// --- UNDO

TEST_F(RowStatus, UndoOfAnActivationPutsTheRowBack) {
    add();
    const ccCopyEntry before = stored_row(5);
    Request request = status_request(ROW_STATUS_ACTIVE);
    ASSERT_EQ(request.run(reserve1), 0);
    ASSERT_EQ(request.run(reserve2), 0);
    fake_evtrace.clear();
    EXPECT_EQ(request.run(undo), 0);
    EXPECT_LOGGED(EVTRACE_DEBUG, log_text(" : Entering UNDO for index = 5\n"));
    EXPECT_LOGGED(EVTRACE_DEBUG, log_text(" : UNDO Setting back the value  (index = 5)\n"));
    const ccCopyEntry after = stored_row(5);
    EXPECT_EQ(memcmp(&before, &after, sizeof after), 0);
    EXPECT_FALSE(saved());
}

TEST_F(RowStatus, UndoOfAnActivationWhoseRowIsGone) {
    add();
    Request request = status_request(ROW_STATUS_ACTIVE);
    ASSERT_EQ(request.run(reserve1), 0);
    remove(5);
    EXPECT_EQ(request.run(undo), SNMP_ERR_GENERR);
    EXPECT_FALSE(saved());
    EXPECT_FALSE(row_exists(5));
}

TEST_F(RowStatus, UndoWithoutACopy) {
    for (const long value : {1L, 6L}) {
        fake_evtrace.clear();
        EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, undo, integer(value), 14, 5),
                  SNMP_ERR_GENERR);
        EXPECT_LOGGED(
            EVTRACE_ERROR,
            log_text(" : Could not get the structure for undo list for UNDO (index = 5)\n"));
    }
}

TEST_F(RowStatus, UndoOfADestroyReportsFailureAndKeepsTheRowOut) {
    for (const bool last_row : {true, false}) {
        SCOPED_TRACE(last_row);
        add();
        if (!last_row) {
            add(9);
        }
        Request request = status_request(ROW_STATUS_DESTROY);
        ASSERT_EQ(request.run(reserve1), 0);
        ASSERT_EQ(request.run(reserve2), 0);
        ASSERT_EQ(request.run(action), 0);
        fake_evtrace.clear();
        EXPECT_EQ(request.run(undo), SNMP_ERR_GENERR);
        EXPECT_LOGGED(EVTRACE_DEBUG, log_text(" : UNDO Adding the deleted entry (index = 5)\n"));
        EXPECT_FALSE(row_exists(5));
        EXPECT_FALSE(saved());
        EXPECT_EQ(fake_agent.alarms.size(), last_row ? 0U : 1U);
        EXPECT_EQ(ccCopyTable.impl == nullptr, last_row);
    }
}

TEST_F(RowStatus, UndoOfADestroyWhoseRowIsStillThere) {
    add();
    Request request = status_request(ROW_STATUS_DESTROY);
    ASSERT_EQ(request.run(reserve1), 0);
    EXPECT_EQ(request.run(undo), 0);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_DESTROY);
    EXPECT_FALSE(saved());
}

TEST_F(RowStatus, UndoOfACreationDeletesTheRow) {
    for (const long value : {4L, 5L}) {
        Request request = status_request(value);
        ASSERT_EQ(request.run(reserve1), 0);
        ASSERT_EQ(request.run(reserve2), 0);
        fake_evtrace.clear();
        EXPECT_EQ(request.run(undo), 0);
        EXPECT_LOGGED(EVTRACE_DEBUG,
                      log_text(" : UNDO - Deleting the added entry (index = 5) failed\n"));
        EXPECT_FALSE(row_exists(5));
    }
}

TEST_F(RowStatus, UndoOfACreationWithACopyKeepsTheRow) {
    add();
    Request request = status_request(ROW_STATUS_CREATE_AND_WAIT);
    ASSERT_EQ(request.run(reserve1), SNMP_ERR_INCONSISTENTVALUE);
    fake_evtrace.clear();
    EXPECT_EQ(request.run(undo), 0);
    EXPECT_NOT_LOGGED(EVTRACE_DEBUG,
                      log_text(" : UNDO - Deleting the added entry (index = 5) failed\n"));
    EXPECT_FALSE(saved());
    EXPECT_TRUE(row_exists(5));
}

TEST_F(RowStatus, UnknownPhase) {
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, 6, integer(5), 14, 5), 0);
    EXPECT_EQ(call_phase(set_ccCopyEntryRowStatus, -1, octet_string("text"), 14, 5), 0);
    EXPECT_FALSE(row_exists(5));
}

// --- trace

class RowStatusTrace : public Traced<RowStatus> {
  protected:
    static std::string traced(const std::string &text) {
        return "set_ccCopyEntryRowStatus(#):" + text;
    }
};

TEST_F(RowStatusTrace, OfEveryPhase) {
    Request request = status_request(ROW_STATUS_CREATE_AND_WAIT);
    ASSERT_EQ(request.run(reserve1), 0);
    EXPECT_EQ(file->take(),
              std::vector{traced("DEBUG: set_ccCopyEntryRowStatus :  Entering RESERVE1\n")});
    ASSERT_EQ(request.run(reserve2), 0);
    EXPECT_EQ(file->take(), std::vector{traced("set_ccCopyEntryRowStatus :  Entering RESERVE2\n")});
    ASSERT_EQ(request.run(action), 0);
    EXPECT_EQ(file->take(),
              (std::vector{traced("set_ccCopyEntryRowStatus : Entering ACTION for index = 5 \n"),
                           traced("set_ccCopyEntryRowStatus : long_ret 5 \n")}));
    ASSERT_EQ(request.run(commit), 0);
    EXPECT_EQ(
        file->take(),
        std::vector{traced(
            "set_ccCopyEntryRowStatus : COMMIT Removing the entry from undo list  (index = 5)\n")});
    ASSERT_EQ(request.run(free_phase), 0);
    EXPECT_EQ(file->take(),
              std::vector{traced("set_ccCopyEntryRowStatus : Entering FREE for index = 5\n")});
}

TEST_F(RowStatusTrace, OfAnActionWithoutARow) {
    ASSERT_EQ(call_phase(set_ccCopyEntryRowStatus, action, integer(4), 14, 5), SNMP_ERR_GENERR);
    EXPECT_EQ(file->take(),
              (std::vector{traced("set_ccCopyEntryRowStatus : Entering ACTION for index = 5 \n"),
                           traced("set_ccCopyEntryRowStatus : second long_ret 4 \n")}));
}

TEST_F(RowStatusTrace, OfAFailedWrite) {
    add();
    fake_keyedset.fail_find(&ccCopyTable, 2);
    ASSERT_EQ(call_phase(set_ccCopyEntryRowStatus, action, integer(5), 14, 5), SNMP_ERR_GENERR);
    const std::vector<std::string> texts = file->take();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back(), traced("set_ccCopyEntryRowStatus : Set to 5 failed \n"));
}

TEST_F(RowStatusTrace, OfARefusedActivationShowsZero) {
    add();
    ccCopyEntry row = stored_row(5);
    row.ccCopyDestFileType = COPY_FILE_RUNNING;
    store_row(row);
    ASSERT_EQ(call_phase(set_ccCopyEntryRowStatus, action, integer(1), 14, 5),
              SNMP_ERR_INCONSISTENTVALUE);
    const std::vector<std::string> texts = file->take();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back(),
              traced("set_ccCopyEntryRowStatus : Validation failed (ret_code = 0) \n"));
}

} // namespace
