#include "tk/characters.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace tk {
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
    {"FirstAfterTheSurrogates", "\xee\x80\x80", 0xE000, 3},
    {"FirstOfFourBytes", "\xf0\x90\x80\x80", 0x10000, 4},
    {"LastOfAll", "\xf4\x8f\xbf\xbf", 0x10FFFF, 4},
    {"AfterTheLast", "\xf4\x90\x80\x80", 0, 0},
    {"TooLongForItsCode", "\xe0\x9f\xbf", 0, 0},
    {"CutShort", "\xf0\x90\x80", 0, 0},
    {"WithoutItsSecondByte", "\xc3z", 0, 0},
    {"LoneContinuation", "\xbf", 0, 0},
};
class FirstCharacter : public ::testing::TestWithParam<Case> {};
TEST_P(FirstCharacter, IsReadAsTabled) {
    for (const char* behind : {"", "more"}) {
        const Character character = firstCharacter(std::string(GetParam().text) + behind);
        EXPECT_EQ(character.length, GetParam().length);
        EXPECT_EQ(character.code, GetParam().code);
    }
}
INSTANTIATE_TEST_SUITE_P(Texts, FirstCharacter, ::testing::ValuesIn(cases),
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
    {"RightToLeftOverride", "web\xe2\x80\xaegnp\xe2\x80\xac", "web\\xe2\\x80\\xaegnp\\xe2\\x80\\xac"},
    {"LineSeparator", "a\xe2\x80\xa8", "a\\xe2\\x80\\xa8"},
    {"RightToLeftLetter", "\xd7\x90", "\xd7\x90"},
    {"OverlongOfFour", "\xf0\x80\x80\x8a", "\\xf0\\x80\\x80\\x8a"},
    {"BeyondUnicode", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
};

class PrintableTest : public ::testing::TestWithParam<Printable> {};
TEST_P(PrintableTest, EscapesAsTabled) {
    EXPECT_EQ(printable(GetParam().text), GetParam().expected);
}
INSTANTIATE_TEST_SUITE_P(Texts, PrintableTest, ::testing::ValuesIn(printables),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(TakePrintable, CutsARunOfPlainCharactersWhereTheRoomEnds) {
    std::string_view text = "abcdef\xc3\xbc~\x7f gh";
    EXPECT_EQ(takePrintable(text, 4), "abcd");
    EXPECT_EQ(takePrintable(text, 2), "ef");
    EXPECT_EQ(takePrintable(text, 1), "");
    EXPECT_EQ(takePrintable(text, 8), "\xc3\xbc~\\x7f ");
    EXPECT_EQ(takePrintable(text, 2), "gh");
}

TEST(TakePrintable, TakesWholeCharactersAsFarAsThereIsRoom) {
    std::string_view text =
        "ab\x1b\xc3\xbc"
        "c";
    EXPECT_EQ(takePrintable(text, 5), "ab");  // an escape takes four
    EXPECT_EQ(takePrintable(text, 5), "\\x1b");
    EXPECT_EQ(takePrintable(text, 1), "");
    EXPECT_EQ(takePrintable(text, 3),
              "\xc3\xbc"
              "c");
    EXPECT_EQ(text, "");
}

}  // namespace
}  // namespace tk
