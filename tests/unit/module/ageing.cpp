// Ageing of rows, and changes of the system's clock.
#include "tests/unit/fakes/execution_fixture.h"
#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_keyedset.h"
#include "tests/unit/fakes/fake_time.h"

namespace {

class Ageing : public LoadedModuleTest {
  protected:
    // Adds a row of this age to the table.
    static void add_aged(int32_t index, int32_t age, int32_t state = COPY_STATE_WAITING,
                         int32_t row_status = ROW_STATUS_NOT_READY) {
        add_row(index, row_status);
        ccCopyEntry row = stored_row(index);
        row.create_time = static_cast<int32_t>(fake_time.seconds - age);
        row.ccCopyState = state;
        store_row(row);
    }
    static void age_out() { cfgentry_age_timer_handler(fake_agent.last_alarm, nullptr); }
};

// --- ageing

TEST_F(Ageing, LimitOfAge) {
    add_aged(1, 304);
    add_aged(2, 305);
    add_aged(3, 306);
    add_aged(4, 0);
    add_aged(5, 100000);
    add_aged(6, -10); // created in the future
    age_out();
    EXPECT_EQ(stored_indexes(), (std::vector<int32_t>{1, 2, 4, 6}));
    const auto deleting = [](int index, int age) {
        return EvtraceFake::Record{
            EVTRACE_DEBUG,
            "cfgentry_age_timer_handler: Deleting the aged out entry " + std::to_string(index) +
                " (curtime = 1700000000, entrycreatetetime = " + std::to_string(1700000000 - age) +
                " \n"};
    };
    std::vector<EvtraceFake::Record> of_the_handler = fake_evtrace.history;
    std::erase_if(of_the_handler, [](const EvtraceFake::Record &one) {
        return !one.text.starts_with("cfgentry_age_timer_handler");
    });
    EXPECT_EQ(of_the_handler, (std::vector<EvtraceFake::Record>{
                                  {EVTRACE_DEBUG, "cfgentry_age_timer_handler : enter...\n"},
                                  deleting(3, 306),
                                  deleting(5, 100000)}));
}

TEST_F(Ageing, EveryStateButRunningAgesOut) {
    for (int32_t state = 0; state <= 5; ++state) {
        add_aged(state + 1, 306, state, ROW_STATUS_ACTIVE);
    }
    age_out();
    EXPECT_EQ(stored_indexes(), std::vector<int32_t>{COPY_STATE_RUNNING + 1});
}

TEST_F(Ageing, RunningCopyStaysUnlessItsDestructionWasAsked) {
    for (int32_t row_status = 0; row_status <= 6; ++row_status) {
        add_aged(row_status + 1, 306, COPY_STATE_RUNNING, row_status);
    }
    add_aged(10, 305, COPY_STATE_RUNNING, ROW_STATUS_DESTROY);
    age_out();
    EXPECT_EQ(stored_indexes(), (std::vector<int32_t>{1, 2, 3, 4, 5, 6, 10}));
}

TEST_F(Ageing, LastRowTakesTableAndAlarmWithIt) {
    add_aged(3, 306);
    add_aged(8, 400);
    ASSERT_EQ(fake_agent.alarms.size(), 1U);
    age_out();
    EXPECT_EQ(ccCopyTable.impl, nullptr);
    EXPECT_TRUE(fake_agent.alarms.empty());
    EXPECT_EQ(stored_indexes(), std::vector<int32_t>{});

    add_row(4);
    ASSERT_EQ(fake_agent.alarms.size(), 1U);
    EXPECT_EQ(fake_agent.alarms[0].seconds, 101U);
    EXPECT_EQ(fake_agent.alarms[0].flags, static_cast<unsigned int>(SA_REPEAT));
    EXPECT_EQ(fake_agent.alarms[0].function, &cfgentry_age_timer_handler);
    EXPECT_EQ(fake_agent.alarms[0].handle, ageouttimer);
}

TEST_F(Ageing, ErrorRowsGoWithTheirRow) {
    add_aged(3, 306);
    add_aged(4, 0);
    ASSERT_EQ(keyedset_create(&ccCopyErrorTable, 1, 1, ccCopyErrorEntry_comp_func, 1),
              KEYEDSET_CREATED);
    for (const int32_t index : {3, 4}) {
        ccCopyEntry request{};
        request.ccCopyIndex = index;
        ccCopyErrorEntry error{};
        error.ccCopyIndex = index;
        error.ccCopyErrorIndex = 1;
        ASSERT_EQ(addCcCopyErrorEntry(&request, &error), 0U);
    }
    age_out();
    ccCopyErrorEntry error{};
    ASSERT_EQ(getnextCcCopyErrorEntry(&error), 0U);
    EXPECT_EQ(error.ccCopyIndex, 4);
    EXPECT_NE(getnextCcCopyErrorEntry(&error), 0U);
}

TEST_F(Ageing, EmptyTable) {
    age_out();
    EXPECT_EQ(stored_indexes(), std::vector<int32_t>{});
}

// An abandoned destroy leaves a copy of the row, which must not meet a later row of that index.
TEST_F(Ageing, RowCopyOfAnAbandonedSetGoesWithTheRow) {
    add_aged(3, 306);
    add_aged(4, 0);
    ::testing::internal::CaptureStderr(); // the refusal of the second variable
    for (const oid index : {oid{3}, oid{4}}) {
        EXPECT_EQ(set({{CC_COLUMN_ENTRY_ROW_STATUS, index, integer(ROW_STATUS_DESTROY)},
                       {CC_COLUMN_FILE_NAME, 999, octet_string("none")}})
                      .status,
                  SNMP_ERR_NOSUCHNAME);
    }
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(keyedset_size(&ccCopyUndoList), 2U);
    age_out();
    EXPECT_EQ(stored_indexes(), std::vector<int32_t>{4});
    ASSERT_EQ(keyedset_size(&ccCopyUndoList), 1U);
    EXPECT_EQ(
        static_cast<const ccCopyEntry *>(keyedset_find_nth_obj(&ccCopyUndoList, 1))->ccCopyIndex,
        4);
}

// --- clock changes

class ClockChange : public Ageing {
  protected:
    static void change(uint32_t seconds, uint32_t direction) {
        const agent_starttime_change change{&seconds, direction};
        EXPECT_EQ(cc_handle_starttime_change(SNMP_CALLBACK_LIBRARY, AGENT_CALLBACK_STARTTIME_CHANGE,
                                             const_cast<agent_starttime_change *>(&change),
                                             nullptr),
                  0);
    }
    static void add_created(int32_t index, int32_t create_time) {
        add_row(index);
        ccCopyEntry row = stored_row(index);
        row.create_time = create_time;
        row.ccCopyTimeStarted = {100, 1};
        row.ccCopyTimeCompleted = {200, 2};
        store_row(row);
    }
};

TEST_F(ClockChange, MovesEveryCreation) {
    add_created(3, 1000);
    add_created(7, 5000);
    Lines states;
    journal.on_line = [&](const std::string &) {
        states.push_back(std::to_string(stored_row(3).create_time) + " " +
                         std::to_string(stored_row(7).create_time));
    };
    change(3600, 1);
    EXPECT_EQ(journal.take(), (Lines{"heartbeat", "heartbeat"}));
    EXPECT_EQ(states, (Lines{"4600 5000", "4600 8600"})); // after every row
    EXPECT_EQ(stored_row(3).ccCopyTimeStarted.tv_sec, 100);
    EXPECT_EQ(stored_row(3).ccCopyTimeCompleted.tv_sec, 200);
}

TEST_F(ClockChange, AnyOtherDirectionSubtracts) {
    for (const uint32_t direction : {0U, 2U, 3U, 0xFFFFFFFFU}) {
        add_created(3, 5000);
        change(3600, direction);
        EXPECT_EQ(stored_row(3).create_time, 1400);
        const ccCopyEntry row = stored_row(3);
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
        journal.take();
    }
}

TEST_F(ClockChange, WrapsAround) {
    add_created(1, INT32_MAX);
    change(1, 1);
    EXPECT_EQ(stored_row(1).create_time, INT32_MIN);
    change(1, 2);
    EXPECT_EQ(stored_row(1).create_time, INT32_MAX);
    change(0xFFFFFFFF, 1);
    EXPECT_EQ(stored_row(1).create_time, INT32_MAX - 1);
    change(0xFFFFFFFF, 2);
    EXPECT_EQ(stored_row(1).create_time, INT32_MAX);
    journal.take();
}

TEST_F(ClockChange, KeepsTheRealAge) {
    add_aged(3, 305);
    change(3600, 1);
    fake_time.seconds += 3600;
    age_out();
    EXPECT_EQ(stored_indexes(), std::vector<int32_t>{3});
    fake_time.seconds += 1;
    age_out();
    EXPECT_EQ(stored_indexes(), std::vector<int32_t>{});
    journal.take();
}

TEST_F(ClockChange, GoesOnAfterARowThatCannotBeWritten) {
    add_created(3, 1000);
    add_created(7, 5000);
    fake_keyedset.fail_find(&ccCopyTable, 1);
    change(3600, 1);
    EXPECT_EQ(stored_row(3).create_time, 1000);
    EXPECT_EQ(stored_row(7).create_time, 8600);
    EXPECT_EQ(journal.take(), (Lines{"heartbeat", "heartbeat"}));
}

TEST_F(ClockChange, NoRow) {
    change(3600, 1);
    EXPECT_EQ(journal.take(), Lines{});
}

} // namespace
