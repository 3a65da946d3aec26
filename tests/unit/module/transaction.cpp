// Whole SETs through the registered handlers, phase by phase as a stock agent runs them.
#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_process.h"
#include "tests/unit/fakes/fake_time.h"
#include "tests/unit/fakes/fake_utilities.h"
#include "tests/unit/fakes/journal.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

constexpr oid protocol = 2;
constexpr oid source_type = 3;
constexpr oid dest_type = 4;
constexpr oid file_name = 6;
constexpr oid user_name = 7;
constexpr oid password = 8;
constexpr oid notification = 9;
constexpr oid row_status = 14;
constexpr oid address_type = 15;
constexpr oid address_rev1 = 16;

constexpr int reserve1 = 0;
constexpr int reserve2 = 1;
constexpr int action = 2;

class Transaction : public LoadedModuleTest {
  protected:
    // A row as a manager creates it.
    static void create(oid index) {
        ASSERT_EQ(set({{row_status, index, integer(ROW_STATUS_CREATE_AND_WAIT)}}).status, 0);
        ASSERT_EQ(stored_row(static_cast<int32_t>(index)).ccCopyEntryRowStatus,
                  ROW_STATUS_NOT_READY);
    }
};

TEST_F(Transaction, RowIsMadeAndFilledInOneSet) {
    const SetResult result =
        set({{row_status, 5, integer(ROW_STATUS_CREATE_AND_WAIT)},
             {protocol, 5, integer(COPY_PROTO_SFTP)},
             {source_type, 5, integer(COPY_FILE_RUNNING)},
             {dest_type, 5, integer(COPY_FILE_NETWORK)},
             {address_type, 5, integer(INET_ADDRESS_IPV6)},
             {address_rev1, 5,
              octet_string(std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x07", 16))},
             {file_name, 5, octet_string("switch.cfg")},
             {user_name, 5, octet_string(std::string(41, 'u'))},
             {password, 5, octet_string("secret")},
             {notification, 5, integer(TRUTH_TRUE)}});
    EXPECT_EQ(result.status, 0);
    const ccCopyEntry row = stored_row(5);
    EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_EQ(row.ccCopyProtocol, COPY_PROTO_SFTP);
    EXPECT_EQ(row.ccCopySourceFileType, COPY_FILE_RUNNING);
    EXPECT_EQ(row.ccCopyDestFileType, COPY_FILE_NETWORK);
    EXPECT_EQ(text_of(row.ccCopyServerAddressRev1), "2001:db8::7");
    EXPECT_EQ(text_of(row.ccCopyFileName), "switch.cfg");
    EXPECT_EQ(text_of(row.ccCopyUserName), std::string(41, 'u'));
    EXPECT_EQ(text_of(row.ccCopyUserPassword), "secret");
    EXPECT_EQ(row.ccCopyNotificationOnCompletion, TRUTH_TRUE);
    EXPECT_EQ(keyedset_size(&ccCopyUndoList), 0U);
}

TEST_F(Transaction, PhasesGoByColumn) {
    create(5);
    create(6);
    const SetResult result =
        set({{protocol, 5, integer(2)}, {dest_type, 5, integer(4)}, {protocol, 6, integer(4)}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.history, (std::vector<std::string>{
                                  "RESERVE1 2.5", "RESERVE1 2.6", "RESERVE1 4.5", "RESERVE2 2.5",
                                  "RESERVE2 2.6", "RESERVE2 4.5", "ACTION 2.5", "ACTION 2.6",
                                  "ACTION 4.5", "COMMIT 2.5", "COMMIT 2.6", "COMMIT 4.5"}));
    EXPECT_EQ(stored_row(5).ccCopyProtocol, 2);
    EXPECT_EQ(stored_row(6).ccCopyProtocol, 4);
    EXPECT_EQ(stored_row(5).ccCopyDestFileType, 4);
}

TEST_F(Transaction, FailureInReserve2RestoresTheColumns) {
    create(5);
    ASSERT_EQ(set({{file_name, 5, octet_string("old-name.cfg")},
                   {user_name, 5, octet_string("old user")}})
                  .status,
              0);
    const SetResult result = set({{protocol, 5, integer(COPY_PROTO_FTP)},
                                  {source_type, 5, integer(4)},
                                  {dest_type, 5, integer(1)},
                                  {notification, 5, integer(1)},
                                  {file_name, 5, octet_string("new-name.cfg")},
                                  {user_name, 5, octet_string("new user")},
                                  {password, 9, octet_string("no such row")}});
    EXPECT_EQ(result.status, SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(result.failed_phase, reserve2);
    const ccCopyEntry row = stored_row(5);
    EXPECT_EQ(row.ccCopyProtocol, COPY_PROTO_TFTP);
    EXPECT_EQ(row.ccCopySourceFileType, COPY_FILE_NETWORK);
    EXPECT_EQ(row.ccCopyDestFileType, COPY_FILE_STARTUP);
    EXPECT_EQ(row.ccCopyNotificationOnCompletion, TRUTH_FALSE);
    EXPECT_EQ(text_of(row.ccCopyFileName), "old-name.c");
    EXPECT_EQ(text_of(row.ccCopyUserName), "old user");
}

TEST_F(Transaction, FailureInReserve1ChangesNoColumn) {
    create(5);
    const ccCopyEntry before = stored_row(5);
    const SetResult result =
        set({{dest_type, 5, integer(4)}, {protocol, 5, integer(COPY_PROTO_RCP)}});
    EXPECT_EQ(result.status, SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(result.failed_phase, reserve1);
    EXPECT_EQ(result.history,
              (std::vector<std::string>{"RESERVE1 4.5", "RESERVE1 2.5", "FREE 4.5", "FREE 2.5"}));
    const ccCopyEntry after = stored_row(5);
    EXPECT_EQ(memcmp(&before, &after, sizeof after), 0);
}

TEST_F(Transaction, FailureInReserve2DeletesTheRowThatItMade) {
    const SetResult result = set({{row_status, 5, integer(ROW_STATUS_CREATE_AND_WAIT)},
                                  {protocol, 6, integer(COPY_PROTO_FTP)}});
    EXPECT_EQ(result.status, SNMP_ERR_NOSUCHNAME);
    EXPECT_TRUE(stored_indexes().empty());
    EXPECT_TRUE(fake_agent.alarms.empty());
}

TEST_F(Transaction, FailureInReserve1LeavesTheRowThatItMade) {
    const SetResult result = set({{row_status, 5, integer(ROW_STATUS_CREATE_AND_WAIT)},
                                  {protocol, 5, integer(COPY_PROTO_RCP)}});
    EXPECT_EQ(result.status, SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_CREATE_AND_WAIT);
    EXPECT_EQ(stored_row(5).reserve2_seen, 0);
}

TEST_F(Transaction, ColumnAheadOfTheCreationFindsTheRow) {
    // RESERVE1 creates the row, so every column's RESERVE2 finds it, in any order.
    const SetResult result = set({{protocol, 5, integer(COPY_PROTO_FTP)},
                                  {row_status, 5, integer(ROW_STATUS_CREATE_AND_WAIT)}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(stored_row(5).ccCopyProtocol, COPY_PROTO_FTP);
}

TEST_F(Transaction, FailureInActionUndoesTheRowStatusAlone) {
    create(5);
    ASSERT_EQ(set({{dest_type, 5, integer(COPY_FILE_RUNNING)}}).status, 0);
    create(6);
    const SetResult result =
        set({{protocol, 6, integer(COPY_PROTO_FTP)}, {row_status, 5, integer(ROW_STATUS_ACTIVE)}});
    EXPECT_EQ(result.status, SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(result.failed_phase, action);
    EXPECT_EQ(result.history.back(), "UNDO 14.5");
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    // a column keeps a value that RESERVE2 has stored
    EXPECT_EQ(stored_row(6).ccCopyProtocol, COPY_PROTO_FTP);
    EXPECT_EQ(keyedset_size(&ccCopyUndoList), 0U);
}

TEST_F(Transaction, ColumnBehindAnActivationIsRefused) {
    create(5);
    ASSERT_EQ(set({{dest_type, 5, integer(COPY_FILE_RUNNING)}}).status, 0);
    // The row status is first, so it is stored as active before the column's RESERVE2: the column
    // is refused.
    const SetResult first = set(
        {{row_status, 5, integer(ROW_STATUS_ACTIVE)}, {file_name, 5, octet_string("switch.cfg")}});
    EXPECT_EQ(first.status, SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(first.failed_phase, reserve2);
    EXPECT_EQ(text_of(stored_row(5).ccCopyFileName), "");
}

TEST_F(Transaction, DestroyThatIsUndoneKeepsTheRowOut) {
    create(5);
    create(6);
    ASSERT_EQ(set({{dest_type, 6, integer(COPY_FILE_RUNNING)}}).status, 0);
    const SetResult result = set({{row_status, 5, integer(ROW_STATUS_DESTROY)},
                                  {row_status, 6, integer(ROW_STATUS_ACTIVE)}});
    EXPECT_EQ(result.status, SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(stored_indexes(), std::vector<int32_t>{6});
    EXPECT_EQ(stored_row(6).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_EQ(keyedset_size(&ccCopyUndoList), 0U);
}

TEST_F(Transaction, WholeWalk) {
    for (const oid index : {9UL, 3UL, 5UL}) {
        create(index);
    }
    std::vector<oid> walked;
    Oid name = copy_column(row_status);
    while (const std::optional<Answer> answer = get_next(copy_column(row_status), name)) {
        ASSERT_LT(walked.size(), 4U) << "the walk does not end";
        name = answer->name;
        walked.push_back(name.back());
    }
    EXPECT_EQ(walked, (std::vector<oid>{3, 5, 9}));
}

TEST_F(Transaction, LegacyAddressOfAFailedSetIsEmptied) {
    create(5);
    ASSERT_EQ(
        set({{address_type, 5, integer(1)}, {address_rev1, 5, octet_string("\x0a\x01\x02\x03")}})
            .status,
        0);
    ASSERT_EQ(text_of(stored_row(5).ccCopyServerAddressRev1), "10.1.2.3");
    ::testing::internal::CaptureStdout();
    const SetResult result = set({{CC_COLUMN_SERVER_ADDRESS, 5, ip_address("\x0a\x01\x02\x04")},
                                  {protocol, 9, integer(COPY_PROTO_FTP)}});
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(result.status, SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(text_of(stored_row(5).ccCopyServerAddressRev1), "");
    EXPECT_EQ(stored_row(5).ccCopyServerAddressType, INET_ADDRESS_IPV4);
}

// A complete network copy by TFTP.
std::vector<Varbind> complete_copy(oid index) {
    return {{protocol, index, integer(COPY_PROTO_TFTP)},
            {source_type, index, integer(COPY_FILE_RUNNING)},
            {dest_type, index, integer(COPY_FILE_NETWORK)},
            {address_type, index, integer(INET_ADDRESS_IPV4)},
            {address_rev1, index, octet_string(std::string("\x0a\0\0\x01", 4))},
            {file_name, index, octet_string("switch.cfg")}};
}

TEST_F(Transaction, ActivationStartsTheCopy) {
    create(5);
    ASSERT_EQ(set(complete_copy(5)).status, 0);
    fake_time.seconds = 1234567890;
    EXPECT_EQ(set({{row_status, 5, integer(ROW_STATUS_ACTIVE)}}).status, 0);
    EXPECT_EQ(journal.take(), Lines{"fork"});
    EXPECT_EQ(child_copy_running, 1);
    const ccCopyEntry row = stored_row(5);
    EXPECT_EQ(row.ccCopyEntryRowStatus, ROW_STATUS_ACTIVE);
    EXPECT_EQ(row.ccCopyState, COPY_STATE_RUNNING);
    EXPECT_EQ(row.ccCopyTimeStarted.tv_sec, 1234567890);
    EXPECT_EQ(keyedset_size(&ccCopyUndoList), 0U);

    // A second request is refused in RESERVE1, and the running row accepts no value.
    create(6);
    EXPECT_EQ(set({{row_status, 6, integer(ROW_STATUS_ACTIVE)}}).status, SNMP_ERR_GENERR);
    EXPECT_EQ(fake_utilities.errors.take().size(), 1U);
    EXPECT_EQ(stored_row(6).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_EQ(set({{file_name, 5, octet_string("other.cfg")}}).status, SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(text_of(stored_row(5).ccCopyFileName), "switch.cfg");
}

TEST_F(Transaction, CreateAndGoWithEveryColumnStartsTheCopy) {
    std::vector<Varbind> varbinds = complete_copy(5);
    varbinds.insert(varbinds.begin(), {row_status, 5, integer(ROW_STATUS_CREATE_AND_GO)});
    EXPECT_EQ(set(varbinds).status, 0);
    EXPECT_EQ(journal.take(), Lines{"fork"});
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_ACTIVE);
    EXPECT_EQ(stored_row(5).ccCopyState, COPY_STATE_RUNNING);
}

// The agent also runs ACTION by column. If a row is activated before another one fails, its copy
// runs although UNDO restores the row.
TEST_F(Transaction, StartedCopyWhoseSetFails) {
    create(5);
    ASSERT_EQ(set(complete_copy(5)).status, 0);
    create(6);
    ASSERT_EQ(set({{dest_type, 6, integer(COPY_FILE_RUNNING)}}).status, 0);
    const SetResult result = set(
        {{row_status, 5, integer(ROW_STATUS_ACTIVE)}, {row_status, 6, integer(ROW_STATUS_ACTIVE)}});
    EXPECT_EQ(result.status, SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(journal.take(), Lines{"fork"});
    EXPECT_EQ(child_copy_running, 1);
    EXPECT_EQ(stored_row(5).ccCopyEntryRowStatus, ROW_STATUS_NOT_READY);
    EXPECT_EQ(stored_row(5).ccCopyState, COPY_STATE_WAITING);
}

TEST_F(Transaction, UnknownFileTypesStartNothing) {
    create(5);
    ASSERT_EQ(set({{source_type, 5, integer(99)}, {dest_type, 5, integer(98)}}).status, 0);
    EXPECT_EQ(set({{row_status, 5, integer(ROW_STATUS_ACTIVE)}}).status, 0);
    EXPECT_EQ(stored_row(5).ccCopyState, COPY_STATE_WAITING);
    EXPECT_EQ(stored_row(5).ccCopyTimeStarted.tv_sec, 0);
    EXPECT_FALSE(copy_inprogress());
}

} // namespace
