#include "platform/inet_address.h"

#include "base/address_text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string text_of(const inet_address &address) {
    char text[64];
    return ip_addr_to_str(&address, text, sizeof text) == 0 ? text : "failed";
}

TEST(InetAddress, ReadsIpv4AndClearsWhatItDoesNotUse) {
    inet_address address;
    std::memset(&address, 0xAA, sizeof address);
    ASSERT_EQ(ip_addr_from_str("192.0.2.17", &address), 0);
    EXPECT_EQ(address.type, INET_ADDRESS_IPV4);
    const std::uint8_t expected[16] = {192, 0, 2, 17};
    EXPECT_EQ(std::memcmp(address.octets, expected, sizeof expected), 0);
}

TEST(InetAddress, ReadsIpv6) {
    inet_address address;
    ASSERT_EQ(ip_addr_from_str("2001:db8::5", &address), 0);
    EXPECT_EQ(address.type, INET_ADDRESS_IPV6);
    const std::uint8_t expected[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
    EXPECT_EQ(std::memcmp(address.octets, expected, sizeof expected), 0);
}

TEST(InetAddress, WritesTheUsualForms) {
    for (const std::string text : {"0.0.0.0", "255.255.255.255", "::", "::1", "2001:db8::5",
                                   "fe80::1:2", "::ffff:192.0.2.1"}) {
        inet_address address;
        ASSERT_EQ(ip_addr_from_str(text.c_str(), &address), 0) << text;
        EXPECT_EQ(text_of(address), text);
    }
}

TEST(InetAddress, RefusesInvalidTextAndKeepsTheOldAddress) {
    const std::vector<const char *> texts = {
        "",    " ",         "1.2.3", "1.2.3.4.5",   "256.1.1.1",  " 1.2.3.4",      "1.2.3.4 ",
        "1.2", "0x1.2.3.4", "host",  "2001:db8::g", "fe80::1%lo", "1:2:3:4:5:6:7", "1::2::3"};
    for (const char *text : texts) {
        inet_address address{77, {1, 2, 3}};
        EXPECT_EQ(ip_addr_from_str(text, &address), EINVAL) << text;
        EXPECT_EQ(address.type, 77U) << text;
        EXPECT_EQ(address.octets[0], 1) << text;
    }
    inet_address address{};
    EXPECT_EQ(ip_addr_from_str(nullptr, &address), EINVAL);
    EXPECT_EQ(ip_addr_from_str("1.2.3.4", nullptr), EINVAL);
}

TEST(InetAddress, SaysWhenTheRoomDoesNotSuffice) {
    inet_address address;
    ASSERT_EQ(ip_addr_from_str("192.0.2.17", &address), 0);
    char exact[11];
    EXPECT_EQ(ip_addr_to_str(&address, exact, sizeof exact), 0);
    EXPECT_STREQ(exact, "192.0.2.17");
    char text[11] = "kept";
    EXPECT_EQ(ip_addr_to_str(&address, text, 10), ENOSPC);
    EXPECT_STREQ(text, "kept");
    EXPECT_EQ(ip_addr_to_str(&address, text, 0), ENOSPC);
}

TEST(InetAddress, HasNoTextForOtherTypes) {
    for (const std::uint32_t type : {0U, 3U, 4U, 16U, 0xFFFFFFFFU}) {
        const inet_address address{type, {}};
        char text[64];
        EXPECT_EQ(ip_addr_to_str(&address, text, sizeof text), EAFNOSUPPORT) << type;
    }
    char text[64];
    EXPECT_EQ(ip_addr_to_str(nullptr, text, sizeof text), EINVAL);
    const inet_address address{INET_ADDRESS_IPV4, {}};
    EXPECT_EQ(ip_addr_to_str(&address, nullptr, 64), EINVAL);
}

TEST(InetAddress, OctetsAsText) {
    EXPECT_EQ(ulmo::address_text(std::string_view("\xc0\x00\x02\x11", 4)), "192.0.2.17");
    EXPECT_EQ(ulmo::address_text(std::string("\x20\x01\x0d\xb8", 4) + std::string(11, '\0') + '\5'),
              "2001:db8::5");
    EXPECT_EQ(ulmo::address_text("123"), "?");
    EXPECT_EQ(ulmo::address_text(""), "?");
    inet_address address{};
    EXPECT_EQ(ulmo::address_text(address), "?");
    ASSERT_EQ(ip_addr_from_str("2001:db8::5", &address), 0);
    EXPECT_EQ(ulmo::address_text(address), "2001:db8::5");
}

} // namespace
