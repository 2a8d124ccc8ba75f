#include "ctl/text.h"

#include <gtest/gtest.h>

namespace ctl {
namespace {

TEST(Text, WidthCountsCharacters) {
    EXPECT_EQ(displayWidth("T\xc3\xbcr"), 3U);
    EXPECT_EQ(displayWidth(""), 0U);
    EXPECT_EQ(displayWidth("\x80z"), 2U);
}

TEST(Text, WidthCountsTheColumnsOfTheTerminal) {
    EXPECT_EQ(displayWidth("\xe5\xae\xb6"), 2U);        // one ideograph
    EXPECT_EQ(displayWidth("\xf0\x9f\x8f\xa0 x"), 4U);  // a house, then one column each
    EXPECT_EQ(displayWidth("u\xcc\x88"), 1U);           // a letter and its accent
}

TEST(Text, HexIsLowerCaseWithoutLeadingZeros) {
    EXPECT_EQ(hexText(0x1A3), "0x1a3");
    EXPECT_EQ(hexText(0), "0x0");
    EXPECT_EQ(hexText(0xFFFFFFFF), "0xffffffff");
}

TEST(Text, TimesAreUniversal) {
    EXPECT_EQ(timeText(1767323045), "2026-01-02T03:04:05Z");
    EXPECT_EQ(timeText(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(timeText(0xFFFFFFFFFFFFFFFF), "18446744073709551615");
}

TEST(Text, ProtocolsHaveTheirUsualNames) {
    EXPECT_EQ(protocolText(6), "tcp");
    EXPECT_EQ(protocolText(17), "udp");
    EXPECT_EQ(protocolText(132), "132");
}

TEST(Text, WhoIsOnTheBusIsNamed) {
    EXPECT_EQ(programText(80), "upnpd");
    EXPECT_EQ(programText(14), "resolverd");
    EXPECT_EQ(programText(24), "routerd");
    EXPECT_EQ(programText(999), "program 999");
    EXPECT_EQ(programText(1000), "client 1000");
}

struct Number {
    const char* name;
    const char* text;
    std::optional<std::uint32_t> expected;
};

constexpr Number numbers[] = {
    {"Decimal", "20", 20},
    {"Hexadecimal", "0xFE0004", 0xFE0004},
    {"HexadecimalCapitalX", "0X1f", 0x1f},
    {"Highest", "4294967295", 4294967295},
    {"TooHigh", "4294967296", {}},
    {"Empty", "", {}},
    {"PrefixAlone", "0x", {}},
    {"Negative", "-1", {}},
    {"Plus", "+1", {}},
    {"TrailingJunk", "80x", {}},
    {"LeadingBlank", " 80", {}},
    {"LeadingZeroIsDecimal", "010", 10},
    {"NegativeHexadecimal", "0x-1", {}},
};

class NumberTest : public testing::TestWithParam<Number> {};
TEST_P(NumberTest, ReadsAsTabled) {
    EXPECT_EQ(parseU32(GetParam().text), GetParam().expected);
}
INSTANTIATE_TEST_SUITE_P(Texts, NumberTest, testing::ValuesIn(numbers),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Text, PathsAreNumbersWithCommas) {
    EXPECT_EQ(parsePath("65"), tk::Path{65});
    EXPECT_EQ(parsePath("20,5"), (tk::Path{20, 5}));
    EXPECT_EQ(parsePath("0x14,5,1,2"), (tk::Path{20, 5, 1, 2}));
    for (const char* text : {"", ",", "20,", ",5", "20,,5", "20.5", "20, 5"})
        EXPECT_EQ(parsePath(text), std::nullopt) << text;
    EXPECT_EQ(pathText({20, 5}), "20,5");
}

TEST(Wrapped, BreaksBetweenWords) {
    using Lines = std::vector<std::string>;
    EXPECT_EQ(wrapped("", 4), Lines{""});
    EXPECT_EQ(wrapped("one two", 7), Lines{"one two"});
    EXPECT_EQ(wrapped("one two", 6), (Lines{"one", "two"}));
    EXPECT_EQ(wrapped("one two", 3), (Lines{"one", "two"}));
    EXPECT_EQ(wrapped("one two three", 8), (Lines{"one two", "three"}));
    EXPECT_EQ(wrapped("so 192.0.2.1", 5), (Lines{"so", "192.0", ".2.1"}));
    EXPECT_EQ(wrapped("日本語", 4), (Lines{"日本", "語"}));
    EXPECT_EQ(wrapped("日本", 1), (Lines{"日", "本"}));
}

}  // namespace
}  // namespace ctl
