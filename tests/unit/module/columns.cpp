// Write methods of the seven ordinary columns.
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_keyedset.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

constexpr int reserve1 = 0;
constexpr int reserve2 = 1;
constexpr int action = 2;
constexpr int commit = 3;
constexpr int free_phase = 4;
constexpr int undo = 5;

constexpr int32_t row_index = 5;

// What differs between the columns.
struct Facts {
    const char *column;
    oid number;
    WriteMethod *method;
    bool text;
    std::size_t longest;
    bool save_before_test; // the old value is saved before the row status is tested
    std::vector<int> logged_phases;
    const char *old_text;
    const char *new_text;
    const char *restored_text; // the old text after FREE has restored it
};

std::ostream &operator<<(std::ostream &out, const Facts &facts) {
    return out << facts.column;
}

const Facts all_facts[] = {
    {"ccCopyProtocol",
     2,
     set_ccCopyProtocol,
     false,
     4,
     true,
     {reserve1, reserve2, action, free_phase},
     "",
     "",
     ""},
    {"ccCopySourceFileType",
     3,
     set_ccCopySourceFileType,
     false,
     4,
     true,
     {reserve1, reserve2, action, free_phase},
     "",
     "",
     ""},
    {"ccCopyDestFileType", 4, set_ccCopyDestFileType, false, 4, true, {free_phase}, "", "", ""},
    {"ccCopyFileName",
     6,
     set_ccCopyFileName,
     true,
     128,
     false,
     {action, free_phase},
     "old-name.cfg",
     "new",
     "old-name.c"},
    {"ccCopyUserName",
     7,
     set_ccCopyUserName,
     true,
     41,
     false,
     {free_phase},
     "operator",
     "new",
     "operator"},
    {"ccCopyUserPassword",
     8,
     set_ccCopyUserPassword,
     true,
     41,
     false,
     {free_phase},
     "secret",
     "new",
     "secret"},
    {"ccCopyNotificationOnCompletion",
     9,
     set_ccCopyNotificationOnCompletion,
     false,
     4,
     false,
     {free_phase},
     "",
     "",
     ""},
};

constexpr int32_t old_number = 4;
constexpr int32_t new_number = 2;

int32_t &number_of(ccCopyEntry &row, oid column) {
    switch (column) {
    case 2:
        return row.ccCopyProtocol;
    case 3:
        return row.ccCopySourceFileType;
    case 4:
        return row.ccCopyDestFileType;
    default:
        return row.ccCopyNotificationOnCompletion;
    }
}

void put_text_of(ccCopyEntry &row, oid column, std::string_view text) {
    switch (column) {
    case 6:
        return put_text(row.ccCopyFileName, text);
    case 7:
        return put_text(row.ccCopyUserName, text);
    default:
        return put_text(row.ccCopyUserPassword, text);
    }
}

std::string text_in(const ccCopyEntry &row, oid column) {
    switch (column) {
    case 6:
        return text_of(row.ccCopyFileName);
    case 7:
        return text_of(row.ccCopyUserName);
    default:
        return text_of(row.ccCopyUserPassword);
    }
}

class Column : public ModuleTest, public ::testing::WithParamInterface<Facts> {
  protected:
    const Facts &facts = GetParam();
    const std::string handler = std::string("set_") + facts.column;

    // Row 5 with the old value and this status.
    void add(int32_t row_status = ROW_STATUS_NOT_READY) {
        add_row(row_index, row_status);
        ccCopyEntry row = stored_row(row_index);
        write_old(row);
        store_row(row);
        fake_evtrace.clear();
    }

    void write_old(ccCopyEntry &row) const {
        if (facts.text) {
            put_text_of(row, facts.number, facts.old_text);
        } else {
            number_of(row, facts.number) = old_number;
        }
    }

    Value new_value() const {
        return facts.text ? octet_string(facts.new_text) : integer(new_number);
    }

    int run(int phase, const Value &value) const {
        return call_phase(facts.method, phase, value, facts.number, row_index);
    }
    int run(int phase) const { return run(phase, new_value()); }

    // The row's value as text, whatever its type.
    std::string value(int32_t index = row_index) const {
        ccCopyEntry row = stored_row(index);
        return facts.text ? text_in(row, facts.number)
                          : std::to_string(number_of(row, facts.number));
    }
    std::string old_value() const {
        return facts.text ? facts.old_text : std::to_string(old_number);
    }
    std::string written_value() const {
        return facts.text ? facts.new_text : std::to_string(new_number);
    }
    std::string restored_value() const {
        return facts.text ? facts.restored_text : std::to_string(old_number);
    }

    bool logs(int phase) const {
        return std::ranges::find(facts.logged_phases, phase) != facts.logged_phases.end();
    }

    // The history has only what the phase logs on entry, or nothing.
    void expect_entry_logged(int phase) const {
        const std::string of_entry = " of entry (index = 5)";
        std::vector<EvtraceFake::Record> expected;
        if (logs(phase)) {
            std::string text = handler + " : Entering ";
            if (phase == reserve1) {
                text += "RESERVE1" + of_entry;
                if (facts.number == 2) {
                    EXPECT_LOGGED(EVTRACE_DEBUG, text + " : The protocol being set = 2\n");
                    EXPECT_EQ(fake_evtrace.history.size(), 1U);
                    return;
                }
                // The texts of RESERVE1 in the other columns start with the same words.
                ASSERT_EQ(fake_evtrace.history.size(), 1U);
                EXPECT_EQ(fake_evtrace.history[0].subtype, EVTRACE_DEBUG);
                EXPECT_EQ(fake_evtrace.history[0].text.substr(0, text.size()), text);
                return;
            }
            text += (phase == reserve2 ? "RESERVE2"
                     : phase == action ? "ACTION"
                                       : "FREE") +
                    of_entry + " \n";
            expected.push_back({EVTRACE_DEBUG, text});
        }
        EXPECT_EQ(fake_evtrace.history, expected);
    }
};

TEST_P(Column, WrongType) {
    for (int type = 0; type <= 255; ++type) {
        if (type == static_cast<int>(facts.text ? ASN_OCTET_STR : ASN_INTEGER)) {
            continue;
        }
        ::testing::internal::CaptureStderr();
        const int status = run(reserve1, with_type(new_value(), static_cast<unsigned char>(type)));
        const std::string text = ::testing::internal::GetCapturedStderr();
        ASSERT_EQ(status, SNMP_ERR_WRONGTYPE) << type;
        ASSERT_EQ(text, "write to " + std::string(facts.column) + " not " +
                            (facts.text ? "ASN_OCTET_STR" : "ASN_INTEGER") + "\n");
    }
}

TEST_P(Column, NullIsOfTheWrongType) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(run(reserve1, Value{ASN_NULL, 0, nullptr}), SNMP_ERR_WRONGTYPE);
    ::testing::internal::GetCapturedStderr();
}

TEST_P(Column, Length) {
    add();
    for (std::size_t length = 0; length <= 300; ++length) {
        SCOPED_TRACE(length);
        const bool accepted = length <= facts.longest || (!facts.text && length == sizeof(long));
        ::testing::internal::CaptureStderr();
        const int status = run(reserve1, facts.text ? octet_string(std::string(length, 'x'))
                                                    : integer_of_length(new_number, length));
        const std::string text = ::testing::internal::GetCapturedStderr();
        ASSERT_EQ(status, accepted ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGLENGTH);
        ASSERT_EQ(text, accepted ? "" : "write to " + std::string(facts.column) + ": bad length\n");
    }
}

TEST_P(Column, ShortIntegersAreAWholeWord) {
    if (facts.text) {
        return;
    }
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{3},
                                     std::size_t{4}, sizeof(long)}) {
        SCOPED_TRACE(length);
        ModuleTest::TearDown();
        add();
        const Value value_of_length = integer_of_length(new_number, length);
        EXPECT_EQ(run(reserve1, value_of_length), 0);
        EXPECT_EQ(run(reserve2, value_of_length), 0);
        EXPECT_EQ(value(), written_value());
    }
}

TEST_P(Column, EveryPhase) {
    add();
    EXPECT_EQ(run(reserve1), 0);
    expect_entry_logged(reserve1);
    EXPECT_EQ(value(), old_value());

    fake_evtrace.clear();
    EXPECT_EQ(run(reserve2), 0);
    expect_entry_logged(reserve2);
    EXPECT_EQ(value(), written_value());

    fake_evtrace.clear();
    EXPECT_EQ(run(action), 0);
    expect_entry_logged(action);
    EXPECT_EQ(value(), written_value());

    fake_evtrace.clear();
    EXPECT_EQ(run(commit), 0);
    EXPECT_EQ(run(undo), 0);
    EXPECT_TRUE(fake_evtrace.history.empty());
    EXPECT_EQ(value(), written_value());
}

TEST_P(Column, OtherFieldsStay) {
    add();
    ccCopyEntry expected = stored_row(row_index);
    ASSERT_EQ(run(reserve1), 0);
    ASSERT_EQ(run(reserve2), 0);
    ASSERT_EQ(run(action), 0);
    ccCopyEntry row = stored_row(row_index);
    EXPECT_EQ(value(), written_value());
    // With that one field restored, the row is as before; octets after a text's terminator do not
    // count.
    write_old(row);
    write_old(expected);
    EXPECT_EQ(memcmp(&row, &expected, sizeof row), 0);
}

TEST_P(Column, UnknownPhase) {
    add();
    EXPECT_EQ(run(6), 0);
    EXPECT_EQ(run(-1), 0);
    EXPECT_EQ(value(), old_value());
}

TEST_P(Column, RowThatDoesNotExist) {
    EXPECT_EQ(run(reserve1), 0);
    ::testing::internal::CaptureStdout();
    const int status = run(reserve2);
    const std::string text = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(status, SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(text,
              facts.number == 6 ? "ERROR set_ccCopyFileName: Entry (index = 5) not found  " : "");
    EXPECT_EQ(run(action), SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(run(free_phase), 0);
    EXPECT_FALSE(row_exists(row_index));
}

TEST_P(Column, RowStatusDecides) {
    add();
    for (int32_t row_status = -1; row_status <= 7; ++row_status) {
        SCOPED_TRACE(row_status);
        ccCopyEntry row = stored_row(row_index);
        write_old(row);
        row.ccCopyEntryRowStatus = row_status;
        store_row(row);
        const bool accepted = row_status >= 3 && row_status <= 5;
        ASSERT_EQ(run(reserve1), 0);
        fake_evtrace.clear();
        EXPECT_EQ(run(reserve2), accepted ? SNMP_ERR_NOERROR : SNMP_ERR_INCONSISTENTVALUE);
        EXPECT_EQ(value(), accepted ? written_value() : old_value());
        const std::string refusal =
            handler + " : The row status is not correctly set for this entry (index = 5) \n";
        EXPECT_EQ(fake_evtrace.count(EVTRACE_ERROR, refusal),
                  !accepted && facts.number == 2 ? 1 : 0);
        EXPECT_EQ(fake_evtrace.count(EVTRACE_DEBUG, refusal), 0);
    }
}

TEST_P(Column, FreePutsTheOldValueBack) {
    add();
    ASSERT_EQ(run(reserve1), 0);
    ASSERT_EQ(run(reserve2), 0);
    fake_evtrace.clear();
    EXPECT_EQ(run(free_phase), 0);
    expect_entry_logged(free_phase);
    EXPECT_EQ(value(), restored_value());
}

TEST_P(Column, FreeWithoutASavedValueDoesNothing) {
    add();
    ASSERT_EQ(run(reserve1), 0);
    fake_evtrace.clear();
    EXPECT_EQ(run(free_phase), 0);
    EXPECT_TRUE(fake_evtrace.history.empty());
    EXPECT_EQ(value(), old_value());
}

TEST_P(Column, SavedValueStaysValidUntilTheNextReserve1) {
    add();
    ASSERT_EQ(run(reserve1), 0);
    ASSERT_EQ(run(reserve2), 0);
    ASSERT_EQ(run(free_phase), 0);
    ccCopyEntry row = stored_row(row_index);
    if (facts.text) {
        put_text_of(row, facts.number, "other");
    } else {
        number_of(row, facts.number) = 1;
    }
    store_row(row);
    EXPECT_EQ(run(free_phase), 0);
    EXPECT_NE(value(), facts.text ? "other" : "1");

    // Cleared before the checks, so also by a value that is refused.
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(run(reserve1, with_type(new_value(), ASN_NULL)), SNMP_ERR_WRONGTYPE);
    ::testing::internal::GetCapturedStderr();
    store_row(row);
    EXPECT_EQ(run(free_phase), 0);
    EXPECT_EQ(value(), facts.text ? "other" : "1");
}

TEST_P(Column, FreeAfterARefusedRowStatus) {
    add(ROW_STATUS_ACTIVE);
    ASSERT_EQ(run(reserve1), 0);
    ASSERT_EQ(run(reserve2), SNMP_ERR_INCONSISTENTVALUE);
    // Another value shows whether FREE writes the saved one.
    ccCopyEntry row = stored_row(row_index);
    if (facts.text) {
        put_text_of(row, facts.number, "other");
    } else {
        number_of(row, facts.number) = 1;
    }
    store_row(row);
    fake_evtrace.clear();
    EXPECT_EQ(run(free_phase), 0);
    EXPECT_EQ(value(), facts.save_before_test ? old_value() : facts.text ? "other" : "1");
    EXPECT_EQ(fake_evtrace.history.empty(), !facts.save_before_test);
}

TEST_P(Column, RowsShareOneSavedValue) {
    add();
    add_row(6);
    ASSERT_EQ(run(reserve1), 0);
    ASSERT_EQ(call_phase(facts.method, reserve1, new_value(), facts.number, 6), 0);
    ccCopyEntry row = stored_row(6);
    if (facts.text) {
        put_text_of(row, facts.number, "value of 6");
    } else {
        number_of(row, facts.number) = 1;
    }
    store_row(row);
    ASSERT_EQ(run(reserve2), 0);
    ASSERT_EQ(call_phase(facts.method, reserve2, new_value(), facts.number, 6), 0);
    EXPECT_EQ(run(free_phase), 0);
    EXPECT_EQ(call_phase(facts.method, free_phase, new_value(), facts.number, 6), 0);
    EXPECT_EQ(value(5), value(6));
    EXPECT_EQ(value(5), !facts.text ? "1" : facts.number == 6 ? "value of" : "value of 6");
}

TEST_P(Column, RowThatGoesWhileItIsWritten) {
    add();
    ASSERT_EQ(run(reserve1), 0);
    fake_keyedset.fail_find(&ccCopyTable, 2);
    EXPECT_EQ(run(reserve2), SNMP_ERR_GENERR);
    EXPECT_EQ(value(), old_value());
    ASSERT_EQ(run(reserve2), 0);
    fake_keyedset.fail_find(&ccCopyTable, 2);
    EXPECT_EQ(run(free_phase), SNMP_ERR_GENERR);
}

TEST_P(Column, RowThatIsGoneInFree) {
    add();
    ASSERT_EQ(run(reserve1), 0);
    ASSERT_EQ(run(reserve2), 0);
    ccCopyEntry key{};
    key.ccCopyIndex = row_index;
    ASSERT_EQ(deleteCcCopyEntry(&key), 0U);
    EXPECT_EQ(run(free_phase), 0);
}

INSTANTIATE_TEST_SUITE_P(Columns, Column, ::testing::ValuesIn(all_facts),
                         [](const auto &one) { return one.param.column; });

class Columns : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        add_row(row_index);
    }

    static void reserve(WriteMethod *method, oid column, const Value &value) {
        ASSERT_EQ(call_phase(method, reserve1, value, column, row_index), 0);
        ASSERT_EQ(call_phase(method, reserve2, value, column, row_index), 0);
    }
    static void release(WriteMethod *method, oid column, const Value &value) {
        ASSERT_EQ(call_phase(method, free_phase, value, column, row_index), 0);
    }
    // Writes a text, runs FREE, and returns the restored text.
    template <std::size_t Size>
    static std::string restored(WriteMethod *method, oid column, char (ccCopyEntry::*field)[Size],
                                std::string_view old_text) {
        ccCopyEntry row = stored_row(row_index);
        put_text(row.*field, old_text);
        store_row(row);
        reserve(method, column, octet_string("something else"));
        release(method, column, octet_string("something else"));
        return text_of(stored_row(row_index).*field);
    }
};

TEST_F(Columns, ProtocolValues) {
    for (int32_t protocol = -1; protocol <= 8; ++protocol) {
        const bool accepted = protocol == 1 || protocol == 2 || protocol == 4 || protocol == 5;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(call_phase(set_ccCopyProtocol, reserve1, integer(protocol), 2, row_index),
                  accepted ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE)
            << protocol;
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    }
}

TEST_F(Columns, FileTypesAndFlagTakeAnyNumber) {
    for (const int32_t number : {0, 99, -7, 2147483647}) {
        reserve(set_ccCopySourceFileType, 3, integer(number));
        reserve(set_ccCopyDestFileType, 4, integer(number));
        reserve(set_ccCopyNotificationOnCompletion, 9, integer(number));
        EXPECT_EQ(stored_row(row_index).ccCopySourceFileType, number);
        EXPECT_EQ(stored_row(row_index).ccCopyDestFileType, number);
        EXPECT_EQ(stored_row(row_index).ccCopyNotificationOnCompletion, number);
    }
}

TEST_F(Columns, IntegersAreTheLow32Bits) {
    reserve(set_ccCopySourceFileType, 3, integer(beyond_a_word(4)));
    EXPECT_EQ(stored_row(row_index).ccCopySourceFileType, 4);
    EXPECT_EQ(call_phase(set_ccCopyProtocol, reserve1, integer(beyond_a_word(3)), 2, row_index),
              SNMP_ERR_WRONGVALUE);
}

TEST_F(Columns, IntegerLengths) {
    for (std::size_t length = 0; length <= 20; ++length) {
        EXPECT_EQ(cc_integer_length_ok(length), length <= 4 || length == sizeof(long)) << length;
    }
    EXPECT_EQ(cc_integer_value(integer(-2).octets.get(), sizeof(long)), -2);
    EXPECT_EQ(cc_integer_value(integer_of_length(-2, 4).octets.get(), 4), -2);
    // Even with a shorter length the whole word of the agent's buffer counts.
    EXPECT_EQ(cc_integer_value(integer_of_length(0x04030201, 2).octets.get(), 2), 0x04030201);
    EXPECT_EQ(cc_integer_value(integer_of_length(7, 0).octets.get(), 0), 7);
}

TEST_F(Columns, FileNameComesBackLessItsLastTwoCharacters) {
    const auto file_name = [](std::string_view old) {
        return restored(set_ccCopyFileName, 6, &ccCopyEntry::ccCopyFileName, old);
    };
    EXPECT_EQ(file_name("abcd"), "ab");
    EXPECT_EQ(file_name("abc"), "a");
    EXPECT_EQ(file_name("ab"), "");
    EXPECT_EQ(file_name(std::string(128, 'n')), std::string(126, 'n'));
}

TEST_F(Columns, FileNameOfOneCharacter) {
    // The saved copy of one character is empty, and an empty copy writes nothing back: the new name
    // stays.
    EXPECT_EQ(restored(set_ccCopyFileName, 6, &ccCopyEntry::ccCopyFileName, "a"), "something else");
}

TEST_F(Columns, EmptyFileNameLeavesTheSlotAlone) {
    ASSERT_EQ(restored(set_ccCopyFileName, 6, &ccCopyEntry::ccCopyFileName, "earlier.cfg"),
              "earlier.c");
    // The slot still holds "earlier.cf".
    EXPECT_EQ(restored(set_ccCopyFileName, 6, &ccCopyEntry::ccCopyFileName, ""), "earlier.c");
}

TEST_F(Columns, CredentialsComeBackWithAtMost40Characters) {
    const std::string full(41, 'c');
    EXPECT_EQ(restored(set_ccCopyUserName, 7, &ccCopyEntry::ccCopyUserName, full), full.substr(1));
    EXPECT_EQ(restored(set_ccCopyUserName, 7, &ccCopyEntry::ccCopyUserName, full.substr(1)),
              full.substr(1));
    EXPECT_EQ(restored(set_ccCopyUserName, 7, &ccCopyEntry::ccCopyUserName, ""), "");
    EXPECT_EQ(restored(set_ccCopyUserPassword, 8, &ccCopyEntry::ccCopyUserPassword, full),
              full.substr(1));
    EXPECT_EQ(restored(set_ccCopyUserPassword, 8, &ccCopyEntry::ccCopyUserPassword, ""), "");
}

TEST_F(Columns, SavedUserNameDoesNotTakeThePasswordAlong) {
    ccCopyEntry row = stored_row(row_index);
    put_text(row.ccCopyUserName, std::string(41, 'u'));
    put_text(row.ccCopyUserPassword, "secret");
    store_row(row);
    reserve(set_ccCopyUserName, 7, octet_string("short"));
    release(set_ccCopyUserName, 7, octet_string("short"));
    EXPECT_EQ(text_of(stored_row(row_index).ccCopyUserName), std::string(40, 'u'));
    EXPECT_EQ(text_of(stored_row(row_index).ccCopyUserPassword), "secret");
}

TEST_F(Columns, UserNameOfTheFullWidthEmptiesThePassword) {
    reserve(set_ccCopyUserPassword, 8, octet_string("secret"));
    const std::string name(41, 'u');
    reserve(set_ccCopyUserName, 7, octet_string(name));
    EXPECT_EQ(text_of(stored_row(row_index).ccCopyUserName), name);
    EXPECT_EQ(text_of(stored_row(row_index).ccCopyUserPassword), "");

    reserve(set_ccCopyUserPassword, 8, octet_string("again"));
    EXPECT_EQ(text_of(stored_row(row_index).ccCopyUserName), name);
    EXPECT_EQ(text_of(stored_row(row_index).ccCopyUserPassword), "again");
}

TEST_F(Columns, PasswordOfTheFullWidthStaysInItsField) {
    ccCopyEntry row = stored_row(row_index);
    row.ccCopyNotificationOnCompletion = 0x7f7f7f7f;
    store_row(row);
    const std::string password(41, 'p');
    reserve(set_ccCopyUserPassword, 8, octet_string(password));
    EXPECT_EQ(text_of(stored_row(row_index).ccCopyUserPassword), password);
    EXPECT_EQ(stored_row(row_index).ccCopyNotificationOnCompletion, 0x7f7f7f7f);
}

TEST_F(Columns, ShorterTextReplacesALongerOne) {
    reserve(set_ccCopyFileName, 6, octet_string("a long file name.cfg"));
    reserve(set_ccCopyFileName, 6, octet_string("short"));
    EXPECT_EQ(text_of(stored_row(row_index).ccCopyFileName), "short");
    reserve(set_ccCopyFileName, 6, octet_string(""));
    EXPECT_EQ(text_of(stored_row(row_index).ccCopyFileName), "");
}

} // namespace
