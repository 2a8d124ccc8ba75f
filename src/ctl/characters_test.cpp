#include "ctl/characters.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace ctl {
namespace {

struct Case {
    const char* name;
    const char* text;
    char32_t code;
    std::size_t length;
};
constexpr Case cases[] = {
    {"LastOfOneByte", "\x7f", 0x7F, 1},
    {"FirstOfTwoBytes", "\xc2\x80", 0x80, 2},
    {"LastOfTwoBytes", "\xdf\xbf", 0x7FF, 2},
    {"FirstOfThreeBytes", "\xe0\xa0\x80", 0x800, 3},
    {"LastBeforeTheSurrogates", "\xed\x9f\xbf", 0xD7FF, 3},
    {"FirstSurrogate", "\xed\xa0\x80", 0, 0},
    {"LastSurrogate", "\xed\xbf\xbf", 0, 0},
    {"FirstBehindTheSurrogates", "\xee\x80\x80", 0xE000, 3},
    {"FirstOfFourBytes", "\xf0\x90\x80\x80", 0x10000, 4},
    {"LastOfAll", "\xf4\x8f\xbf\xbf", 0x10FFFF, 4},
    {"BehindTheLast", "\xf4\x90\x80\x80", 0, 0},
    {"TooLongForItsCode", "\xe0\x9f\xbf", 0, 0},
    {"CutShort", "\xf0\x90\x80", 0, 0},
    {"WithoutItsSecondByte", "\xc3z", 0, 0},
    {"LoneContinuation", "\xbf", 0, 0},
};
class FirstCharacter : public testing::TestWithParam<Case> {};
TEST_P(FirstCharacter, IsReadAsTabled) {
    for (const char* behind : {"", "more"}) {
        const Character character = firstCharacter(std::string(GetParam().text) + behind);
        EXPECT_EQ(character.length, GetParam().length);
        EXPECT_EQ(character.code, GetParam().code);
    }
}
INSTANTIATE_TEST_SUITE_P(Texts, FirstCharacter, testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Characters, ThoseThatSteerALineAreNotPlain) {
    for (const char32_t code : {0x00U, 0x1BU, 0x1FU, 0x7FU, 0x9BU, 0x9FU, 0x200EU, 0x2028U, 0x202EU, 0x2069U})
        EXPECT_FALSE(isPlain(code)) << std::hex << static_cast<std::uint32_t>(code);
    for (const char32_t code : {0x20U, 0x7EU, 0xA0U, 0x5D0U, 0x200DU, 0x2010U, 0x202FU, 0x206AU, 0x1F3E0U})
        EXPECT_TRUE(isPlain(code)) << std::hex << static_cast<std::uint32_t>(code);
}

TEST(Characters, TakeNoneOneOrTwoColumns) {
    for (const char32_t code : {0x300U, 0x36FU, 0x200BU, 0xFE0FU}) EXPECT_EQ(columnsOf(code), 0U);
    for (const char32_t code : {0x20U, 0xFCU, 0x370U, 0x10FFU, 0x303FU}) EXPECT_EQ(columnsOf(code), 1U);
    for (const char32_t code : {0x1100U, 0x3042U, 0x4E00U, 0xAC00U, 0xFF21U, 0x1F3E0U, 0x20000U})
        EXPECT_EQ(columnsOf(code), 2U);
}

}  // namespace
}  // namespace ctl
