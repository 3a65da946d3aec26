// The store of copy requests.
#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_keyedset.h"
#include "tests/unit/fakes/fake_memory.h"
#include "tests/unit/fakes/fake_time.h"
#include "tests/unit/fakes/module_fixture.h"

#include <random>
#include <set>

namespace {

using Store = ModuleTest;

void add_error(int32_t copy, int32_t number) {
    ccCopyEntry request{};
    request.ccCopyIndex = copy;
    ccCopyErrorEntry error{};
    error.ccCopyIndex = copy;
    error.ccCopyErrorIndex = number;
    if (keyedset_size(&ccCopyErrorTable) == 0) {
        ASSERT_EQ(keyedset_create(&ccCopyErrorTable, 1, 1, ccCopyErrorEntry_comp_func, 1),
                  KEYEDSET_CREATED);
    }
    ASSERT_EQ(addCcCopyErrorEntry(&request, &error), 0U);
}

bool error_exists(int32_t copy, int32_t number) {
    ccCopyErrorEntry error{};
    error.ccCopyIndex = copy;
    error.ccCopyErrorIndex = number;
    return getCcCopyErrorEntry(&error) == 0;
}

void set_state(int32_t index, int32_t state) {
    ccCopyEntry row = stored_row(index);
    row.ccCopyState = state;
    store_row(row);
}

TEST_F(Store, NewRecordHasTheDefaults) {
    fake_time.seconds = 1234567890;
    ccCopyEntry *row = createCcCopyEntry();
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->ccCopyIndex, 0);
    EXPECT_EQ(row->ccCopyProtocol, COPY_PROTO_TFTP);
    EXPECT_EQ(row->ccCopySourceFileType, COPY_FILE_NETWORK);
    EXPECT_EQ(row->ccCopyDestFileType, COPY_FILE_STARTUP);
    EXPECT_EQ(std::string(row->ccCopyFileName, sizeof row->ccCopyFileName), std::string(256, '\0'));
    EXPECT_EQ(std::string(row->ccCopyUserName, sizeof row->ccCopyUserName), std::string(41, '\0'));
    EXPECT_EQ(std::string(row->ccCopyUserPassword, sizeof row->ccCopyUserPassword),
              std::string(41, '\0'));
    EXPECT_EQ(row->ccCopyNotificationOnCompletion, TRUTH_FALSE);
    EXPECT_EQ(row->ccCopyState, COPY_STATE_WAITING);
    EXPECT_EQ(row->create_time, 1234567890);
    EXPECT_EQ(row->ccCopyTimeStarted.tv_sec, 0);
    EXPECT_EQ(row->ccCopyTimeStarted.tv_usec, 0);
    EXPECT_EQ(row->ccCopyTimeCompleted.tv_sec, 0);
    EXPECT_EQ(row->ccCopyTimeCompleted.tv_usec, 0);
    EXPECT_EQ(row->ccCopyFailCause, 1);
    EXPECT_EQ(row->reserve2_seen, 0);
    EXPECT_EQ(row->ccCopyEntryRowStatus, 0);
    EXPECT_EQ(row->ccCopyServerAddressType, INET_ADDRESS_UNKNOWN);
    EXPECT_EQ(std::string(row->ccCopyServerAddressRev1, sizeof row->ccCopyServerAddressRev1),
              std::string(64, '\0'));
    ccCopyEntry_free(row);
}

TEST_F(Store, NoRecordWhenMemoryIsExhausted) {
    fake_memory.failing_size = sizeof(ccCopyEntry);
    EXPECT_EQ(createCcCopyEntry(), nullptr);
    EXPECT_EQ(fake_memory.failures, 1);
}

TEST_F(Store, FirstRowMakesTheTableAndStartsTheAlarm) {
    EXPECT_EQ(ccCopyTable.impl, nullptr);
    add_row(5);
    EXPECT_NE(ccCopyTable.impl, nullptr);
    ASSERT_EQ(fake_keyedset.creates.size(), 1U);
    EXPECT_EQ(fake_keyedset.creates[0].set, &ccCopyTable);
    EXPECT_EQ(fake_keyedset.creates[0].first, 1);
    EXPECT_EQ(fake_keyedset.creates[0].second, 1);
    EXPECT_EQ(fake_keyedset.creates[0].compare, &ccCopyEntry_comp_func);
    EXPECT_EQ(fake_keyedset.creates[0].fourth, 1);
    ASSERT_EQ(fake_agent.alarms.size(), 1U);
    EXPECT_EQ(fake_agent.alarms[0].seconds, 101U);
    EXPECT_EQ(fake_agent.alarms[0].flags, 1U);
    EXPECT_EQ(fake_agent.alarms[0].function, &cfgentry_age_timer_handler);
    EXPECT_EQ(fake_agent.alarms[0].argument, nullptr);
    EXPECT_EQ(ageouttimer, fake_agent.alarms[0].handle);

    add_row(6);
    EXPECT_EQ(fake_keyedset.creates.size(), 1U);
    EXPECT_EQ(fake_agent.alarms.size(), 1U);
}

TEST_F(Store, LastDeletionStopsTheAlarmAndRemovesTheTable) {
    add_row(5);
    add_row(6);
    ccCopyEntry key{};
    key.ccCopyIndex = 5;
    EXPECT_EQ(deleteCcCopyEntry(&key), 0U);
    EXPECT_EQ(fake_agent.alarms.size(), 1U);
    EXPECT_TRUE(fake_keyedset.destroys.empty());
    key.ccCopyIndex = 6;
    EXPECT_EQ(deleteCcCopyEntry(&key), 0U);
    EXPECT_TRUE(fake_agent.alarms.empty());
    EXPECT_EQ(fake_keyedset.destroys, std::vector<const keyedset *>{&ccCopyTable});
    EXPECT_EQ(ccCopyTable.impl, nullptr);

    const unsigned int before = ageouttimer;
    add_row(5);
    ASSERT_EQ(fake_agent.alarms.size(), 1U);
    EXPECT_EQ(ageouttimer, fake_agent.alarms[0].handle);
    EXPECT_NE(ageouttimer, before);
    EXPECT_EQ(fake_keyedset.creates.size(), 2U);
}

TEST_F(Store, FailedFirstInsertionStartsNoAlarm) {
    ccCopyEntry *row = createCcCopyEntry();
    ASSERT_NE(row, nullptr);
    row->ccCopyIndex = 5;
    fake_keyedset.next_add = nullptr;
    EXPECT_EQ(addCcCopyEntry(row), CCERR_FAILED);
    EXPECT_TRUE(fake_agent.alarms.empty());
    ccCopyEntry_free(row);
}

TEST_F(Store, FirstInsertionTakesAnyResultLaterOnesOnlyTheRecord) {
    ccCopyEntry *row = createCcCopyEntry();
    ASSERT_NE(row, nullptr);
    int other = 0;
    row->ccCopyIndex = 5;
    fake_keyedset.next_add = &other;
    EXPECT_EQ(addCcCopyEntry(row), 0U);
    EXPECT_EQ(fake_agent.alarms.size(), 1U);
    // The container refused the record without the store noticing, so the alarm runs without a row.
    snmp_alarm_unregister(ageouttimer);

    add_row(1);
    fake_keyedset.next_add = &other;
    EXPECT_EQ(addCcCopyEntry(row), CCERR_FAILED);
    fake_keyedset.next_add = nullptr;
    EXPECT_EQ(addCcCopyEntry(row), CCERR_FAILED);
    EXPECT_EQ(addCcCopyEntry(row), 0U);
    EXPECT_EQ(stored_indexes(), (std::vector<int32_t>{1, 5}));
}

TEST_F(Store, SecondRowOfAnIndexIsRefused) {
    add_row(1);
    add_row(5);
    ccCopyEntry *again = createCcCopyEntry();
    ASSERT_NE(again, nullptr);
    again->ccCopyIndex = 5;
    again->ccCopyProtocol = COPY_PROTO_SFTP;
    EXPECT_EQ(addCcCopyEntry(again), CCERR_FAILED);
    EXPECT_EQ(stored_indexes(), (std::vector<int32_t>{1, 5}));
    EXPECT_EQ(stored_row(5).ccCopyProtocol, COPY_PROTO_TFTP);
    ccCopyEntry_free(again);
}

TEST_F(Store, WalkIsInAscendingOrder) {
    add_row(5);
    add_row(2147483647);
    add_row(3);
    ccCopyEntry row{};
    EXPECT_EQ(getnextCcCopyEntry(&row), 0U);
    EXPECT_EQ(row.ccCopyIndex, 3);
    EXPECT_EQ(getnextCcCopyEntry(&row), 0U);
    EXPECT_EQ(row.ccCopyIndex, 5);
    EXPECT_EQ(getnextCcCopyEntry(&row), 0U);
    EXPECT_EQ(row.ccCopyIndex, 2147483647);
    EXPECT_EQ(getnextCcCopyEntry(&row), CCERR_NOT_FOUND);
    row.ccCopyIndex = 4;
    EXPECT_EQ(getnextCcCopyEntry(&row), 0U);
    EXPECT_EQ(row.ccCopyIndex, 5);
}

TEST_F(Store, WalkFromZeroBeginsAtTheFirstRowWhateverItsIndex) {
    add_row(4);
    add_row(-3);
    ccCopyEntry row{};
    EXPECT_EQ(getnextCcCopyEntry(&row), 0U);
    EXPECT_EQ(row.ccCopyIndex, -3);
    EXPECT_EQ(getnextCcCopyEntry(&row), 0U);
    EXPECT_EQ(row.ccCopyIndex, 4);
}

TEST_F(Store, LookupsThatFindNothingLeaveTheBufferAlone) {
    ccCopyEntry buffer{};
    buffer.ccCopyIndex = 4;
    buffer.ccCopyProtocol = 77;
    const ccCopyEntry before = buffer;
    EXPECT_EQ(getCcCopyEntry(&buffer), CCERR_NOT_FOUND);
    EXPECT_EQ(getnextCcCopyEntry(&buffer), CCERR_NOT_FOUND);
    add_row(3);
    EXPECT_EQ(getCcCopyEntry(&buffer), CCERR_NOT_FOUND);
    EXPECT_EQ(getnextCcCopyEntry(&buffer), CCERR_NOT_FOUND);
    EXPECT_EQ(memcmp(&buffer, &before, sizeof buffer), 0);
}

TEST_F(Store, ReadersGetCopies) {
    add_row(5);
    ccCopyEntry copy = stored_row(5);
    copy.ccCopyProtocol = COPY_PROTO_SCP;
    EXPECT_EQ(stored_row(5).ccCopyProtocol, COPY_PROTO_TFTP);
    ccCopyEntry next{};
    ASSERT_EQ(getnextCcCopyEntry(&next), 0U);
    next.ccCopyState = COPY_STATE_RUNNING;
    EXPECT_EQ(stored_row(5).ccCopyState, COPY_STATE_WAITING);
    EXPECT_EQ(setCcCopyEntry(&copy, 0), 0U);
    EXPECT_EQ(stored_row(5).ccCopyProtocol, COPY_PROTO_SCP);
}

TEST_F(Store, DeletionTakesTheErrorRowsAlong) {
    add_row(3);
    add_row(7);
    add_error(3, 1);
    add_error(3, 2);
    add_error(7, 1);
    ccCopyEntry key{};
    key.ccCopyIndex = 3;
    EXPECT_EQ(deleteCcCopyEntry(&key), 0U);
    EXPECT_FALSE(row_exists(3));
    EXPECT_FALSE(error_exists(3, 1));
    EXPECT_FALSE(error_exists(3, 2));
    EXPECT_TRUE(error_exists(7, 1));
}

TEST_F(Store, DeletionOfAMissingRowStillRemovesItsErrorRows) {
    add_row(7);
    add_error(3, 1);
    ccCopyEntry key{};
    key.ccCopyIndex = 3;
    EXPECT_EQ(deleteCcCopyEntry(&key), CCERR_FAILED);
    EXPECT_FALSE(error_exists(3, 1));
    EXPECT_TRUE(row_exists(7));
}

TEST_F(Store, DeletionFromAnAbsentTableTouchesNothing) {
    add_error(3, 1);
    ccCopyEntry key{};
    key.ccCopyIndex = 3;
    EXPECT_EQ(deleteCcCopyEntry(&key), CCERR_FAILED);
    EXPECT_TRUE(error_exists(3, 1));
}

TEST_F(Store, FirstRowOfAStateIsTheOneWithTheLowestIndex) {
    add_row(9);
    add_row(4);
    add_row(2);
    set_state(9, COPY_STATE_RUNNING);
    set_state(4, COPY_STATE_RUNNING);
    ccCopyEntry found{};
    found.ccCopyIndex = 8; // the walk starts at the first row anyway
    EXPECT_EQ(get_config_entry_with_status(COPY_STATE_RUNNING, &found), 0U);
    EXPECT_EQ(found.ccCopyIndex, 4);
}

TEST_F(Store, NoRowOfAStateLeavesTheLastRowInTheBuffer) {
    ccCopyEntry found{};
    found.ccCopyIndex = 8;
    EXPECT_EQ(get_config_entry_with_status(COPY_STATE_RUNNING, &found), CCERR_FAILED);
    EXPECT_EQ(found.ccCopyIndex, 0);
    add_row(4);
    add_row(9);
    EXPECT_EQ(get_config_entry_with_status(COPY_STATE_RUNNING, &found), CCERR_FAILED);
    EXPECT_EQ(found.ccCopyIndex, 9);
}

TEST_F(Store, CopyIsInProgressByARunningRowOrByTheWorker) {
    EXPECT_FALSE(copy_inprogress());
    add_row(4);
    EXPECT_FALSE(copy_inprogress());
    set_state(4, COPY_STATE_RUNNING);
    EXPECT_TRUE(copy_inprogress());
    set_state(4, COPY_STATE_SUCCESSFUL);
    EXPECT_FALSE(copy_inprogress());
    child_copy_running = 1;
    EXPECT_TRUE(copy_inprogress());
}

TEST_F(Store, RunningRowsAreCountedHoweverTheyComeAndGo) {
    const auto remove = [](int32_t index) {
        ccCopyEntry key{};
        key.ccCopyIndex = index;
        return deleteCcCopyEntry(&key);
    };
    add_row(4);
    add_row(5);
    set_state(4, COPY_STATE_RUNNING);
    set_state(4, COPY_STATE_RUNNING);
    set_state(5, COPY_STATE_RUNNING);
    EXPECT_EQ(remove(4), 0U);
    EXPECT_TRUE(copy_inprogress());
    set_state(5, COPY_STATE_FAILED);
    EXPECT_FALSE(copy_inprogress());

    ccCopyEntry *running = createCcCopyEntry();
    running->ccCopyIndex = 6;
    running->ccCopyState = COPY_STATE_RUNNING;
    ASSERT_EQ(addCcCopyEntry(running), 0U);
    EXPECT_TRUE(copy_inprogress());
    EXPECT_EQ(remove(6), 0U);
    EXPECT_FALSE(copy_inprogress());
    EXPECT_EQ(remove(5), 0U); // the last row
    running = createCcCopyEntry();
    running->ccCopyIndex = 6;
    running->ccCopyState = COPY_STATE_RUNNING;
    ASSERT_EQ(addCcCopyEntry(running), 0U);
    EXPECT_TRUE(copy_inprogress());
    EXPECT_EQ(remove(6), 0U);
    EXPECT_FALSE(copy_inprogress());
}

// Whichever rows start and end, in whatever order.
TEST_F(Store, TheFirstRunningRowIsFoundAmongOthers) {
    constexpr int32_t rows = 6;
    for (int32_t index = 1; index <= rows; ++index) {
        add_row(index);
    }
    const auto first_running = [] {
        ccCopyEntry row{};
        return get_config_entry_with_status(COPY_STATE_RUNNING, &row) == 0 ? row.ccCopyIndex : 0;
    };
    std::set<int32_t> running;
    std::mt19937 random(7); // NOLINT: the same sequence each time
    for (int step = 0; step < 500; ++step) {
        const int32_t index = static_cast<int32_t>(random() % rows) + 1;
        const bool starts = random() % 2 == 0;
        set_state(index, starts ? COPY_STATE_RUNNING : COPY_STATE_FAILED);
        if (starts) {
            running.insert(index);
        } else {
            running.erase(index);
        }
        ASSERT_EQ(first_running(), running.empty() ? 0 : *running.begin());
    }
}

// An activation asks this, and there may be many rows.
TEST_F(Store, NoRowIsLookedAtForACopyInProgress) {
    add_row(4);
    fake_keyedset.fail_find(&ccCopyTable, 1);
    EXPECT_FALSE(copy_inprogress());
    ccCopyEntry row{};
    row.ccCopyIndex = 4;
    EXPECT_NE(getCcCopyEntry(&row), 0U) << "the failing search was used up";
    EXPECT_EQ(getCcCopyEntry(&row), 0U);
}

TEST_F(Store, ComparisonPutsTheSecondKeyFirst) {
    ccCopyEntry low{}, high{};
    low.ccCopyIndex = -2147483647;
    high.ccCopyIndex = 2147483647;
    EXPECT_EQ(ccCopyEntry_comp_func(&low, &high), 1);
    EXPECT_EQ(ccCopyEntry_comp_func(&high, &low), -1);
    EXPECT_EQ(ccCopyEntry_comp_func(&high, &high), 0);
    EXPECT_EQ(ccCopyEntry_comp_func(nullptr, &high), -1);
    EXPECT_EQ(ccCopyEntry_comp_func(&high, nullptr), -1);
}

TEST_F(Store, EveryPairIsEqualForTheSearchOfAll) {
    ccCopyEntry one{}, other{};
    other.ccCopyIndex = 1;
    EXPECT_EQ(search_all_cmp(&one, &other), 0);
    EXPECT_EQ(search_all_cmp(nullptr, nullptr), 0);
}

TEST_F(Store, LogFeedsOnlyTheSinksThatWantIt) {
    cc_log(EVTRACE_DEBUG, "%s : %d\n", "text", 7);
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{{EVTRACE_DEBUG, "text : 7\n"}}));
    EXPECT_TRUE(fake_evtrace.printed.empty());

    fake_evtrace.clear();
    fake_evtrace.prints = true;
    cc_log(EVTRACE_ERROR, "%s", "100% of it\n");
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{{EVTRACE_ERROR, "100% of it\n"}}));
    EXPECT_EQ(fake_evtrace.printed, std::vector<std::string>{"100% of it\n"});
    EXPECT_EQ(fake_evtrace.asked, std::vector<uint32_t>{EVTRACE_ERROR});

    fake_evtrace.clear();
    fake_evtrace.declines = true;
    cc_log(EVTRACE_DEBUG, "printed only\n");
    EXPECT_TRUE(fake_evtrace.history.empty());
    EXPECT_EQ(fake_evtrace.printed, std::vector<std::string>{"printed only\n"});
}

TEST_F(Store, LongMessagesAreCut) {
    cc_log(EVTRACE_DEBUG, "%s", std::string(600, 'x').c_str());
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{{EVTRACE_DEBUG, std::string(511, 'x')}}));
}

} // namespace
