// Writing a row back, and filling the error table from the fabric.
#include <syslog.h>

#include <cerrno>

#include "tests/unit/fakes/fake_agent.h"
#include "tests/unit/fakes/fake_evtrace.h"
#include "tests/unit/fakes/fake_fabric.h"
#include "tests/unit/fakes/fake_inet_address.h"
#include "tests/unit/fakes/fake_keyedset.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

inet_address ipv4(uint8_t last) {
    return {INET_ADDRESS_IPV4, {10, 0, 0, last}};
}

class Update : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        add_row(5);
        add_row(9);
        fake_evtrace.clear();
        fake_keyedset.creates.clear();
    }

    // Writes row 5 with another state and asks for the fill.
    void fill() {
        fake_fabric.scripted = true;
        ccCopyEntry row = stored_row(5);
        row.ccCopyState = COPY_STATE_FAILED;
        EXPECT_EQ(setCcCopyEntry(&row, 1), 0U);
        EXPECT_EQ(stored_row(5).ccCopyState, COPY_STATE_FAILED);
    }

    static ccCopyErrorEntry error(int32_t number) {
        ccCopyErrorEntry found{};
        found.ccCopyIndex = 5;
        found.ccCopyErrorIndex = number;
        EXPECT_EQ(getCcCopyErrorEntry(&found), 0U) << "error row " << number;
        return found;
    }

    static uint32_t errors() { return keyedset_size(&ccCopyErrorTable); }

    using Log = std::vector<std::pair<int, std::string>>;
};

TEST_F(Update, RowIsReplacedWhole) {
    ccCopyEntry row{};
    memset(static_cast<void *>(&row), 0x5a, sizeof row);
    row.ccCopyIndex = 5;
    const ccCopyEntry other = stored_row(9);
    EXPECT_EQ(setCcCopyEntry(&row, 0), 0U);
    const ccCopyEntry stored = stored_row(5);
    EXPECT_EQ(memcmp(&stored, &row, sizeof row), 0);
    const ccCopyEntry unchanged = stored_row(9);
    EXPECT_EQ(memcmp(&unchanged, &other, sizeof other), 0);
    EXPECT_EQ(ccCopyErrorTable.impl, nullptr);
    EXPECT_TRUE(fake_fabric.calls.empty());
}

TEST_F(Update, UnknownIndexIsRefused) {
    ccCopyEntry row{};
    row.ccCopyIndex = 6;
    EXPECT_EQ(setCcCopyEntry(&row, 0), CCERR_NOT_FOUND);
    EXPECT_EQ(setCcCopyEntry(&row, 1), CCERR_NOT_FOUND);
    EXPECT_EQ(stored_indexes(), (std::vector<int32_t>{5, 9}));
    for (const int32_t index : {5, 9}) {
        row.ccCopyIndex = index;
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
    }
    EXPECT_EQ(setCcCopyEntry(&row, 1), CCERR_NOT_FOUND);
    EXPECT_TRUE(fake_fabric.calls.empty());
}

TEST_F(Update, FillWithThreeSwitches) {
    fake_fabric.switches = {
        {{0x20, 0, 0, 0, 0, 0, 0, 1}, false, ipv4(1), "switch 1: no space"},
        {{0x20, 0, 0, 0x0d, 0xec, 0x80, 0xff, 2}, true, {}, "local switch: done"},
        {{0x20, 0, 0, 0, 0, 0, 0, 3},
         false,
         {INET_ADDRESS_IPV6, {0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}},
         ""},
    };
    fake_fabric.management_addresses = {ipv4(77), ipv4(78)};
    fill();

    EXPECT_EQ(fake_fabric.calls, (std::vector<std::string>{"wwn", "next", "next", "port",
                                                           "addresses", "next", "next", "clean"}));
    ASSERT_EQ(fake_keyedset.creates.size(), 1U);
    EXPECT_EQ(fake_keyedset.creates[0].set, &ccCopyErrorTable);
    EXPECT_EQ(fake_keyedset.creates[0].first, 1);
    EXPECT_EQ(fake_keyedset.creates[0].second, 1);
    EXPECT_EQ(fake_keyedset.creates[0].compare, &ccCopyErrorEntry_comp_func);
    EXPECT_EQ(fake_keyedset.creates[0].fourth, 1);
    EXPECT_EQ(fake_inet_address.sizes, (std::vector<std::size_t>{128, 128, 128}));

    EXPECT_EQ(errors(), 3U);
    EXPECT_EQ(error(1).ccCopyErrorDeviceAddrType, INET_ADDRESS_IPV4);
    EXPECT_EQ(text_of(error(1).ccCopyErrorDeviceAddr), "10.0.0.1");
    EXPECT_EQ(error(1).ccCopyErrorSwitchWwn[7], 1);
    EXPECT_EQ(text_of(error(1).ccCopyErrorText), "switch 1: no space");
    EXPECT_EQ(error(2).ccCopyErrorDeviceAddrType, INET_ADDRESS_IPV4);
    EXPECT_EQ(text_of(error(2).ccCopyErrorDeviceAddr), "10.0.0.77");
    EXPECT_EQ(error(2).ccCopyErrorSwitchWwn[5], 0x80);
    EXPECT_EQ(text_of(error(2).ccCopyErrorText), "local switch: done");
    EXPECT_EQ(error(3).ccCopyErrorDeviceAddrType, INET_ADDRESS_IPV6);
    EXPECT_EQ(text_of(error(3).ccCopyErrorDeviceAddr), "2001:db8::7");
    EXPECT_EQ(text_of(error(3).ccCopyErrorText), "");
    // Octets that no field holds are zero.
    EXPECT_EQ(std::string(error(1).ccCopyErrorText + 18, CC_ERROR_TEXT_SIZE - 18),
              std::string(CC_ERROR_TEXT_SIZE - 18, '\0'));

    EXPECT_LOGGED(EVTRACE_DEBUG, "setCcCopyEntry: filling up ccCopyErrorTable\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "setCcCopyEntry: get switch wwn\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "setCcCopyEntry: calling fabstat_status_next_get(..)\n");
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  "setCcCopyEntry: device ip addr: 10.0.0.1, device ip addr type: 1\n");
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  "setCcCopyEntry: device ip addr: 10.0.0.77, device ip addr type: 1\n");
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  "setCcCopyEntry: device ip addr: 2001:db8::7, device ip addr type: 2\n");
    EXPECT_LOGGED(
        EVTRACE_DEBUG,
        "setCcCopyEntry: curr_entry contents: 20:00:00:0d:ec:80:ff:02 : local switch: done\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "setCcCopyEntry:adding errorentry to errortable index object "
                                 "32:0:0:13:-20:-128:-1:2 : local switch: done\n");
}

TEST_F(Update, SecondFillAddsToTheTable) {
    fake_fabric.switches = {{{0x20}, false, ipv4(1), "first"}};
    fill();
    ASSERT_EQ(errors(), 1U);
    fake_fabric.reset();
    fake_fabric.switches = {{{0x21}, false, ipv4(2), "second"}, {{0x22}, false, ipv4(3), "third"}};
    fake_keyedset.creates.clear();
    fill();
    EXPECT_TRUE(fake_keyedset.creates.empty());
    // The numbers start at 1 again, so the first row of this fill meets an existing one and is
    // refused.
    EXPECT_EQ(errors(), 2U);
    EXPECT_EQ(text_of(error(1).ccCopyErrorText), "first");
    EXPECT_EQ(text_of(error(2).ccCopyErrorText), "third");
}

TEST_F(Update, TextWithoutTerminatorIsTerminated) {
    fake_fabric.switches = {{{0x20}, false, ipv4(1), std::string(256, 'x')},
                            {{0x21}, false, ipv4(2), "short"}};
    fill();
    EXPECT_EQ(std::string(error(1).ccCopyErrorText), std::string(256, 'x'));
    EXPECT_EQ(std::string(error(2).ccCopyErrorText), "short");
}

TEST_F(Update, ContainerThatCannotBeMade) {
    fake_keyedset.create_results = {0};
    fill();
    EXPECT_TRUE(fake_fabric.calls.empty());
    EXPECT_EQ(errors(), 0U);
    EXPECT_LOGGED(EVTRACE_ERROR, "setCcCopyEntry: failed to createccCopyErrorTable indx obj\n");
    EXPECT_EQ(fake_agent.log.take(),
              (Log{{LOG_ERR, "setCcCopyEntry: failed to create ccCopyErrorTable indx obj\n"}}));
}

class FailedName : public Update, public ::testing::WithParamInterface<std::pair<int, bool>> {};

// The leak checker detects an answer that comes with a failure and is not freed.
TEST_P(FailedName, AddsNoErrorRow) {
    fake_fabric.switches = {{{0x20}, false, ipv4(1), "never asked for"}};
    std::tie(fake_fabric.wwn_result, fake_fabric.wwn_response) = GetParam();
    fill();
    EXPECT_EQ(fake_fabric.calls, std::vector<std::string>{"wwn"});
    EXPECT_EQ(errors(), 0U);
    EXPECT_LOGGED(EVTRACE_ERROR, "setCcCopyEntry: unable to get local switch wwn\n");
    EXPECT_EQ(fake_agent.log.take(),
              (Log{{LOG_ERR, "setCcCopyEntry: unable to get local switch wwn\n"}}));
}

INSTANTIATE_TEST_SUITE_P(Update, FailedName,
                         ::testing::Values(std::pair{1, false}, std::pair{1, true},
                                           std::pair{0, false}));

TEST_F(Update, EmptyFabric) {
    fill();
    EXPECT_EQ(fake_fabric.calls, (std::vector<std::string>{"wwn", "next", "clean"}));
    EXPECT_EQ(errors(), 0U);
}

TEST_F(Update, LocalSwitchWithoutAddressList) {
    fake_fabric.switches = {{{0x20}, true, {}, "local"}};
    fake_fabric.addresses_result = 1;
    fill();
    EXPECT_EQ(errors(), 1U);
    EXPECT_EQ(text_of(error(1).ccCopyErrorDeviceAddr), "");
    EXPECT_EQ(error(1).ccCopyErrorDeviceAddrType, 0);
    EXPECT_EQ(fake_agent.log.take(),
              (Log{{LOG_ERR, "setCcCopyEntry: Failed to get ip address of local switch\n"}}));
    EXPECT_TRUE(fake_inet_address.written.empty());
}

TEST_F(Update, LocalSwitchWithSuccessButNoList) {
    fake_fabric.switches = {{{0x20}, true, {}, "local"}};
    fake_fabric.addresses_given = false;
    fill();
    EXPECT_EQ(errors(), 1U);
    EXPECT_EQ(text_of(error(1).ccCopyErrorDeviceAddr), "");
    EXPECT_EQ(fake_agent.log.take(),
              (Log{{LOG_ERR, "setCcCopyEntry: Failed to get ip address of local switch\n"}}));
}

TEST_F(Update, LocalSwitchWithoutAddress) {
    fake_fabric.switches = {{{0x20}, true, {}, "local"}};
    fill();
    EXPECT_EQ(errors(), 1U);
    EXPECT_EQ(text_of(error(1).ccCopyErrorDeviceAddr), "");
    EXPECT_LOGGED(EVTRACE_ERROR, "setCcCopyEntry: no inet ip address for local switch\n");
    const auto log = fake_agent.log.take();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].second, "setCcCopyEntry: no inet ip address for local switch\n");
    EXPECT_TRUE(fake_inet_address.written.empty());
}

TEST_F(Update, AddressThatHasNoText) {
    fake_fabric.switches = {{{0x20}, false, ipv4(1), "remote"}, {{0x21}, true, {}, "local"}};
    fake_fabric.management_addresses = {ipv4(77)};
    fake_inet_address.to_str_error = ENOSPC;
    fill();
    EXPECT_EQ(errors(), 2U);
    EXPECT_EQ(text_of(error(1).ccCopyErrorDeviceAddr), "");
    EXPECT_EQ(error(1).ccCopyErrorDeviceAddrType, INET_ADDRESS_IPV4);
    EXPECT_EQ(text_of(error(1).ccCopyErrorText), "remote");
    EXPECT_EQ(error(2).ccCopyErrorDeviceAddrType, INET_ADDRESS_IPV4);
    const std::string text =
        "setCcCopyEntry: ip_addr_to_str() failed with error: " + std::to_string(ENOSPC) + "\n";
    EXPECT_EQ(fake_evtrace.count(EVTRACE_ERROR, text), 2);
    EXPECT_EQ(fake_agent.log.take(), (Log{{LOG_ERR, text}, {LOG_ERR, text}}));
}

// As text, eight negative bytes are longer than the room for them.
TEST_F(Update, WidestName) {
    fake_fabric.switches = {
        {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80}, false, ipv4(1), "remote"}};
    fill();
    EXPECT_EQ(errors(), 1U);
    EXPECT_LOGGED(EVTRACE_DEBUG,
                  "setCcCopyEntry: curr_entry contents: 80:80:80:80:80:80:80:80 : remote\n");
    EXPECT_LOGGED(EVTRACE_DEBUG, "setCcCopyEntry:adding errorentry to errortable index object "
                                 "-128:-128:-128:-128:-12 : remote\n");
}

TEST_F(Update, RemoteSwitchOfAnUnknownType) {
    fake_fabric.switches = {{{0x20}, false, {}, "remote"}};
    fill();
    EXPECT_EQ(errors(), 1U);
    EXPECT_EQ(error(1).ccCopyErrorDeviceAddrType, INET_ADDRESS_UNKNOWN);
    EXPECT_EQ(fake_agent.log.take().size(), 1U);
}

} // namespace
