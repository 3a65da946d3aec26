#include "config-copy/copies/copy_line.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using config_copy::parsed_copy_line;

constexpr char failed[] = "2026-11-22T00:15:02Z request=7 started=4711 user=\"a=b \\\" request=8\" "
                          "requester=192.0.2.1 from=running "
                          "to=tftp://192.0.2.20/x.cfg outcome=failed cause=general reason=\"no "
                          "\\\"answer\\\" \\\\ yet\\x0a\\xc3\\xbc\" bytes=12 "
                          "seconds=0.12";

TEST(ManagerCopyLine, ReasonAndSizeOfTheRequest) {
    const auto line = parsed_copy_line(failed, 7, 4711);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->reason, "no \"answer\" \\ yet \xC3\xBC");
    EXPECT_EQ(line->bytes, 12U);
    EXPECT_EQ(line->sha256, "");
}

TEST(ManagerCopyLine, AnotherRequestsLineIsRefused) {
    EXPECT_FALSE(parsed_copy_line(failed, 8, 4711));
    EXPECT_FALSE(parsed_copy_line(failed, 7, 4712)); // an earlier request of that index
}

TEST(ManagerCopyLine, AWayBack) {
    EXPECT_TRUE(config_copy::is_way_back("2026-11-22T00:15:05Z from=former to=running "
                                         "outcome=successful reason=\"not saved\""));
    EXPECT_FALSE(config_copy::is_way_back(failed));
    EXPECT_FALSE(
        config_copy::is_way_back("2026-11-22T00:15:05Z user=\"from=former\" from=startup"));
    EXPECT_FALSE(config_copy::is_way_back(""));
}

TEST(ManagerCopyLine, AnEndlessLineIsNotRead) {
    const std::string line = "2026-11-22T00:15:02Z request=7 started=1 reason=";
    EXPECT_TRUE(parsed_copy_line(line + std::string(1000, 'x'), 7, 1));
    EXPECT_FALSE(parsed_copy_line(line + std::string(1 << 20, 'x'), 7, 1));
}

TEST(ManagerCopyLine, MissingAndBadFieldsAreEmpty) {
    const auto line = parsed_copy_line(
        "2026-11-22T00:15:02Z request=7 started=1 outcome=successful sha256=ab bytes=x", 7, 1);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->reason, "");
    EXPECT_EQ(line->bytes, std::nullopt);
    EXPECT_EQ(line->sha256, "ab");
}

// The agent's data is not trusted.
TEST(ManagerCopyLine, AMalformedLineIsRefused) {
    for (const std::string text :
         {"", "x", "x ", "x  request=7", "x request=7 started=1 reason=\"open",
          "x request=7 started=1 reason=\"open\\", "x request=7 started=1 reason=\"open\\x",
          "x request=7 started=1 reason=\"a\"b", "x request=7 started=1 lonely",
          "cmdshell: show copies: no manager has copied or saved anything since the switch "
          "started"}) {
        EXPECT_FALSE(parsed_copy_line(text, 7, 1)) << text;
    }
}

} // namespace
