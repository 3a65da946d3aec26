// Memory use: no SET that a manager sends makes memory grow for ever.
#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_fabric.h"
#include "tests/unit/fakes/fake_memory.h"
#include "tests/unit/fakes/fake_time.h"
#include "tests/unit/fakes/fake_utilities.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

constexpr oid protocol = 2;
constexpr oid source_type = 3;
constexpr oid dest_type = 4;

constexpr long past_age_limit = 306;

Varbind row_status(int32_t value, oid index) {
    return {CC_COLUMN_ENTRY_ROW_STATUS, index, integer(value)};
}

// The same with one sub-identifier too many; the last one still identifies the row.
Varbind long_row_status(int32_t value, oid index) {
    return {CC_COLUMN_ENTRY_ROW_STATUS, index, integer(value), {7}};
}

Varbind refused_in_reserve2() {
    return {protocol, 999999, integer(COPY_PROTO_FTP)}; // no such row
}

class Memory : public LoadedModuleTest {
  protected:
    void SetUp() override {
        LoadedModuleTest::SetUp();
        fake_memory.count_blocks();
    }
    void TearDown() override {
        fake_utilities.errors.take();
        LoadedModuleTest::TearDown();
    }

    static void age_out() { cfgentry_age_timer_handler(fake_agent.last_alarm, nullptr); }
    static std::vector<int32_t> copies() {
        std::vector<int32_t> indexes;
        ccCopyEntry key{};
        while (const void *copy = keyedset_find_nextgreater(&ccCopyUndoList, &key)) {
            key.ccCopyIndex = static_cast<const ccCopyEntry *>(copy)->ccCopyIndex;
            indexes.push_back(key.ccCopyIndex);
        }
        return indexes;
    }
    static int status_of(const std::vector<Varbind> &varbinds) { return set(varbinds).status; }
    // A waiting row whose activation ACTION refuses.
    static void create(oid index) {
        ASSERT_EQ(status_of({row_status(ROW_STATUS_CREATE_AND_WAIT, index)}), 0);
    }
    // The copy stays in the undo list, because the SET is abandoned before ACTION.
    static void leave_copy(oid index) {
        ASSERT_EQ(status_of({row_status(ROW_STATUS_DESTROY, index), refused_in_reserve2()}),
                  SNMP_ERR_NOSUCHNAME);
    }
    static void leave_orphan(oid index) {
        create(index);
        leave_copy(index);
        ASSERT_EQ(status_of({long_row_status(ROW_STATUS_DESTROY, index)}), 0);
        ASSERT_FALSE(row_exists(static_cast<int32_t>(index)));
    }
};

TEST_F(Memory, CopiesWhoseRowsAreGoneGoWithTheNextAgeOutPass) {
    create(50);
    leave_copy(50);
    for (const oid index : {1UL, 49UL, 51UL, 2147483647UL}) {
        leave_orphan(index);
    }
    ASSERT_EQ(copies(), (std::vector<int32_t>{1, 49, 50, 51, 2147483647}));
    age_out();
    EXPECT_EQ(copies(), std::vector<int32_t>{50});
    EXPECT_EQ(fake_memory.blocks(), 2U); // the row and its copy
    EXPECT_EQ(status_of({row_status(ROW_STATUS_DESTROY, 50)}), SNMP_ERR_GENERR)
        << "the row copy that is left makes the next request fail";
}

TEST_F(Memory, PassThatEmptiesTheTableLeavesNoCopy) {
    create(50);
    leave_orphan(3);
    leave_copy(50);
    fake_time.seconds += past_age_limit;
    age_out();
    EXPECT_TRUE(fake_agent.alarms.empty());
    EXPECT_EQ(copies(), std::vector<int32_t>{});
    EXPECT_EQ(fake_memory.blocks(), 0U);
}

// Without a row there is no age-out pass, so the next row drops the copies, whatever status creates
// it.
class FirstRow : public Memory, public ::testing::WithParamInterface<int32_t> {};

TEST_P(FirstRow, MeetsNoOlderCopy) {
    leave_orphan(3);
    ASSERT_EQ(copies(), std::vector<int32_t>{3});
    ASSERT_TRUE(fake_agent.alarms.empty());
    // Same index: the older copy would keep the row of a createAndGo that is undone.
    set({row_status(GetParam(), 3)});
    EXPECT_EQ(copies(), std::vector<int32_t>{});
    EXPECT_EQ(row_exists(3), GetParam() != ROW_STATUS_CREATE_AND_GO);

    for (const int32_t index : stored_indexes()) {
        ASSERT_EQ(status_of({long_row_status(ROW_STATUS_DESTROY, static_cast<oid>(index))}), 0);
    }
    leave_orphan(3);
    set({row_status(GetParam(), 4)});
    EXPECT_EQ(copies(), std::vector<int32_t>{});
    EXPECT_EQ(fake_memory.blocks(), stored_indexes().size());
}

INSTANTIATE_TEST_SUITE_P(Memory, FirstRow,
                         ::testing::Values(ROW_STATUS_ACTIVE, ROW_STATUS_CREATE_AND_GO,
                                           ROW_STATUS_CREATE_AND_WAIT));

TEST_F(Memory, LaterRowLeavesTheCopiesToThePass) {
    create(50);
    leave_orphan(3);
    create(4);
    EXPECT_EQ(copies(), std::vector<int32_t>{3});
}

// One SET activates a row and destroys it again: UNDO finds the copy of the activation, but no row.
TEST_F(Memory, UndoneActivationOfARowThatIsGoneFreesItsCopy) {
    create(3);
    ASSERT_EQ(status_of({row_status(ROW_STATUS_ACTIVE, 3), long_row_status(ROW_STATUS_DESTROY, 3)}),
              SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_FALSE(row_exists(3));
    EXPECT_EQ(copies(), std::vector<int32_t>{});
    EXPECT_EQ(fake_memory.blocks(), 0U);
}

// A save to the fabric that fails repeatedly, from the same row.
TEST_F(Memory, ErrorsOfACopyThatFailsAgain) {
    fake_fabric.scripted = true;
    fake_fabric.switches = {{{0x20}, false, {INET_ADDRESS_IPV4, {10, 0, 0, 1}}, "first"},
                            {{0x21}, false, {INET_ADDRESS_IPV4, {10, 0, 0, 2}}, "second"}};
    create(3);
    std::size_t after_the_first = 0;
    for (int failures = 1; failures <= 100; ++failures) {
        ccCopyEntry row = stored_row(3);
        row.ccCopyState = COPY_STATE_FAILED;
        const auto walk = fake_fabric.switches;
        fake_fabric.reset();
        fake_fabric.scripted = true;
        fake_fabric.switches = walk;
        ASSERT_EQ(setCcCopyEntry(&row, 1), 0U);
        ASSERT_EQ(keyedset_size(&ccCopyErrorTable), 2U);
        if (failures == 1) {
            after_the_first = fake_memory.blocks();
        }
    }
    EXPECT_EQ(fake_memory.blocks(), after_the_first);
    EXPECT_EQ(after_the_first, 3U); // the row and its two errors
    ASSERT_EQ(status_of({row_status(ROW_STATUS_DESTROY, 3)}), 0);
    EXPECT_EQ(fake_memory.blocks(), 0U);
}

// --- everything that a manager may write to the row status, in every order

// SETs of up to three variables of one or two rows: with every status, with OIDs that fit or are
// too long, and with values refused in RESERVE1, RESERVE2 or ACTION. After a pass only the rows are
// left, with at most one copy each, and they age out.
class EverySet : public Memory, public ::testing::WithParamInterface<std::size_t> {
  protected:
    static constexpr std::array statuses = {ROW_STATUS_ACTIVE, ROW_STATUS_CREATE_AND_GO,
                                            ROW_STATUS_CREATE_AND_WAIT, ROW_STATUS_DESTROY,
                                            ROW_STATUS_NOT_READY};

    static std::vector<Varbind> candidates(oid index) {
        std::vector<Varbind> all;
        for (const int32_t status : statuses) {
            for (const oid one : {index, index + 1}) {
                all.push_back(row_status(status, one));
                all.push_back(long_row_status(status, one));
            }
        }
        // With the defaults every activation is refused in ACTION. This one succeeds and starts
        // nothing.
        all.push_back({source_type, index, integer(99)});
        // This leaves a createAndGo to be completed.
        all.push_back({dest_type, index, integer(COPY_FILE_RUNNING)});
        all.push_back({protocol, index, integer(COPY_PROTO_RCP)}); // refused in RESERVE1
        all.push_back(refused_in_reserve2());
        return all;
    }
    static void expect_bounded() {
        EXPECT_LE(copies().size(), stored_indexes().size());
        EXPECT_EQ(fake_memory.blocks(), stored_indexes().size() + copies().size());
    }
    static void forget() {
        fake_evtrace.clear();
        fake_utilities.errors.take();
    }
};

TEST_P(EverySet, LeavesNothingBehind) {
    constexpr oid anchor = 1000000; // keeps the table in existence, so that only passes drop copies
    oid index = 1;
    const std::size_t count = candidates(index).size();
    for (std::size_t second = 0; second < count; ++second) {
        create(anchor);
        for (std::size_t third = 0; third < count; ++third) {
            const std::vector<Varbind> all = candidates(index);
            set({all[GetParam()], all[second], all[third]});
            set({all[third]});
            set({all[second], all[GetParam()]});
            index += 2;
            forget();
        }
        age_out();
        expect_bounded();
        fake_time.seconds += past_age_limit;
        age_out();
        ASSERT_EQ(stored_indexes(), std::vector<int32_t>{});
        ASSERT_EQ(copies(), std::vector<int32_t>{});
        ASSERT_EQ(fake_memory.blocks(), 0U);
        ASSERT_TRUE(fake_agent.alarms.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Memory, EverySet, ::testing::Range(std::size_t{0}, std::size_t{24}));

} // namespace
