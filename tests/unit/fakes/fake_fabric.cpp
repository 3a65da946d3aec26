#include "fake_fabric.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/msgbus.h"

namespace {

constexpr uint32_t management_port = 0x05000000;

std::size_t next_switch;
fabstat_status last_status;

} // namespace

FabricFake fake_fabric;

void FabricFake::reset() {
    scripted = false;
    wwn_result = 0;
    wwn_response = true;
    local_wwn = {0x20, 0, 0, 0x0d, 0xec, 0x01, 0x02, 3};
    switches.clear();
    addresses_result = 0;
    addresses_given = true;
    management_addresses.clear();
    calls.clear();
    next_switch = 0;
    last_status = {};
}

// Records the call, or fails a test that scripted no fabric.
static void record(const char *call) {
    if (!fake_fabric.scripted) {
        ADD_FAILURE() << "unexpected call of the fabric: " << call;
    }
    fake_fabric.calls.emplace_back(call);
}

extern "C" {

int ctlmsg_req_resp(uint32_t request, int second, const void *third, void **response,
                    uint32_t *length, int sixth, int seventh, uint32_t destination, int32_t queue,
                    uint32_t timeout) {
    record("wwn");
    EXPECT_EQ(request, 1282U);
    EXPECT_EQ(second, 1);
    EXPECT_EQ(third, nullptr);
    EXPECT_EQ(sixth, 0);
    EXPECT_EQ(seventh, 0);
    EXPECT_EQ(destination, 46U);
    EXPECT_EQ(queue, msgbus_response_q);
    EXPECT_EQ(timeout, 5U);
    *response = nullptr;
    *length = 0;
    if (fake_fabric.wwn_response) {
        *length = SWITCH_WWN_SIZE + 4; // more than the name itself
        *response = calloc(1, *length);
        memcpy(*response, fake_fabric.local_wwn.data(), fake_fabric.local_wwn.size());
    }
    return fake_fabric.wwn_result;
}

int fabstat_status_next_get(struct fabstat_status *status, char *text, uint32_t size,
                            uint32_t local_wwn_first, uint32_t local_wwn_second) {
    record("next");
    EXPECT_EQ(size, FABSTAT_TEXT_SIZE);
    FabricFake::Wwn wwn;
    memcpy(wwn.data(), &local_wwn_first, sizeof local_wwn_first);
    memcpy(wwn.data() + sizeof local_wwn_first, &local_wwn_second, sizeof local_wwn_second);
    EXPECT_EQ(wwn, fake_fabric.local_wwn);
    EXPECT_EQ(memcmp(status, &last_status, sizeof last_status), 0)
        << "the cursor did not come back as it was given";
    if (next_switch == 0) {
        EXPECT_TRUE(std::all_of(text, text + size, [](char octet) { return octet == '\0'; }))
            << "the text was not cleared before the walk";
    }
    if (next_switch == fake_fabric.switches.size()) {
        return 1;
    }
    const FabricFake::Switch &one = fake_fabric.switches[next_switch++];
    *status = {};
    std::ranges::copy(one.wwn, status->wwn);
    status->local = one.local ? 1 : 0;
    status->address = one.address;
    last_status = *status;
    memcpy(text, one.text.data(), one.text.size());
    if (one.text.size() < size) {
        text[one.text.size()] = '\0';
    }
    return 0;
}

void fabstat_status_clean(void) {
    record("clean");
}

void if_index_mgmt_sup_port_init(uint32_t *if_index, uint32_t second, uint32_t third) {
    record("port");
    EXPECT_EQ(second, 0U);
    EXPECT_EQ(third, 0U);
    *if_index = management_port;
}

int addrcfg_get_if_inet_addrs(int32_t queue, uint32_t if_index,
                              struct addrcfg_inet_addrs **addresses) {
    record("addresses");
    EXPECT_EQ(queue, msgbus_response_q);
    EXPECT_EQ(if_index, management_port);
    *addresses = nullptr;
    if (fake_fabric.addresses_result != 0 || !fake_fabric.addresses_given) {
        return fake_fabric.addresses_result;
    }
    const std::vector<inet_address> &all = fake_fabric.management_addresses;
    const std::size_t octets =
        offsetof(addrcfg_inet_addrs, first) + all.size() * sizeof(inet_address);
    void *list = calloc(1, octets);
    const auto count = static_cast<uint32_t>(all.size());
    memcpy(static_cast<char *>(list) + offsetof(addrcfg_inet_addrs, count), &count, sizeof count);
    if (!all.empty()) {
        memcpy(static_cast<char *>(list) + offsetof(addrcfg_inet_addrs, first), all.data(),
               all.size() * sizeof(inet_address));
    }
    *addresses = static_cast<addrcfg_inet_addrs *>(list);
    return 0;
}

} // extern "C"
