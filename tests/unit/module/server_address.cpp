// Write methods of the three columns that name the server.
#include <cerrno>

#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_inet_address.h"
#include "tests/unit/fakes/fake_keyedset.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

constexpr int reserve1 = 0;
constexpr int reserve2 = 1;
constexpr int action = 2;
constexpr int commit = 3;
constexpr int free_phase = 4;
constexpr int undo = 5;

const std::string ipv4_octets("\x0a\0\0\x01", 4);
const std::string ipv6_octets("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x07", 16);

// One of the three columns, on row 5.
struct Target {
    const char *name;
    oid column;
    WriteMethod *method;
    Value good;
    bool save_before_test;

    int run(int phase, const Value &value, oid index = 5) const {
        return call_phase(method, phase, value, column, index);
    }
    int run(int phase) const { return run(phase, good); }
};

std::ostream &operator<<(std::ostream &out, const Target &target) {
    return out << target.name;
}

const Target type_column = {"set_ccCopyServerAddressType", CC_COLUMN_SERVER_ADDRESS_TYPE,
                            set_ccCopyServerAddressType, integer(2), true};
const Target rev1_column = {"set_ccCopyServerAddressRev1", CC_COLUMN_SERVER_ADDRESS_REV1,
                            set_ccCopyServerAddressRev1, octet_string(ipv4_octets), false};
const Target legacy_column = {"set_ccCopyServerAddress", CC_COLUMN_SERVER_ADDRESS,
                              set_ccCopyServerAddress, ip_address(ipv4_octets), true};

// Runs a phase with standard output and standard error captured.
struct Captured {
    int status;
    std::string output;
    std::string error;
};
Captured captured(const Target &target, int phase, const Value &value) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const int status = target.run(phase, value);
    const std::string output = ::testing::internal::GetCapturedStdout();
    return {status, output, ::testing::internal::GetCapturedStderr()};
}

// Sets the row's state before a test: the IPv4 address 192.0.2.9.
void add(int32_t row_status = ROW_STATUS_NOT_READY) {
    add_row(5, row_status);
    ccCopyEntry row = stored_row(5);
    row.ccCopyServerAddressType = INET_ADDRESS_IPV4;
    put_text(row.ccCopyServerAddressRev1, "192.0.2.9");
    store_row(row);
    fake_evtrace.clear();
}

void set_type(int32_t type) {
    ccCopyEntry row = stored_row(5);
    row.ccCopyServerAddressType = type;
    store_row(row);
}

std::string address() {
    return text_of(stored_row(5).ccCopyServerAddressRev1);
}
int32_t type() {
    return stored_row(5).ccCopyServerAddressType;
}

class AnyAddressColumn : public ModuleTest, public ::testing::WithParamInterface<Target> {
  protected:
    const Target &target = GetParam();

    void SetUp() override {
        ModuleTest::SetUp();
        ::testing::internal::CaptureStdout(); // the legacy column prints
    }
    void TearDown() override {
        ::testing::internal::GetCapturedStdout();
        ModuleTest::TearDown();
    }
};

TEST_P(AnyAddressColumn, RowThatDoesNotExist) {
    EXPECT_EQ(target.run(reserve1), 0);
    EXPECT_EQ(target.run(reserve2), SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(target.run(action), SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(target.run(free_phase), 0);
}

TEST_P(AnyAddressColumn, RowStatusDecides) {
    add();
    for (int32_t row_status = -1; row_status <= 7; ++row_status) {
        SCOPED_TRACE(row_status);
        ccCopyEntry row = stored_row(5);
        row.ccCopyEntryRowStatus = row_status;
        row.ccCopyServerAddressType = INET_ADDRESS_IPV4;
        put_text(row.ccCopyServerAddressRev1, "192.0.2.9");
        store_row(row);
        ASSERT_EQ(target.run(reserve1), 0);
        fake_evtrace.clear();
        const bool accepted = row_status >= 3 && row_status <= 5;
        EXPECT_EQ(target.run(reserve2), accepted ? SNMP_ERR_NOERROR : SNMP_ERR_INCONSISTENTVALUE);
        EXPECT_EQ(type() != INET_ADDRESS_IPV4 || address() != "192.0.2.9", accepted);
        const std::string refusal =
            target.name +
            std::string(" : The row status is not correctly set for this entry (index = 5) \n");
        EXPECT_EQ(fake_evtrace.count(EVTRACE_ERROR, refusal),
                  !accepted && target.column == CC_COLUMN_SERVER_ADDRESS_TYPE ? 1 : 0);
        EXPECT_EQ(fake_evtrace.count(EVTRACE_DEBUG, refusal), 0);
    }
}

TEST_P(AnyAddressColumn, LaterPhasesChangeNothing) {
    add();
    ASSERT_EQ(target.run(reserve1), 0);
    ASSERT_EQ(target.run(reserve2), 0);
    const ccCopyEntry before = stored_row(5);
    for (const int phase : {action, commit, undo, 6, -1}) {
        EXPECT_EQ(target.run(phase), 0) << phase;
    }
    const ccCopyEntry after = stored_row(5);
    EXPECT_EQ(memcmp(&before, &after, sizeof after), 0);
}

TEST_P(AnyAddressColumn, FreeWithoutASavedValueDoesNothing) {
    add();
    ASSERT_EQ(target.run(reserve1), 0);
    EXPECT_EQ(target.run(free_phase), 0);
    EXPECT_EQ(type(), INET_ADDRESS_IPV4);
    EXPECT_EQ(address(), "192.0.2.9");
}

// A refused value also clears the flag of the previous SET.
TEST_P(AnyAddressColumn, RefusedValueClearsTheSavedFlag) {
    add();
    ASSERT_EQ(target.run(reserve1), 0);
    ASSERT_EQ(target.run(reserve2), 0);
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(target.run(reserve1, Value{ASN_NULL, 0, nullptr}), SNMP_ERR_WRONGTYPE);
    ::testing::internal::GetCapturedStderr();
    const ccCopyEntry before = stored_row(5);
    EXPECT_EQ(target.run(free_phase), 0);
    const ccCopyEntry after = stored_row(5);
    EXPECT_EQ(memcmp(&before, &after, sizeof after), 0);
}

TEST_P(AnyAddressColumn, RowThatGoesWhileItIsWritten) {
    add();
    ASSERT_EQ(target.run(reserve1), 0);
    fake_keyedset.fail_find(&ccCopyTable, 2);
    EXPECT_EQ(target.run(reserve2), SNMP_ERR_GENERR);
    ASSERT_EQ(target.run(reserve2), 0);
    fake_keyedset.fail_find(&ccCopyTable, 2);
    EXPECT_EQ(target.run(free_phase), SNMP_ERR_GENERR);
}

TEST_P(AnyAddressColumn, FailedConversion) {
    if (target.column == CC_COLUMN_SERVER_ADDRESS_TYPE) {
        return; // converts nothing
    }
    add();
    ASSERT_EQ(target.run(reserve1), 0);
    fake_inet_address.to_str_error = ENOSPC;
    EXPECT_EQ(target.run(reserve2), SNMP_ERR_WRONGVALUE);
    EXPECT_LOGGED(EVTRACE_ERROR,
                  target.name +
                      std::string(": ip_addr_to_str() failed- returning SNMP_ERR_WRONGVALUE"));
    EXPECT_EQ(address(), "192.0.2.9");
    EXPECT_EQ(fake_inet_address.sizes, std::vector<std::size_t>{64});
}

INSTANTIATE_TEST_SUITE_P(ServerAddress, AnyAddressColumn,
                         ::testing::Values(type_column, rev1_column, legacy_column),
                         [](const auto &one) { return std::string(one.param.name); });

using ServerAddress = ModuleTest;

// --- ccCopyServerAddressType

TEST_F(ServerAddress, TypeValues) {
    for (int32_t value = -1; value <= 20; ++value) {
        const std::string refusal = "set_ccCopyServerAddressType: var_val is not INET_ADDRESS_IPV4 "
                                    "or INET_ADDRESS_IPV6- returning SNMP_ERR_WRONGVALUE";
        fake_evtrace.clear();
        const bool accepted = value == 1 || value == 2;
        EXPECT_EQ(type_column.run(reserve1, integer(value)),
                  accepted ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE)
            << value;
        EXPECT_EQ(fake_evtrace.count(EVTRACE_ERROR, refusal), accepted ? 0 : 1);
        EXPECT_LOGGED(EVTRACE_DEBUG, "set_ccCopyServerAddressType : Entering RESERVE1 of entry "
                                     "(index = 5) : The server address type being set = " +
                                         std::to_string(value) + "\n");
    }
}

TEST_F(ServerAddress, TypeOfTheWrongKind) {
    const Captured wrong = captured(type_column, reserve1, octet_string("\1"));
    EXPECT_EQ(wrong.status, SNMP_ERR_WRONGTYPE);
    EXPECT_EQ(wrong.error, "write to ccCopyServerAddressType not ASN_INTEGER\n");
    for (std::size_t length = 0; length <= 20; ++length) {
        const bool accepted = length <= 4 || length == sizeof(long);
        const Captured one = captured(type_column, reserve1, integer_of_length(1, length));
        EXPECT_EQ(one.status, accepted ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGLENGTH) << length;
        EXPECT_EQ(one.error, accepted ? "" : "write to ccCopyServerAddressTypel: bad length\n");
    }
}

// The message shows the stored value, however short the announced length.
TEST_F(ServerAddress, TypeThatIsLoggedIsTheOneThatIsStored) {
    add();
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{3},
                                     std::size_t{4}, sizeof(long)}) {
        for (const long value : {2L, 0x102L, 0x10002L, 0x1000002L, beyond_a_word(2)}) {
            SCOPED_TRACE(std::to_string(value) + " of length " + std::to_string(length));
            fake_evtrace.clear();
            set_type(0);
            const Value written = integer_of_length(value, length);
            const auto whole = static_cast<int32_t>(value);
            EXPECT_EQ(type_column.run(reserve1, written),
                      whole == 2 ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE);
            EXPECT_LOGGED(EVTRACE_DEBUG, "set_ccCopyServerAddressType : Entering RESERVE1 of entry "
                                         "(index = 5) : The server address type being set = " +
                                             std::to_string(whole) + "\n");
            EXPECT_EQ(type_column.run(reserve2, written), 0);
            EXPECT_EQ(type(), whole);
        }
    }
}

// If the value is not an INTEGER of a valid length, the message shows only the octets that it has;
// none after them is read.
TEST_F(ServerAddress, RefusedTypeIsLoggedUpToItsLength) {
    const auto logged = [](const Value &value) {
        fake_evtrace.clear();
        ::testing::internal::CaptureStderr();
        EXPECT_NE(type_column.run(reserve1, value), SNMP_ERR_NOERROR);
        ::testing::internal::GetCapturedStderr();
        return fake_evtrace.history.at(0).text.substr(
            std::string("set_ccCopyServerAddressType : Entering RESERVE1 of entry ").size());
    };
    const std::string head = "(index = 5) : The server address type being set = ";
    EXPECT_EQ(logged(Value{ASN_NULL, 0, nullptr}), head + "0\n");
    EXPECT_EQ(logged(octet_string("")), head + "0\n");
    EXPECT_EQ(logged(octet_string("\1")), head + by_byte_order("1\n", "16777216\n"));
    EXPECT_EQ(logged(octet_string("\1\1\1\1\1\1\1\1")), head + "16843009\n");
    EXPECT_EQ(logged(integer_of_length(2, 5)), head + "2\n");
    EXPECT_EQ(logged(integer_of_length(2, 20)), head + "2\n");
}

TEST_F(ServerAddress, TypeIsStoredAndTheAddressStays) {
    add();
    ASSERT_EQ(type_column.run(reserve1), 0);
    EXPECT_EQ(type_column.run(reserve2), 0);
    EXPECT_LOGGED(EVTRACE_DEBUG, "set_ccCopyServerAddressType : Server Address Type: 2\n");
    EXPECT_EQ(type(), 2);
    EXPECT_EQ(address(), "192.0.2.9");
    EXPECT_EQ(type_column.run(free_phase), 0);
    EXPECT_EQ(type(), 1);
    EXPECT_EQ(address(), "192.0.2.9");
}

TEST_F(ServerAddress, RefusedTypeIsRestoredByFree) {
    add(ROW_STATUS_ACTIVE);
    ASSERT_EQ(type_column.run(reserve1), 0);
    ASSERT_EQ(type_column.run(reserve2), SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(type(), 1);
    set_type(0); // shows whether FREE writes the saved type
    EXPECT_EQ(type_column.run(free_phase), 0);
    EXPECT_EQ(type(), 1);
}

// --- ccCopyServerAddressRev1

TEST_F(ServerAddress, Rev1OfTheWrongKind) {
    const Captured wrong = captured(rev1_column, reserve1, integer(1));
    EXPECT_EQ(wrong.status, SNMP_ERR_WRONGTYPE);
    EXPECT_EQ(wrong.error, "write to ccCopyServerAddressRev1 not ASN_OCTET_STR\n");
    for (std::size_t length = 0; length <= 70; ++length) {
        fake_evtrace.clear();
        const Captured one =
            captured(rev1_column, reserve1, octet_string(std::string(length, 'x')));
        EXPECT_EQ(one.status, length <= 64 ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGLENGTH) << length;
        EXPECT_EQ(one.error, length <= 64 ? "" : "write to ccCopyServerAddressRev1: bad length\n");
        EXPECT_EQ(fake_evtrace.history,
                  (std::vector<EvtraceFake::Record>{
                      {EVTRACE_DEBUG,
                       "set_ccCopyServerAddressRev1 : Entering RESERVE1 of entry (index = 5)\n"},
                      {EVTRACE_DEBUG, "set_ccCopyServerAddressRev1 : length of value: " +
                                          std::to_string(length) + "\n"}}));
    }
}

TEST_F(ServerAddress, Rev1AsIpv4) {
    add();
    ASSERT_EQ(rev1_column.run(reserve1), 0);
    EXPECT_EQ(rev1_column.run(reserve2), 0);
    EXPECT_EQ(address(), "10.0.0.1");
    EXPECT_EQ(type(), 1);
    EXPECT_LOGGED(
        EVTRACE_DEBUG,
        by_byte_order("set_ccCopyServerAddressRev1: value copied into addr: 0x0100000A\n",
                      "set_ccCopyServerAddressRev1: value copied into addr: 0x0A000001\n"));
    EXPECT_LOGGED(EVTRACE_DEBUG, "set_ccCopyServerAddressRev1 : Server Address: 10.0.0.1\n");
    EXPECT_EQ(rev1_column.run(free_phase), 0);
    EXPECT_EQ(address(), "192.0.2.9");
}

TEST_F(ServerAddress, Rev1AsIpv6) {
    add();
    set_type(INET_ADDRESS_IPV6);
    ASSERT_EQ(rev1_column.run(reserve1, octet_string(ipv6_octets)), 0);
    EXPECT_EQ(rev1_column.run(reserve2, octet_string(ipv6_octets)), 0);
    EXPECT_EQ(address(), "2001:db8::7");
    EXPECT_LOGGED(EVTRACE_DEBUG, "set_ccCopyServerAddressRev1 : Server Address: 2001:db8::7\n");
}

// The value is in a block of exactly its length, so the address sanitizer detects a read past it.
TEST_F(ServerAddress, Rev1TakesWhatTheValueHas) {
    add();
    for (const auto &[type_now, octets, text] :
         {std::tuple{INET_ADDRESS_IPV4, std::string("\x0a\x01"), "10.1.0.0"},
          std::tuple{INET_ADDRESS_IPV4, std::string(""), "0.0.0.0"},
          std::tuple{INET_ADDRESS_IPV4, ipv6_octets, "32.1.13.184"},
          std::tuple{INET_ADDRESS_IPV6, std::string("\x20\x01\x0d\xb8"), "2001:db8::"},
          std::tuple{INET_ADDRESS_IPV6, std::string(""), "::"},
          std::tuple{INET_ADDRESS_IPV6, std::string(64, '\x20'),
                     "2020:2020:2020:2020:2020:2020:2020:2020"}}) {
        SCOPED_TRACE(text);
        set_type(type_now);
        ASSERT_EQ(rev1_column.run(reserve1, octet_string(octets)), 0);
        EXPECT_EQ(rev1_column.run(reserve2, octet_string(octets)), 0);
        EXPECT_EQ(address(), text);
    }
}

TEST_F(ServerAddress, Rev1WithoutAKnownType) {
    add();
    for (const int32_t unknown : {0, 3, 16}) {
        fake_evtrace.clear();
        set_type(unknown);
        ASSERT_EQ(rev1_column.run(reserve1), 0);
        EXPECT_EQ(rev1_column.run(reserve2), SNMP_ERR_WRONGVALUE);
        EXPECT_LOGGED(EVTRACE_ERROR,
                      "set_ccCopyServerAddressRev1: error: server address type is: " +
                          std::to_string(unknown) + ", returning SNMP_ERR_WRONGVALUE\n");
        EXPECT_EQ(address(), "192.0.2.9");
        EXPECT_EQ(rev1_column.run(free_phase), 0);
        EXPECT_EQ(address(), "192.0.2.9");
    }
}

TEST_F(ServerAddress, RefusedRev1HasNothingSaved) {
    add(ROW_STATUS_ACTIVE);
    ASSERT_EQ(rev1_column.run(reserve1), 0);
    ASSERT_EQ(rev1_column.run(reserve2), SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(rev1_column.run(free_phase), 0);
    EXPECT_EQ(address(), "192.0.2.9");
}

TEST_F(ServerAddress, Rev1RowsShareOneSavedValue) {
    add();
    add_row(6);
    ccCopyEntry six = stored_row(6);
    six.ccCopyServerAddressType = INET_ADDRESS_IPV4;
    put_text(six.ccCopyServerAddressRev1, "192.0.2.66");
    store_row(six);
    for (const int phase : {reserve1, reserve2, free_phase}) {
        ASSERT_EQ(rev1_column.run(phase, rev1_column.good, 5), 0);
        ASSERT_EQ(rev1_column.run(phase, rev1_column.good, 6), 0);
    }
    EXPECT_EQ(address(), "192.0.2.66");
    EXPECT_EQ(text_of(stored_row(6).ccCopyServerAddressRev1), "192.0.2.66");
}

// --- ccCopyServerAddress

TEST_F(ServerAddress, LegacyOfTheWrongKind) {
    const Captured wrong = captured(legacy_column, reserve1, octet_string(ipv4_octets));
    EXPECT_EQ(wrong.status, SNMP_ERR_WRONGTYPE);
    EXPECT_EQ(wrong.error, "write to ccCopyServerAddress not ASN_IPADDRESS\n");
    EXPECT_EQ(wrong.output, "");
    for (std::size_t length = 5; length <= 20; ++length) {
        const Captured one =
            captured(legacy_column, reserve1, ip_address(std::string(length, 'x')));
        EXPECT_EQ(one.status, SNMP_ERR_WRONGLENGTH) << length;
        EXPECT_EQ(one.error, "write to ccCopyServerAddress: bad length\n");
        EXPECT_EQ(one.output, "");
    }
}

TEST_F(ServerAddress, LegacyPrintsWhatItGets) {
    for (const auto &[octets, text] :
         {std::pair{ipv4_octets, by_byte_order("16777226 Length 4", "167772161 Length 4")},
          std::pair{std::string("\x0a\x01"), by_byte_order("266 Length 2", "167837696 Length 2")},
          std::pair{std::string(""), "0 Length 0"}}) {
        const Captured one = captured(legacy_column, reserve1, ip_address(octets));
        EXPECT_EQ(one.status, 0);
        EXPECT_EQ(one.error, "");
        EXPECT_EQ(one.output,
                  "DEBUG : set_ccCopyServerAddress : Server Address : " + std::string(text) + "\n");
    }
}

TEST_F(ServerAddress, LegacySetsAddressAndType) {
    add();
    set_type(INET_ADDRESS_IPV6);
    ASSERT_EQ(captured(legacy_column, reserve1, legacy_column.good).status, 0);
    const Captured written = captured(legacy_column, reserve2, legacy_column.good);
    EXPECT_EQ(written.status, 0);
    EXPECT_EQ(written.output, "");
    EXPECT_EQ(address(), "10.0.0.1");
    EXPECT_EQ(type(), INET_ADDRESS_IPV4);
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  "set_ccCopyServerAddress : Server Address: 10.0.0.1, Server Address Type: 1\n");

    const Captured freed = captured(legacy_column, free_phase, legacy_column.good);
    EXPECT_EQ(freed.status, 0);
    EXPECT_EQ(freed.output,
              "DEBUG : set_ccCopyServerAddress : Entering FREE of entry (index = 5) \n");
    EXPECT_EQ(stored_row(5).ccCopyServerAddressRev1, std::string(""));
    EXPECT_EQ(type(), INET_ADDRESS_IPV4);
}

TEST_F(ServerAddress, ShortLegacyAddress) {
    add();
    const Value value = ip_address(std::string("\x0a\x01", 2));
    ASSERT_EQ(captured(legacy_column, reserve1, value).status, 0);
    EXPECT_EQ(captured(legacy_column, reserve2, value).status, 0);
    EXPECT_EQ(address(), "10.1.0.0");
}

TEST_F(ServerAddress, RefusedLegacyAddressIsEmptiedByFree) {
    add(ROW_STATUS_ACTIVE);
    ASSERT_EQ(captured(legacy_column, reserve1, legacy_column.good).status, 0);
    ASSERT_EQ(captured(legacy_column, reserve2, legacy_column.good).status,
              SNMP_ERR_INCONSISTENTVALUE);
    EXPECT_EQ(address(), "192.0.2.9");
    EXPECT_EQ(captured(legacy_column, free_phase, legacy_column.good).status, 0);
    EXPECT_EQ(address(), "");
}

} // namespace
