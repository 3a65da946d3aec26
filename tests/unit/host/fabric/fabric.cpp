#include "platform/fabric.h"
#include "platform/host/fabric/status.h"
#include "platform/host/fabric/wwn.h"
#include "tests/unit/child.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Free {
    void operator()(void *memory) const { std::free(memory); }
};

struct Answer {
    int result = -1;
    std::unique_ptr<void, Free> response;
    std::uint32_t length = 99;
};

Answer ask(std::uint32_t request) {
    Answer answer;
    void *response = &answer;
    answer.result = ctlmsg_req_resp(request, 1, nullptr, &response, &answer.length, 0, 0, 46, 0, 5);
    answer.response.reset(response);
    return answer;
}

ulmo::Wwn wwn_of(const Answer &answer) {
    ulmo::Wwn wwn{};
    std::memcpy(wwn.data(), answer.response.get(), wwn.size());
    return wwn;
}

std::string text_of(const inet_address &address) {
    char text[64];
    return ip_addr_to_str(&address, text, sizeof text) == 0 ? text : "-";
}

class Fabric : public testing::Test {
  protected:
    ~Fabric() override { fabstat_status_clean(); }

    // The whole walk, one word for each switch: name, l or r, address, text.
    static std::vector<std::string> walk(const ulmo::Wwn &local = {}) {
        std::uint32_t halves[2];
        std::memcpy(halves, local.data(), sizeof halves);
        std::vector<std::string> switches;
        fabstat_status status{};
        char text[FABSTAT_TEXT_SIZE];
        while (fabstat_status_next_get(&status, text, sizeof text, halves[0], halves[1]) == 0 &&
               switches.size() < 100) {
            ulmo::Wwn wwn{};
            std::copy(std::begin(status.wwn), std::end(status.wwn), wwn.begin());
            switches.push_back(ulmo::wwn_to_text(wwn).substr(21) +
                               (status.local == 1 ? " l " : " r ") + text_of(status.address) + ' ' +
                               std::string(text, ::strnlen(text, sizeof text)));
        }
        fabstat_status_clean();
        return switches;
    }
    void write(const std::string &text) const {
        Scratch::write(scratch.run("fabric-status"), text);
    }

    Scratch scratch;
};

using Texts = std::vector<std::string>;

TEST_F(Fabric, WorldWideNameComesFromTheSetting) {
    scratch.configure("wwn = 20:00:AB:cd:00:01:02:ff\n");
    const Answer answer = ask(CTLMSG_REQ_SWITCH_WWN);
    ASSERT_EQ(answer.result, 0);
    ASSERT_EQ(answer.length, SWITCH_WWN_SIZE);
    EXPECT_EQ(wwn_of(answer), (ulmo::Wwn{0x20, 0x00, 0xab, 0xcd, 0x00, 0x01, 0x02, 0xff}));
}

TEST_F(Fabric, DefaultWorldWideNameIsLocallyAssignedAndStable) {
    const Answer answer = ask(CTLMSG_REQ_SWITCH_WWN);
    ASSERT_EQ(answer.result, 0);
    EXPECT_EQ(wwn_of(answer)[0] >> 4, 3);
    EXPECT_EQ(wwn_of(answer), wwn_of(ask(CTLMSG_REQ_SWITCH_WWN)));
}

TEST_F(Fabric, InvalidNameIsNotAnswered) {
    for (const char *wwn :
         {"x", "20:00:00:00:00:00:00", "20:00:00:00:00:00:00:00:00", "20-00-00-00-00-00-00-01",
          "20:00:00:00:00:00:00:0g", "2:000:00:00:00:00:00:01", "20:00:00:00:00:00:00:-1",
          "00:00:00:00:00:00:00:00"}) {
        scratch.configure(std::string("wwn = ") + wwn + '\n');
        const Answer answer = ask(CTLMSG_REQ_SWITCH_WWN);
        EXPECT_NE(answer.result, 0) << wwn;
        EXPECT_EQ(answer.response, nullptr) << wwn;
        EXPECT_EQ(answer.length, 0U) << wwn;
    }
}

TEST_F(Fabric, OtherRequestsAreNotServed) {
    const Answer answer = ask(1283);
    EXPECT_NE(answer.result, 0);
    EXPECT_EQ(answer.response, nullptr);
    EXPECT_EQ(answer.length, 0U);
    std::uint32_t length = 0;
    EXPECT_NE(ctlmsg_req_resp(CTLMSG_REQ_SWITCH_WWN, 1, nullptr, nullptr, &length, 0, 0, 46, 0, 5),
              0);
}

TEST_F(Fabric, WalkWithoutAFileIsOverAtOnce) {
    EXPECT_EQ(walk(), Texts{});
    write("");
    EXPECT_EQ(walk(), Texts{});
}

TEST_F(Fabric, WalkGivesTheSwitchesInOrder) {
    write("20:00:00:00:00:00:00:03 remote 192.0.2.3 copy failed: no space\n"
          "20:00:00:00:00:00:00:01 local 192.0.2.1 ok\n"
          "20:00:00:00:00:00:00:02 remote 2001:db8::2 \n"
          "20:00:00:00:00:00:00:04 remote - not reached");
    EXPECT_EQ(walk(), (Texts{"03 r 192.0.2.3 copy failed: no space", "01 l - ok",
                             "02 r 2001:db8::2 ", "04 r - not reached"}));
}

TEST_F(Fabric, SwitchThatAsksIsTheLocalOne) {
    write("20:00:00:00:00:00:00:03 remote 192.0.2.3 ok\n20:00:00:00:00:00:00:04 remote 192.0.2.4 "
          "ok\n");
    EXPECT_EQ(walk({0x20, 0, 0, 0, 0, 0, 0, 4}), (Texts{"03 r 192.0.2.3 ok", "04 l - ok"}));
}

TEST_F(Fabric, WalkEndsWhateverTheFileHolds) {
    write("\n# text\n20:00:00:00:00:00:00:01\n20:00:00:00:00:00:00:01 "
          "remote\n20:00:00:00:00:00:00:01 near - x\n"
          "20:00:00:00:00:00:00:01 remote nowhere x\n00:00:00:00:00:00:00:00 remote - zero\n"
          "20:00:00:00:00:00:00:05 remote - first\n20:00:00:00:00:00:00:06 remote - second\n"
          "20:00:00:00:00:00:00:05 remote - again\n");
    EXPECT_EQ(walk(), (Texts{"05 r - first", "06 r - second"}));
    std::filesystem::remove(scratch.run("fabric-status"));
    std::filesystem::create_directory(scratch.run("fabric-status"));
    EXPECT_EQ(walk(), Texts{});
}

TEST_F(Fabric, WalkKeepsItsListUntilItIsReleased) {
    write("20:00:00:00:00:00:00:01 remote - a\n20:00:00:00:00:00:00:02 remote - b\n");
    fabstat_status status{};
    char text[FABSTAT_TEXT_SIZE];
    ASSERT_EQ(fabstat_status_next_get(&status, text, sizeof text, 0, 0), 0);
    write("20:00:00:00:00:00:00:09 remote - c\n");
    ASSERT_EQ(fabstat_status_next_get(&status, text, sizeof text, 0, 0), 0);
    EXPECT_STREQ(text, "b");
    EXPECT_NE(fabstat_status_next_get(&status, text, sizeof text, 0, 0), 0);
    fabstat_status again{};
    ASSERT_EQ(fabstat_status_next_get(&again, text, sizeof text, 0, 0), 0);
    EXPECT_STREQ(text, "c") << "a walk from the beginning reads the file";
    fabstat_status_clean();
    fabstat_status_clean();
    EXPECT_EQ(walk(), Texts{"09 r - c"});
    fabstat_status unknown{};
    unknown.wwn[0] = 0x77;
    EXPECT_NE(fabstat_status_next_get(&unknown, text, sizeof text, 0, 0), 0);
    EXPECT_NE(fabstat_status_next_get(nullptr, text, sizeof text, 0, 0), 0);
}

TEST_F(Fabric, TextFillsItsRoomAndNoMore) {
    write("20:00:00:00:00:00:00:01 remote - 12345678\n");
    char text[12];
    const auto step = [&](std::uint32_t size) {
        std::memset(text, '#', sizeof text);
        fabstat_status status{};
        EXPECT_EQ(fabstat_status_next_get(&status, text, size, 0, 0), 0);
        return std::string(text, sizeof text);
    };
    EXPECT_EQ(step(4), "1234########");
    EXPECT_EQ(step(8), "12345678####");
    EXPECT_EQ(step(9), std::string("12345678\0###", 12));
    EXPECT_EQ(step(0), "############");
}

TEST_F(Fabric, WhatIsWrittenIsRead) {
    std::vector<ulmo::FabricSwitchStatus> switches(3);
    for (std::size_t i = 0; i < switches.size(); ++i) {
        switches[i].wwn = {0x20, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(i + 1)};
    }
    switches[0].is_local = true;
    switches[0].text = "saved";
    ASSERT_EQ(ip_addr_from_str("2001:db8::7", &switches[1].address), 0);
    switches[1].text = "two\nlines\tand a tab";
    ulmo::write_fabric_status(switches);
    EXPECT_EQ(walk(), (Texts{"01 l - saved", "02 r 2001:db8::7 two lines and a tab", "03 r - "}));
    EXPECT_EQ(Scratch::status_of(scratch.run("fabric-status")).st_mode, S_IFREG | 0600U);
    ulmo::write_fabric_status({});
    EXPECT_EQ(walk(), Texts{});
    EXPECT_FALSE(std::filesystem::exists(scratch.run("fabric-status.new")));
}

TEST_F(Fabric, FailedWriteLeavesTheOldFile) {
    std::filesystem::create_directory(scratch.run("fabric-status"));
    EXPECT_THROW(ulmo::write_fabric_status({}), std::system_error);
    EXPECT_TRUE(std::filesystem::is_directory(scratch.run("fabric-status")));
    EXPECT_FALSE(std::filesystem::exists(scratch.run("fabric-status.new")));
}

// The result of the call in a child process with a network of its own, prepared by `setup` (shell
// commands); 77 if the namespace can't be made.
template <typename Call> int in_network(const std::string &setup, Call call) {
    return host_test::in_child([&] {
        if (::unshare(CLONE_NEWNET) != 0) {
            return 77;
        }
        if (::system(("set -e\n" + setup).c_str()) != 0) {
            return 78;
        }
        return call();
    });
}

std::string management_name() {
    std::uint32_t index = 99;
    if_index_mgmt_sup_port_init(&index, 0, 0);
    char name[IF_NAMESIZE] = "";
    return ::if_indextoname(index, name) != nullptr ? name : "none";
}

class Network : public Fabric {
  protected:
    void SetUp() override { REQUIRE_SUPERUSER("makes network namespaces"); }
};

constexpr const char *two_ports = "ip link set lo up\nip link add one type veth peer name two\n"
                                  "ip link set one up\nip link set two up\n";

TEST_F(Network, ManagementInterfaceIsTheConfiguredOne) {
    scratch.configure("management_interface = two\n");
    EXPECT_EQ(in_network(two_ports, [] { return management_name() == "two" ? 0 : 1; }), 0);
    scratch.configure("management_interface = none\n");
    EXPECT_EQ(in_network(two_ports,
                         [] {
                             std::uint32_t index = 99;
                             if_index_mgmt_sup_port_init(&index, 0, 0);
                             return index == 0 ? 0 : 1;
                         }),
              0);
    if_index_mgmt_sup_port_init(nullptr, 0, 0);
}

TEST_F(Network, ManagementInterfaceIsThatOfTheDefaultRoute) {
    const std::string ports = two_ports;
    EXPECT_EQ(
        in_network(ports +
                       "ip route add default dev two metric 100\nip route add 0.0.0.0/1 dev one\n",
                   [] { return management_name() == "two" ? 0 : 1; }),
        0);
    EXPECT_EQ(in_network(ports + "ip route add default dev one metric 200\nip route add default "
                                 "dev two metric 100\n",
                         [] { return management_name() == "two" ? 0 : 1; }),
              0)
        << "the one with the lower metric";
    EXPECT_EQ(
        in_network(
            ports + "ip -6 route add default dev two metric 50\nip route add unreachable default\n",
            [] { return management_name() == "two" ? 0 : 1; }),
        0)
        << "a route of IPv6 only";
}

TEST_F(Network, WithoutRouteItIsTheFirstThatIsUpOrElseTheLoopback) {
    EXPECT_EQ(in_network(std::string(two_ports) + "ip link set one down\n",
                         [] { return management_name() == "two" ? 0 : 1; }),
              0);
    EXPECT_EQ(in_network("ip link set lo up", [] { return management_name() == "lo" ? 0 : 1; }), 0);
    EXPECT_EQ(in_network("true", [] { return management_name() == "lo" ? 0 : 1; }), 0);
}

std::string addresses_of(const char *interface) {
    addrcfg_inet_addrs *raw = nullptr;
    if (addrcfg_get_if_inet_addrs(0, ::if_nametoindex(interface), &raw) != 0) {
        return raw == nullptr ? "failed" : "failed with a list";
    }
    const std::unique_ptr<addrcfg_inet_addrs, Free> list(raw);
    std::string all;
    for (std::uint32_t i = 0; i < list->count; ++i) {
        inet_address address{};
        std::memcpy(&address,
                    static_cast<const char *>(static_cast<const void *>(raw)) + 12 + 20 * i,
                    sizeof address);
        all += text_of(address) + ' ';
    }
    return all;
}

TEST_F(Network, AddressesComeIpv4FirstAndLinkLocalLast) {
    const std::string setup =
        "ip link add one address 02:00:00:00:00:01 type veth peer name two\nip link set one up\n"
        "ip addr add 2001:db8::5/64 dev one nodad\nip addr add 192.0.2.9/24 dev one\n"
        "ip addr add 192.0.2.10/24 dev one\nip addr add fe80::5/64 dev one nodad\n";
    EXPECT_EQ(in_network(setup,
                         [] {
                             return addresses_of("one") ==
                                            "192.0.2.9 192.0.2.10 2001:db8::5 fe80::5 "
                                        ? 0
                                        : 1;
                         }),
              0);
    EXPECT_EQ(in_network(setup, [] { return addresses_of("two").empty() ? 0 : 1; }), 0)
        << "an interface without address";
    EXPECT_EQ(in_network(setup, [] { return addresses_of("none") == "failed" ? 0 : 1; }), 0);
    EXPECT_NE(addrcfg_get_if_inet_addrs(0, 1, nullptr), 0);
}

} // namespace
