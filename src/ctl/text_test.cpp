#include "ctl/text.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

namespace ctl {
namespace {

struct Printable {
    const char* name;
    std::string_view text;
    const char* expected;
};

constexpr Printable printables[] = {
    {"Plain", "web server", "web server"},
    {"Empty", "", ""},
    {"Umlaut", "T\xc3\xbcr", "T\xc3\xbcr"},
    {"FourByteCharacter", "\xf0\x9f\x8f\xa0", "\xf0\x9f\x8f\xa0"},
    {"LineEnds", "a\r\nb", "a\\x0d\\x0ab"},
    {"EscapeSequence", "\x1b[2J", "\\x1b[2J"},
    {"Nul", std::string_view("a\0b", 3), "a\\x00b"},
    {"Delete", "\x7f", "\\x7f"},
    {"UpperControl",
     "\xc2\x9b"
     "2J",
     "\\xc2\\x9b2J"},
    {"LoneContinuation", "\x9b", "\\x9b"},
    {"CutCharacter", "\xc3", "\\xc3"},
    {"Overlong", "\xc0\x8a", "\\xc0\\x8a"},
    {"OverlongOfThree", "\xe0\x80\x8a", "\\xe0\\x80\\x8a"},
    {"Surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
    {"RightToLeftOverride", "web\xe2\x80\xaegnp", "web\\xe2\\x80\\xaegnp"},
    {"LineSeparator", "a\xe2\x80\xa8", "a\\xe2\\x80\\xa8"},
    {"RightToLeftLetter", "\xd7\x90", "\xd7\x90"},
    {"OverlongOfFour", "\xf0\x80\x80\x8a", "\\xf0\\x80\\x80\\x8a"},
    {"BeyondUnicode", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
};

class PrintableTest : public testing::TestWithParam<Printable> {};
TEST_P(PrintableTest, EscapesAsTabled) {
    EXPECT_EQ(printable(GetParam().text), GetParam().expected);
}
INSTANTIATE_TEST_SUITE_P(Texts, PrintableTest, testing::ValuesIn(printables),
                         [](const auto& row) { return std::string(row.param.name); });

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

TEST(Text, AddressesAreFourDecimalNumbers) {
    EXPECT_EQ(parseAddress("192.0.2.1"), htonl(0xC0000201));
    for (const char* text : {"", "192.0.2", "192.0.2.256", "192.0.2.1 ", "3221225985", "lan"})
        EXPECT_EQ(parseAddress(text), std::nullopt) << text;
    EXPECT_EQ(parseAddress(std::string("192.0.2.1\0x", 11)), std::nullopt);
}

}  // namespace
}  // namespace ctl
