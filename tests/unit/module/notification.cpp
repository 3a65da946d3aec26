// The bindings of ccCopyCompletion.
#include "tests/unit/fakes/execution_fixture.h"
#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_agent_extension.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_time.h"

namespace {

constexpr oid index_of_row = 7;
const Oid notification = {1, 3, 6, 1, 4, 1, 41927, 9, 96, 2, 1, 1, index_of_row};

class Notification : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        fake_agent.start.tv_sec = TimeFake::start - 100;
    }
    // A copy that took two seconds, from half a second past 100 seconds of uptime.
    static std::unique_ptr<ccCopyEntry> ended_copy(const std::string &server) {
        auto record = copy_request(COPY_FILE_RUNNING, COPY_FILE_NETWORK);
        put_text(record->ccCopyServerAddressRev1, server);
        put_text(record->ccCopyFileName, "cfg.txt");
        record->ccCopyState = COPY_STATE_SUCCESSFUL;
        record->ccCopyFailCause = 9;
        record->ccCopyTimeStarted = {TimeFake::start, 500000};
        record->ccCopyTimeCompleted = {TimeFake::start + 2, 510000};
        return record;
    }
    static std::vector<Binding> build(const ccCopyEntry &record) {
        oid name[AGENT_NOTIFICATION_OID_MAX] = {};
        uint32_t length = 99;
        netsnmp_variable_list *list = build_notification(&record, name, &length);
        EXPECT_EQ(length, 13U);
        EXPECT_EQ(Oid(name, name + 13), notification);
        EXPECT_EQ(name[13], 0U); // nothing is written after it
        return taken_bindings(list);
    }
};

Binding binding(oid column, int type, const std::string &value) {
    return {copy_instance(column, index_of_row), type, value};
}

const std::vector<Binding> common = {
    binding(6, ASN_OCTET_STR, "6366672e747874"),
    binding(10, ASN_INTEGER, "3"),
    binding(11, ASN_TIMETICKS, "10050"),
    binding(12, ASN_TIMETICKS, "10251"),
    binding(13, ASN_INTEGER, "9"),
    binding(15, ASN_INTEGER, "1"),
};

std::vector<Binding> with_common(std::vector<Binding> first) {
    first.insert(first.end(), common.begin(), common.end());
    return first;
}

const std::vector<Binding> ipv4 =
    with_common({binding(5, ASN_IPADDRESS, "0a010101"),
                 binding(16, ASN_OCTET_STR, "0a010101000000000000000000000000")});
const std::vector<Binding> ipv6 =
    with_common({binding(16, ASN_OCTET_STR, "20010db8000000000000000000000017")});

TEST_F(Notification, Ipv4Server) {
    EXPECT_EQ(build(*ended_copy("10.1.1.1")), ipv4);
    EXPECT_EQ(fake_evtrace.history,
              (std::vector<EvtraceFake::Record>{
                  {EVTRACE_DEBUG, "build_notification: Sending ccCopyCompletion notification : "
                                  "ccCopyServerAddressRev1 = 10.1.1.1, "
                                  "ccCopyFileName= cfg.txt,ccCopyState=3, ccCopyTimeStarted=10050, "
                                  "ccCopyTimeCompleted = 10251, "
                                  "ccCopyFailCause=9, ccCopyServerAddressType = 1\n"}}));
}

TEST_F(Notification, Ipv6Server) {
    EXPECT_EQ(build(*ended_copy("2001:db8::17")), ipv6);
}

// The octets of an IPv6 address must not show after an IPv4 address.
TEST_F(Notification, Ipv4AfterIpv6) {
    build(*ended_copy("2001:db8::17"));
    EXPECT_EQ(build(*ended_copy("10.1.1.1")), ipv4);
}

// The text counts, not the column with the address type.
TEST_F(Notification, AddressTypeColumnDecidesNothing) {
    const auto record = ended_copy("10.1.1.1");
    record->ccCopyServerAddressType = INET_ADDRESS_IPV6;
    std::vector<Binding> expected = ipv4;
    expected.back().value = "2";
    EXPECT_EQ(build(*record), expected);
}

// The last address that could be parsed counts.
TEST_F(Notification, UnreadableServerKeepsTheLastAddress) {
    for (const char *text : {"no address", "", "10.1.1", "10.1.1.1.1"}) {
        build(*ended_copy("10.1.1.1"));
        EXPECT_EQ(build(*ended_copy(text)), ipv4);
        build(*ended_copy("2001:db8::17"));
        EXPECT_EQ(build(*ended_copy(text)), ipv6);
    }
}

class FreshNotification : public Notification {
  protected:
    void SetUp() override {
        Notification::SetUp();
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};

// In a process of its own, in which no address has been parsed yet.
TEST_F(FreshNotification, UnreadableServerWithoutALastAddress) {
    EXPECT_EXIT(
        {
            EXPECT_EQ(build(*ended_copy("no address")), with_common({}));
            exit(HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(Notification, IndexOfEachRow) {
    const auto record = ended_copy("10.1.1.1");
    for (const int32_t index : {1, INT32_MAX, 3}) {
        record->ccCopyIndex = index;
        oid name[AGENT_NOTIFICATION_OID_MAX] = {};
        uint32_t length = 0;
        const std::vector<Binding> bindings =
            taken_bindings(build_notification(record.get(), name, &length));
        EXPECT_EQ(name[12], static_cast<oid>(index));
        ASSERT_EQ(bindings.size(), 8U);
        for (const Binding &one : bindings) {
            EXPECT_EQ(one.name.back(), static_cast<oid>(index));
        }
    }
}

// The OID may be as long as its buffer.
TEST_F(Notification, OidBufferOfItsSize) {
    const auto name = std::make_unique<oid[]>(CC_NOTIFICATION_OID_LENGTH);
    const auto length = std::make_unique<uint32_t>(0);
    EXPECT_EQ(
        taken_bindings(build_notification(ended_copy("10.1.1.1").get(), name.get(), length.get()))
            .size(),
        8U);
    EXPECT_EQ(Oid(name.get(), name.get() + 13), notification);
}

TEST_F(Notification, TimesBeforeAgentsStart) {
    const auto record = ended_copy("10.1.1.1");
    record->ccCopyTimeStarted = {TimeFake::start - 101, 0};
    record->ccCopyTimeCompleted = {TimeFake::start - 100, 0};
    const std::vector<Binding> bindings = build(*record);
    // one second less than 0 in 32 bits
    EXPECT_EQ(bindings[4], binding(11, ASN_TIMETICKS, "4294967196"));
    EXPECT_EQ(bindings[5], binding(12, ASN_TIMETICKS, "0"));
    EXPECT_NE(
        fake_evtrace.history.at(0).text.find("ccCopyTimeStarted=-100, ccCopyTimeCompleted = 0,"),
        std::string::npos);
}

// The value of a GET, whatever the uptime: near the ends of 31 and of 32 bits, and far beyond.
TEST_F(Notification, TimesAreThoseOfAGet) {
    add_row(index_of_row);
    constexpr int64_t day = 8640000;
    for (const int64_t uptime :
         {int64_t{0}, int64_t{2147483647}, int64_t{2147483648}, int64_t{2147483649}, 300 * day,
          int64_t{4294967295}, int64_t{4294967296}, int64_t{4294967297}, 600 * day}) {
        SCOPED_TRACE(uptime);
        const auto record = ended_copy("10.1.1.1");
        record->ccCopyTimeStarted = {TimeFake::start, static_cast<int32_t>(uptime % 100 * 10000)};
        record->ccCopyTimeCompleted = {TimeFake::start + 1,
                                       static_cast<int32_t>(uptime % 100 * 10000)};
        fake_agent.start.tv_sec = static_cast<time_t>(TimeFake::start - uptime / 100);
        store_row(*record);
        const std::vector<Binding> bindings = build(*record);
        for (const auto &[position, column, ticks] :
             {std::tuple{4U, CC_COLUMN_TIME_STARTED, uptime},
              std::tuple{5U, CC_COLUMN_TIME_COMPLETED, uptime + 100}}) {
            const std::optional<Answer> answer =
                get(copy_column(column), copy_instance(column, index_of_row));
            ASSERT_TRUE(answer);
            uint32_t read;
            ASSERT_EQ(answer->octets.size(), sizeof read);
            memcpy(&read, answer->octets.data(), sizeof read);
            EXPECT_EQ(read, ticks % 4294967296);
            EXPECT_EQ(bindings[position], binding(column, ASN_TIMETICKS, std::to_string(read)));
        }
    }
}

// Deliberate: a GET reads 0 instead.
TEST_F(Notification, TimesLongBeforeAgentsStart) {
    const auto record = ended_copy("10.1.1.1");
    fake_agent.start.tv_sec = TimeFake::start + 21474837; // 31 bits of ticks and 52 more
    record->ccCopyTimeStarted = {TimeFake::start, 0};
    record->ccCopyTimeCompleted = {TimeFake::start + 1, 0};
    const std::vector<Binding> bindings = build(*record);
    EXPECT_EQ(bindings[4], binding(11, ASN_TIMETICKS, "2147483596"));
    EXPECT_EQ(bindings[5], binding(12, ASN_TIMETICKS, "2147483696"));
}

TEST_F(Notification, EmptyFileName) {
    const auto record = ended_copy("10.1.1.1");
    put_text(record->ccCopyFileName, "");
    EXPECT_EQ(build(*record)[2], binding(6, ASN_OCTET_STR, ""));
}

// A name that fills its field has no terminator in it.
TEST_F(Notification, FileNameOfTheFullWidth) {
    const auto record = ended_copy("10.1.1.1");
    put_text(record->ccCopyFileName, std::string(CC_FILE_NAME_SIZE, 'f'));
    put_text(record->ccCopySrcFileName, "local");
    EXPECT_EQ(build(*record)[2].value.size(), std::size_t{2 * CC_FILE_NAME_SIZE});
}

// The credentials do not show, even when they fill their fields.
TEST_F(Notification, CredentialsDoNotShow) {
    const auto record = ended_copy("10.1.1.1");
    put_full_credentials(*record);
    EXPECT_EQ(build(*record), ipv4);
    for (const EvtraceFake::Record &one : fake_evtrace.history) {
        EXPECT_EQ(one.text.find("pppp"), std::string::npos);
        EXPECT_EQ(one.text.find("uuuu"), std::string::npos);
    }
}

// --- bindings that can't be built

TEST_F(Notification, ListGoesOnAfterEachBindingThatFails) {
    for (const Binding &failing : ipv4) {
        const oid column = failing.name[13];
        fake_agent_extension.unbuildable = {column};
        std::vector<Binding> expected = ipv4;
        std::erase(expected, failing);
        EXPECT_EQ(build(*ended_copy("10.1.1.1")), expected) << column;
    }
    fake_agent_extension.unbuildable = {5, 16, 6, 11, 12};
    EXPECT_EQ(build(*ended_copy("10.1.1.1")),
              (std::vector<Binding>{common[1], common[4], common[5]}));
}

TEST_F(Notification, NoBindingAtAll) {
    fake_agent_extension.unbuildable = {5, 16, 6, 10, 11, 12, 13, 15};
    EXPECT_EQ(build(*ended_copy("10.1.1.1")), std::vector<Binding>{});
}

} // namespace
