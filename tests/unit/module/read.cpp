// GET and GETNEXT on ccCopyTable.
#include <net-snmp/net-snmp-config.h>

#include <cerrno>

#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_inet_address.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

using Read = ModuleTest;

constexpr oid first_column = 2;
constexpr oid last_column = 16;

std::string word(int32_t value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

// The value of a column of row 5, or "none".
std::string value_of(oid column) {
    const std::optional<Answer> answer = get(copy_column(column), copy_instance(column, 5));
    if (!answer) {
        return "none";
    }
    EXPECT_EQ(answer->name, copy_instance(column, 5));
    return answer->octets;
}

Oid prefix_with(std::initializer_list<oid> rest) {
    Oid name = copy_column(2);
    name.insert(name.end(), rest);
    return name;
}

// Index of the row that a GETNEXT of the protocol returns, or -1.
long next_index(const Oid &name) {
    const std::optional<Answer> answer = get_next(copy_column(2), name);
    if (!answer) {
        return -1;
    }
    EXPECT_EQ(answer->name, copy_instance(2, answer->name.back()));
    return static_cast<long>(answer->name.back());
}

TEST_F(Read, EveryColumn) {
    add_row(5);
    ccCopyEntry row = stored_row(5);
    row.ccCopyProtocol = COPY_PROTO_SFTP;
    row.ccCopySourceFileType = COPY_FILE_RUNNING;
    row.ccCopyDestFileType = COPY_FILE_ALL_STARTUP;
    put_text(row.ccCopyFileName, "switch.cfg");
    put_text(row.ccCopyUserName, "operator");
    put_text(row.ccCopyUserPassword, "secret");
    row.ccCopyNotificationOnCompletion = TRUTH_TRUE;
    row.ccCopyState = COPY_STATE_FAILED;
    row.ccCopyTimeStarted = {1000, 500000};
    row.ccCopyTimeCompleted = {1002, 250000};
    row.ccCopyFailCause = COPY_FAIL_NO_SPACE;
    row.ccCopyEntryRowStatus = ROW_STATUS_NOT_READY;
    row.ccCopyServerAddressType = INET_ADDRESS_IPV4;
    put_text(row.ccCopyServerAddressRev1, "10.0.0.1");
    store_row(row);
    fake_agent.start.tv_sec = 900;

    EXPECT_EQ(value_of(2), word(COPY_PROTO_SFTP));
    EXPECT_EQ(value_of(3), word(COPY_FILE_RUNNING));
    EXPECT_EQ(value_of(4), word(COPY_FILE_ALL_STARTUP));
    EXPECT_EQ(value_of(5), "\x0a" + std::string(2, '\0') + "\x01");
    EXPECT_EQ(value_of(6), "switch.cfg");
    EXPECT_EQ(value_of(7), "operator");
    EXPECT_EQ(value_of(8), "");
    EXPECT_EQ(value_of(9), word(TRUTH_TRUE));
    EXPECT_EQ(value_of(10), word(COPY_STATE_FAILED));
    EXPECT_EQ(value_of(11), word(10050));
    EXPECT_EQ(value_of(12), word(10225));
    EXPECT_EQ(value_of(13), word(COPY_FAIL_NO_SPACE));
    EXPECT_EQ(value_of(14), word(ROW_STATUS_NOT_READY));
    EXPECT_EQ(value_of(15), word(INET_ADDRESS_IPV4));
    EXPECT_EQ(value_of(16), "\x0a" + std::string(2, '\0') + "\x01");
}

TEST_F(Read, TimesOfARowThatNeverRan) {
    add_row(5);
    fake_agent.start.tv_sec = -1; // the conversion of 0 would not be 0
    EXPECT_EQ(value_of(11), word(0));
    EXPECT_EQ(value_of(12), word(0));
}

TEST_F(Read, TimesBeforeTheAgentsStartAreZero) {
    add_row(5);
    ccCopyEntry row = stored_row(5);
    row.ccCopyTimeStarted = {999, 990000};
    row.ccCopyTimeCompleted = {1000, 10000};
    store_row(row);
    fake_agent.start.tv_sec = 1000;
    EXPECT_EQ(value_of(11), word(0));
    EXPECT_EQ(value_of(12), word(1));
}

// Uptimes near the ends of 31 and of 32 bits, at 248.55 and 497.1 days.
TEST_F(Read, TimesOfALongUptime) {
    add_row(5);
    fake_agent.start.tv_sec = -1000000000;
    const auto at = [](int64_t ticks) {
        return ccTime{static_cast<int32_t>(fake_agent.start.tv_sec + ticks / 100),
                      static_cast<int32_t>(ticks % 100 * 10000)};
    };
    constexpr int64_t day = 8640000;
    for (const auto &[uptime, read] :
         std::vector<std::pair<int64_t, uint32_t>>{{2147483647, 2147483647},
                                                   {2147483648, 2147483648},
                                                   {2147483649, 2147483649},
                                                   {300 * day, 2592000000},
                                                   {4294967295, 4294967295},
                                                   {4294967296, 0},
                                                   {4294967297, 1},
                                                   {600 * day, 889032704},
                                                   {-1, 0},
                                                   {-2147483648, 0},
                                                   // the low 32 bits alone would be positive
                                                   {-2147483649, 0},
                                                   {-4294967295, 0}}) {
        SCOPED_TRACE(uptime);
        ccCopyEntry row = stored_row(5);
        row.ccCopyTimeStarted = at(uptime);
        row.ccCopyTimeCompleted = at(uptime);
        store_row(row);
        EXPECT_EQ(value_of(11), word(static_cast<int32_t>(read)));
        EXPECT_EQ(value_of(12), word(static_cast<int32_t>(read)));
    }
}

TEST_F(Read, EitherWordOfATimeCounts) {
    add_row(5);
    ccCopyEntry row = stored_row(5);
    row.ccCopyTimeStarted = {0, 20000};
    row.ccCopyTimeCompleted = {1, 0};
    store_row(row);
    EXPECT_EQ(value_of(11), word(2));
    EXPECT_EQ(value_of(12), word(100));
}

TEST_F(Read, Ipv6ServerHasNoLegacyAddress) {
    add_row(5);
    ccCopyEntry row = stored_row(5);
    put_text(row.ccCopyServerAddressRev1, "2001:db8::7");
    store_row(row);
    EXPECT_EQ(value_of(5), "none");
    EXPECT_EQ(value_of(16), "\x20\x01\x0d\xb8" + std::string(11, '\0') + "\x07");
}

TEST_F(Read, UnparsableServerAddressHasNoValue) {
    add_row(5);
    for (const char *text : {"", "10.0.0", "switch"}) {
        ccCopyEntry row = stored_row(5);
        put_text(row.ccCopyServerAddressRev1, text);
        store_row(row);
        EXPECT_EQ(value_of(5), "none") << text;
        EXPECT_EQ(value_of(16), "none") << text;
    }
    ccCopyEntry row = stored_row(5);
    put_text(row.ccCopyServerAddressRev1, "10.0.0.1");
    store_row(row);
    fake_inet_address.from_str_error = EINVAL;
    EXPECT_EQ(value_of(5), "none");
    EXPECT_EQ(value_of(16), "none");
}

TEST_F(Read, UnparsableServerAddressHasLengthZero) {
    add_row(5);
    for (const unsigned char magic : {CC_MAGIC_SERVER_ADDRESS, CC_MAGIC_SERVER_ADDRESS_REV1}) {
        const oid column = magic == CC_MAGIC_SERVER_ADDRESS ? 5 : 16;
        struct variable variable {};
        variable.magic = magic;
        Oid name = copy_column(column);
        std::ranges::copy(name, variable.name);
        variable.namelen = static_cast<u_char>(name.size());
        name = copy_instance(column, 5);
        name.resize(MAX_OID_LEN);
        size_t length = CC_ROW_OID_LENGTH;
        size_t value_length = 77;
        WriteMethod *method = nullptr;
        EXPECT_EQ(get_ccCopyTable(&variable, name.data(), &length, 1, &value_length, &method),
                  nullptr);
        EXPECT_EQ(value_length, 0U);
    }
}

TEST_F(Read, UserNameOfTheFullWidthDoesNotShowThePassword) {
    add_row(5);
    ccCopyEntry row = stored_row(5);
    put_text(row.ccCopyUserName, std::string(41, 'u'));
    put_text(row.ccCopyUserPassword, "secret");
    store_row(row);
    EXPECT_EQ(value_of(7), std::string(41, 'u'));
    EXPECT_EQ(value_of(8), "");
}

TEST_F(Read, UnknownMagicHasNoValue) {
    add_row(5);
    for (const u_char magic : std::vector<u_char>{0, 3, 19, 25, 255}) {
        struct variable variable {};
        variable.magic = magic;
        Oid name = copy_column(2);
        std::ranges::copy(name, variable.name);
        variable.namelen = static_cast<u_char>(name.size());
        name = copy_instance(2, 5);
        name.resize(MAX_OID_LEN);
        size_t length = CC_ROW_OID_LENGTH;
        size_t value_length = 77;
        WriteMethod *method = nullptr;
        EXPECT_EQ(get_ccCopyTable(&variable, name.data(), &length, 1, &value_length, &method),
                  nullptr);
        EXPECT_EQ(value_length, 77U);
        EXPECT_EQ(fake_agent.details.take(), std::vector<std::string>{""});
    }
}

TEST_F(Read, NextRow) {
    EXPECT_EQ(next_index(prefix_with({})), -1);
    add_row(9);
    add_row(3);
    add_row(5);
    EXPECT_EQ(next_index(prefix_with({})), 3);
    EXPECT_EQ(next_index(prefix_with({0})), 3);
    EXPECT_EQ(next_index(prefix_with({2})), 3);
    EXPECT_EQ(next_index(prefix_with({3})), 5);
    EXPECT_EQ(next_index(prefix_with({5})), 9);
    EXPECT_EQ(next_index(prefix_with({5, 1, 2})), 9); // further sub-identifiers are ignored
    EXPECT_EQ(next_index(prefix_with({9})), -1);
    EXPECT_EQ(next_index(prefix_with({2147483647})), -1);
}

TEST_F(Read, NextRowFromBeforeTheColumn) {
    add_row(3);
    EXPECT_EQ(next_index(copy_column(1)), 3);      // not longer than the column's OID
    EXPECT_EQ(next_index(copy_instance(1, 7)), 3); // longer, but of another column
    EXPECT_EQ(next_index({1, 3, 6, 1, 4, 1}), 3);
}

TEST_F(Read, NoRowFollowsALargeSubIdentifier) {
    add_row(3);
    add_row(2147483647);
    for (const oid index : {2147483648UL, 2147483653UL, 4294967295UL}) {
        EXPECT_EQ(next_index(prefix_with({index})), -1) << index;
    }
}

TEST_F(Read, ExactNeedsExactlyOneSubIdentifier) {
    add_row(5);
    const Oid column = copy_column(2);
    EXPECT_TRUE(get(column, prefix_with({5})));
    EXPECT_FALSE(get(column, prefix_with({5, 1})));
    EXPECT_FALSE(get(column, prefix_with({})));
    EXPECT_FALSE(get(column, prefix_with({4})));
    EXPECT_FALSE(get(column, prefix_with({0})));
}

TEST_F(Read, WriteMethodIsInstalledWithoutARow) {
    for (oid column = first_column; column <= last_column; ++column) {
        struct variable variable {};
        variable.magic = static_cast<u_char>(column + 2);
        Oid name = copy_column(column);
        std::ranges::copy(name, variable.name);
        variable.namelen = static_cast<u_char>(name.size());
        name = copy_instance(column, 5);
        name.resize(MAX_OID_LEN);
        size_t length = CC_ROW_OID_LENGTH;
        size_t value_length = 0;
        WriteMethod *method = nullptr;
        WriteMethod *expected = nullptr;
        set_ccCopyTable_setmethods(variable.magic, &expected);
        EXPECT_EQ(get_ccCopyTable(&variable, name.data(), &length, 1, &value_length, &method),
                  nullptr);
        EXPECT_EQ(method, expected) << column;
        EXPECT_EQ(expected == nullptr, column >= 10 && column <= 13) << column;
    }
}

TEST_F(Read, AnswersComeFromTheLastReadRow) {
    add_row(5);
    ASSERT_EQ(value_of(2), word(COPY_PROTO_TFTP));
    EXPECT_EQ(cc_last_read_row.ccCopyIndex, 5);
    const ccCopyEntry row = stored_row(5);
    EXPECT_EQ(memcmp(&cc_last_read_row, &row, sizeof row), 0);
}

class Parse : public ModuleTest {
  protected:
    const Oid prefix = copy_column(2);
    int32_t index = 77;

    uint32_t parse(const Oid &name, int exact) {
        index = 77;
        return copy_oid_index_parse(prefix.data(), prefix.size(), name.data(), name.size(), exact,
                                    &index);
    }
};

TEST_F(Parse, Exact) {
    EXPECT_EQ(parse(prefix_with({5}), 1), 0U);
    EXPECT_EQ(index, 5);
    EXPECT_EQ(parse(prefix_with({5, 1}), 1), CCERR_FAILED);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(parse(prefix, 1), 0U);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(parse({1, 3}, 1), 0U);
    EXPECT_EQ(index, 0);
}

TEST_F(Parse, Next) {
    EXPECT_EQ(parse(prefix_with({5, 8}), 0), 0U);
    EXPECT_EQ(index, 5);
    parse(copy_instance(3, 5), 0);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(parse(prefix, 0), 0U);
    EXPECT_EQ(index, 0);
}

TEST_F(Read, RowLookupRewritesTheName) {
    add_row(5);
    add_row(8);
    const Oid prefix = copy_column(2);
    ccCopyEntry row{};
    Oid name = prefix_with({5});
    name.resize(MAX_OID_LEN);
    size_t length = CC_ROW_OID_LENGTH;
    EXPECT_EQ(copy_row_lookup(prefix.data(), prefix.size(), name.data(), &length, 0, &row), 0U);
    EXPECT_EQ(length, 15U);
    EXPECT_EQ(Oid(name.begin(), name.begin() + 15), prefix_with({8}));
    EXPECT_EQ(row.ccCopyIndex, 8);
    EXPECT_EQ(copy_row_lookup(prefix.data(), prefix.size(), name.data(), &length, 0, &row),
              CCERR_NOT_FOUND);
    EXPECT_EQ(Oid(name.begin(), name.begin() + 15), prefix_with({8}));
    EXPECT_EQ(length, 15U);
    EXPECT_EQ(copy_row_lookup(prefix.data(), prefix.size(), name.data(), &length, 1, &row), 0U);
    EXPECT_EQ(row.ccCopyIndex, 8);
}

} // namespace
