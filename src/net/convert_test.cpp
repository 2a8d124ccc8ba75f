#include "net/convert.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "tk/platform.h"

namespace gateway {

namespace {

TEST(Convert, NumbersAreWrittenInDecimal) {
    EXPECT_EQ(toString(0), "0");
    EXPECT_EQ(toString(-2147483647 - 1), "-2147483648");
    EXPECT_EQ(toString(4294967295U), "4294967295");
}

TEST(Convert, HexadecimalHasEightLowerCaseDigits) {
    EXPECT_EQ(toHexString(0), "00000000");
    EXPECT_EQ(toHexString(0xDEADBEEF), "deadbeef");
    EXPECT_EQ(toHexString(0x1a2b), "00001a2b");
}

TEST(Convert, AddressesAreInNetworkOrder) {
    EXPECT_EQ(ipToString(htonl(0xC0000201)), "192.0.2.1");
    EXPECT_EQ(toAddress("192.0.2.1"), htonl(0xC0000201));
    EXPECT_EQ(ipToString(0), "0.0.0.0");
}

TEST(Convert, BadAddressIsAllOnes) {
    EXPECT_EQ(toAddress(""), 0xFFFFFFFF);
    EXPECT_EQ(toAddress("router.example"), 0xFFFFFFFF);
    EXPECT_EQ(toAddress("192.0.2.256"), 0xFFFFFFFF);
    EXPECT_EQ(toAddress("255.255.255.255"), 0xFFFFFFFF);
}

struct UnsignedCase {
    const char* name;
    const char* text;
    std::uint32_t value;
    bool whole;
};

constexpr UnsignedCase unsignedCases[] = {
    {"EmptyIsZero", "", 0, true},
    {"Plain", "80", 80, true},
    {"LeadingZerosAreDecimal", "0080", 80, true},
    {"WhiteSpaceBefore", " \t\r\n80", 80, true},
    {"Plus", "+80", 80, true},
    {"TrailingJunk", "80x", 80, false},
    {"TrailingBlank", "80 ", 80, false},
    {"NoNumber", "abc", 0, false},
    {"BlankAlone", " ", 0, false},
    {"SignAlone", "-", 0, false},
    {"TwoSigns", "--1", 0, false},
    {"HexadecimalStopsAtX", "0x10", 0, false},
    {"Highest", "4294967295", 4294967295, true},
    {"AboveHighestSaturates", "4294967296", 4294967295, true},
    {"DoesNotWrapToAPort", "4294967376", 4294967295, true},
    {"BeyondSixtyFourBitsSaturates", "99999999999999999999999999", 4294967295, true},
    {"MinusOneWraps", "-1", 4294967295, true},
    {"MinusHighestWraps", "-4294967295", 1, true},
    {"MinusAboveHighestSaturates", "-4294967296", 4294967295, true},
    {"MinusZero", "-0", 0, true},
};

class ToUnsigned : public testing::TestWithParam<UnsignedCase> {};

TEST_P(ToUnsigned, ReadsAsTabled) {
    EXPECT_EQ(toUnsigned(GetParam().text), GetParam().value);
    std::uint32_t value = 1234;
    EXPECT_EQ(isUnsigned(GetParam().text, value), GetParam().whole);
    EXPECT_EQ(value, GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(Texts, ToUnsigned, testing::ValuesIn(unsignedCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Convert, AZeroByteEndsTheNumberButNotTheText) {
    const std::string text("8\0000", 3);
    std::uint32_t value = 0;
    EXPECT_EQ(toUnsigned(text), 8U);
    EXPECT_FALSE(isUnsigned(text, value));
}

TEST(Convert, SignedNumbersAreKeptWithin32Bits) {
    EXPECT_EQ(toInt("-5"), -5);
    EXPECT_EQ(toInt("5000/x"), 5000);
    EXPECT_EQ(toInt("infinite"), 0);
    EXPECT_EQ(toInt(""), 0);
    EXPECT_EQ(toInt("2147483647"), 2147483647);
    EXPECT_EQ(toInt("2147483648"), 2147483647);
    EXPECT_EQ(toInt("99999999999999999999"), 2147483647);
    EXPECT_EQ(toInt("-2147483648"), -2147483647 - 1);
    EXPECT_EQ(toInt("-99999999999999999999"), -2147483647 - 1);
}

TEST(Convert, UptimeIsThePlatformsInDecimal) {
    const std::uint32_t before = tk::getUptime();
    const std::uint32_t shown = toUnsigned(uptimeString());
    EXPECT_GE(shown, before);
    EXPECT_LE(shown, tk::getUptime());
}

TEST(Convert, PrefixEndsAtTheLastColon) {
    EXPECT_EQ(stripPrefix("s:Envelope"), "Envelope");
    EXPECT_EQ(stripPrefix("a:b:Body"), "Body");
    EXPECT_EQ(stripPrefix("Body"), "Body");
    EXPECT_EQ(stripPrefix("Body:"), "");
    EXPECT_EQ(stripPrefix(""), "");
}

TEST(Text, SliceTakesTheRestWhereNoLengthIsGiven) {
    EXPECT_EQ(slice("abcdef", 2), "cdef");
}

TEST(Text, SliceTakesAtMostTheGivenLength) {
    EXPECT_EQ(slice("abcdef", 2, 3), "cde");
    EXPECT_EQ(slice("abcdef", 4, 3), "ef");
    EXPECT_EQ(slice("abcdef", 1, 0), "");
}

TEST(Text, SliceAtOrPastTheEndIsEmpty) {
    EXPECT_EQ(slice("abc", 3), "");
    EXPECT_EQ(slice("abc", 4, 2), "");
    EXPECT_EQ(slice("", 0), "");
    EXPECT_EQ(slice("abc", std::string_view::npos), "");
}

TEST(Text, FirstAndLastByteOfNothingAreZero) {
    EXPECT_EQ(firstByte(""), '\0');
    EXPECT_EQ(lastByte(""), '\0');
    EXPECT_EQ(firstByte("<a>"), '<');
    EXPECT_EQ(lastByte("<a>"), '>');
}

TEST(Text, UpperCaseChangesOnlyAsciiLetters) {
    EXPECT_EQ(toUpper("Content-Length: az AZ 09 \xe4"), "CONTENT-LENGTH: AZ AZ 09 \xe4");
    EXPECT_EQ(toUpper(""), "");
}

}  // namespace

}  // namespace gateway
