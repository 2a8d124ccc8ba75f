#include "ctl/screen.h"

#include <gtest/gtest.h>

namespace ctl {
namespace {

Terminal terminalOf(std::size_t width, std::size_t height) {
    Terminal terminal;
    terminal.isTerminal = true;
    terminal.hasCursor = true;
    terminal.hasColours = true;
    terminal.isUnicode = true;
    terminal.width = width;
    terminal.height = height;
    return terminal;
}

std::vector<Line> plain(const std::vector<std::string>& texts) {
    std::vector<Line> lines;
    for (const std::string& text : texts) lines.push_back({{text}});
    return lines;
}

struct ScreenTest : testing::Test {
    /// What is written for a frame of plain lines.
    std::string draw(const std::vector<std::string>& texts) { return screen.draw(plain(texts)); }
    Screen screen{terminalOf(30, 3)};
};

TEST_F(ScreenTest, TheFirstFrameIsDrawnOnAClearScreen) {
    EXPECT_EQ(draw({"one", "", "two"}), "\x1b[H\x1b[2J\x1b[1;1Hone\x1b[3;1Htwo");
}

TEST_F(ScreenTest, AFrameThatIsTheSameCostsNothing) {
    (void)draw({"one", "two"});
    EXPECT_EQ(draw({"one", "two"}), "");
}

TEST_F(ScreenTest, OnlyWhatDiffersIsWritten) {
    (void)draw({"a long line with 12 packets"});
    EXPECT_EQ(draw({"a long line with 13 packets"}), "\x1b[1;19H3");
    EXPECT_EQ(draw({"A long line with 13 packetS"}), "\x1b[1;1HA\x1b[1;27HS");
}

TEST_F(ScreenTest, DifferencesNearEachOtherAreWrittenAtOnce) {
    (void)draw({"abcdefg"});
    EXPECT_EQ(draw({"Abcdefg"}), "\x1b[1;1HA");
    EXPECT_EQ(draw({"abcDefg"}), "\x1b[1;1HabcD");
}

TEST_F(ScreenTest, TheRestOfAShorterLineIsCleared) {
    (void)draw({"abcdef", "x"});
    EXPECT_EQ(draw({"abc"}), "\x1b[1;4H\x1b[K\x1b[2;1H\x1b[K");
    EXPECT_EQ(draw({"abc   "}), "") << "blanks at the end are not seen";
}

TEST_F(ScreenTest, WhatDoesNotFitIsLeftOut) {
    EXPECT_EQ(draw({std::string(40, 'x'), "", "", "never"}), "\x1b[H\x1b[2J\x1b[1;1H" + std::string(30, 'x'));
}

TEST_F(ScreenTest, AStyleEndsWithItsText) {
    EXPECT_EQ(screen.draw({{{"a"}, {"b", Style::bad}, {"c"}}}), "\x1b[H\x1b[2J\x1b[1;1Ha\x1b[31mb\x1b[0mc");
    EXPECT_EQ(screen.draw({{{"a"}, {"b", Style::good}, {"c"}}}), "\x1b[1;2H\x1b[32mb\x1b[0m");
    EXPECT_EQ(screen.draw({{{"abc"}}}), "\x1b[1;2Hb");
}

TEST_F(ScreenTest, ThereAreNoStylesWithoutColours) {
    Terminal colourless = terminalOf(30, 3);
    colourless.hasColours = false;
    screen.forget(colourless);
    EXPECT_EQ(screen.draw({{{"b", Style::bad}}}), "\x1b[H\x1b[2J\x1b[1;1Hb");
}

TEST_F(ScreenTest, AWideCharacterIsWrittenWhole) {
    (void)draw({"日本x"});
    EXPECT_EQ(draw({"日本y"}), "\x1b[1;5Hy");
    EXPECT_EQ(draw({"日木y"}), "\x1b[1;3H木");
    EXPECT_EQ(draw({"日aby"}), "\x1b[1;3Hab");
    EXPECT_EQ(draw({std::string(29, 'x') + "日"}), "\x1b[1;1H" + std::string(29, 'x'))
        << "no room for both halves";
}

TEST_F(ScreenTest, AMarkJoinsTheCharacterBeforeIt) {
    (void)draw({"ae"});
    EXPECT_EQ(draw({"ae\xcc\x81"}), "\x1b[1;2He\xcc\x81");
}

TEST_F(ScreenTest, AnotherSizeDrawsEverything) {
    (void)draw({"one"});
    screen.forget(terminalOf(2, 1));
    EXPECT_EQ(draw({"one", "two"}), "\x1b[H\x1b[2J\x1b[1;1Hon");
}

}  // namespace
}  // namespace ctl
