#include "resolver/hostname.h"

#include <gtest/gtest.h>

namespace resolver {
namespace {

struct Case {
    const char* name;
    std::string text;
    bool accepted;
};

std::string labels(std::size_t length, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += std::string(i == 0 ? "" : ".") + std::string(length, 'a');
    return text;
}

const std::vector<Case>& cases() {
    static const std::vector<Case> table = {
        {"OneLabel", "nas", true},
        {"SeveralLabels", "nas.home.example", true},
        {"UpperCase", "NAS.Example", true},
        {"LeadingDigit", "3com.example", true},
        {"InnerHyphens", "a--b.x-1.example", true},
        {"TrailingDot", "nas.example.", true},
        {"LongestLabel", std::string(63, 'a'), true},
        {"LongestName", labels(63, 3) + "." + std::string(61, 'a'), true},
        {"LongestNameWithDot", labels(63, 3) + "." + std::string(61, 'a') + ".", true},
        {"NumbersInFront", "192.0.2.example", true},
        {"PunycodeLabel", "xn--bcher-kva.example", true},
        {"Empty", "", false},
        {"DotAlone", ".", false},
        {"LeadingDot", ".example", false},
        {"TwoDots", "nas..example", false},
        {"TwoTrailingDots", "nas.example..", false},
        {"LabelTooLong", std::string(64, 'a'), false},
        {"NameTooLong", labels(63, 3) + "." + std::string(62, 'a'), false},
        {"HyphenFirst", "-nas.example", false},
        {"HyphenLast", "nas-.example", false},
        {"HyphenAlone", "nas.-.example", false},
        {"Underscore", "nas_1.example", false},
        {"Blank", "nas example", false},
        {"LineEnd", "nas.example\n", false},
        {"ZeroByte", std::string("nas\0.example", 12), false},
        {"HighByte",
         "b\xc3\xbc"
         "cher.example",
         false},
        {"Address", "192.0.2.1", false},
        {"AddressWithDot", "192.0.2.1.", false},
        {"Number", "12345", false},
        {"AddressOfOtherKind", "2001:db8::1", false},
        {"WithPort", "nas.example:80", false},
    };
    return table;
}

class HostName : public ::testing::TestWithParam<Case> {};

TEST_P(HostName, IsTakenAsTabled) {
    EXPECT_EQ(isHostName(GetParam().text), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(Names, HostName, ::testing::ValuesIn(cases()),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(LowerCase, ChangesOnlyLetters) {
    EXPECT_EQ(lowerCase("NAS-1.Example."), "nas-1.example.");
}

}  // namespace
}  // namespace resolver
