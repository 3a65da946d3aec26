#include "base/text.h"

#include "base/number.h"
#include "base/wwn_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

namespace {

using ulmo::one_line;
using ulmo::parsed_number;
using ulmo::printable_length;

TEST(Text, APrintableCharacterIsWellFormedAndNoControl) {
    EXPECT_EQ(printable_length(""), 0U);
    EXPECT_EQ(printable_length(" x"), 1U);
    EXPECT_EQ(printable_length("~"), 1U);
    EXPECT_EQ(printable_length("\xc2\xa0x"), 2U);
    EXPECT_EQ(printable_length("\xe2\x82\xac"), 3U);
    EXPECT_EQ(printable_length("\xf0\x9f\x98\x80"), 4U);
    for (const std::string_view none :
         {"\x1f", "\x7f", "\xc2\x9f", "\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80",
          "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe2\x82", "\xe2\x28\xa1",
          "\xff"}) {
        EXPECT_EQ(printable_length(none), 0U) << testing::PrintToString(none);
    }
    EXPECT_EQ(printable_length(std::string_view("\0", 1)), 0U);
}

TEST(Text, OneLineKeepsWhatCanBeRead) {
    EXPECT_EQ(one_line("gr\xc3\xbc\xc3\x9f ~"), "gr\xc3\xbc\xc3\x9f ~");
    EXPECT_EQ(one_line("two\nlines\r\n\tand a tab"), "two lines   and a tab");
    EXPECT_EQ(one_line(std::string_view("\x1b[31m\0\x7f", 7)), "?[31m??");
    EXPECT_EQ(one_line("\xc2\x9b"
                       "31m \xff \xe2\x82"),
              "??31m ? ??")
        << "a terminal takes 0x9b for the start of a command, too";
    EXPECT_EQ(one_line(""), "");
}

TEST(Text, OneLineEndsBeforeACharacterThatDoesNotFit) {
    EXPECT_EQ(one_line("abc", 3), "abc");
    EXPECT_EQ(one_line("abc", 2), "ab");
    EXPECT_EQ(one_line("a\xe2\x82\xac", 4), "a\xe2\x82\xac");
    EXPECT_EQ(one_line("a\xe2\x82\xac", 3), "a");
    EXPECT_EQ(one_line("abc", 0), "");
}

TEST(Text, OctetsInHexadecimal) {
    EXPECT_EQ(ulmo::in_hex(std::string_view("\x00\x7f\xff", 3)), "007fff");
    EXPECT_EQ(ulmo::in_hex("\x20\xa1", ":"), "20:a1");
    EXPECT_EQ(ulmo::in_hex(""), "");
}

TEST(Text, AWorldWideNameOfAnyLength) {
    EXPECT_EQ(ulmo::wwn_to_text(ulmo::Wwn{0x20, 0, 0, 0, 0, 0, 0, 0xa1}),
              "20:00:00:00:00:00:00:a1");
    EXPECT_EQ(ulmo::wwn_to_text(std::string_view("\x20\xa1")), "20:a1");
}

TEST(Text, TrimmedTextHasNoBlanksAtItsEnds) {
    EXPECT_EQ(ulmo::trimmed(" \ta b\r\n"), "a b");
    EXPECT_EQ(ulmo::trimmed(" \t\r\n"), "");
    EXPECT_EQ(ulmo::trimmed("a"), "a");
}

TEST(Number, IsTheWholeTextWithinTheBounds) {
    EXPECT_EQ(parsed_number<int>("12"), 12);
    EXPECT_EQ(parsed_number<int>("-12"), -12);
    EXPECT_EQ(parsed_number("1", 1, 3), 1);
    EXPECT_EQ(parsed_number("3", 1, 3), 3);
    EXPECT_EQ(parsed_number("0", 1, 3), std::nullopt);
    EXPECT_EQ(parsed_number("4", 1, 3), std::nullopt);
    for (const char *text : {"", " 1", "1 ", "+1", "1x", "x", "0x1", "1.0"}) {
        EXPECT_EQ(parsed_number<long>(text), std::nullopt) << text;
    }
    EXPECT_EQ(parsed_number<std::uint8_t>("255"), 255);
    EXPECT_EQ(parsed_number<std::uint8_t>("256"), std::nullopt);
    EXPECT_EQ(parsed_number<std::uint8_t>("-1"), std::nullopt);
    EXPECT_EQ(parsed_number<std::uint64_t>("18446744073709551615"), UINT64_MAX);
}

} // namespace
