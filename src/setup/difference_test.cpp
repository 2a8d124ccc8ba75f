#include "setup/difference.h"

#include <gtest/gtest.h>

namespace setup {
namespace {

std::string numbered(int count, const std::string& changed = "", int at = 0) {
    std::string text;
    for (int i = 1; i <= count; ++i) text += i == at ? changed : std::to_string(i) + '\n';
    return text;
}

TEST(Difference, OfEqualTextsIsEmpty) {
    EXPECT_EQ(difference("a\n", "a\n", "old", "new"), "");
}

TEST(Difference, OfANewFileIsAllOfIt) {
    EXPECT_EQ(difference("", "a\nb\n", "/dev/null", "new"),
              "--- /dev/null\n+++ new\n@@ -0,0 +1,2 @@\n+a\n+b\n");
}

TEST(Difference, ShowsThreeLinesAroundAChange) {
    EXPECT_EQ(difference(numbered(9), numbered(9, "x\ny\n", 5), "old", "new"),
              "--- old\n+++ new\n@@ -2,7 +2,8 @@\n 2\n 3\n 4\n-5\n+x\n+y\n 6\n 7\n 8\n");
}

TEST(Difference, OfLinesAtTheEnd) {
    EXPECT_EQ(difference(numbered(5), numbered(5) + "x\n", "old", "new"),
              "--- old\n+++ new\n@@ -3,3 +3,4 @@\n 3\n 4\n 5\n+x\n");
}

TEST(Difference, OfALargeFileIsFoundByItsChangeAlone) {
    constexpr int lines = 30000;  // of which each pair would take gigabytes
    EXPECT_EQ(difference(numbered(lines), numbered(lines, "x\n", 20000), "old", "new"),
              "--- old\n+++ new\n@@ -19997,7 +19997,7 @@\n 19997\n 19998\n 19999\n-20000\n+x\n 20001\n "
              "20002\n 20003\n");
}

TEST(Difference, OfALineThatIsDoubledOrHalvedIsOneLine) {
    EXPECT_EQ(difference("a\na\n", "a\na\na\n", "old", "new"),
              "--- old\n+++ new\n@@ -1,2 +1,3 @@\n a\n a\n+a\n");
    EXPECT_EQ(difference("a\na\na\n", "a\na\n", "old", "new"),
              "--- old\n+++ new\n@@ -1,3 +1,2 @@\n a\n a\n-a\n");
}

TEST(Difference, JoinsChangesThatAreNearAndPartsThoseThatAreFar) {
    const std::string from = numbered(20);
    std::string near = from;
    near.replace(near.find("3\n"), 2, "x\n").replace(near.find("9\n"), 2, "y\n");
    EXPECT_EQ(
        difference(from, near, "old", "new"),
        "--- old\n+++ new\n@@ -1,12 +1,12 @@\n 1\n 2\n-3\n+x\n 4\n 5\n 6\n 7\n 8\n-9\n+y\n 10\n 11\n 12\n");
    std::string far = from;
    far.replace(far.find("3\n"), 2, "x\n").replace(far.find("12\n"), 3, "");
    EXPECT_EQ(difference(from, far, "old", "new"),
              "--- old\n+++ new\n@@ -1,6 +1,6 @@\n 1\n 2\n-3\n+x\n 4\n 5\n 6\n"
              "@@ -9,7 +9,6 @@\n 9\n 10\n 11\n-12\n 13\n 14\n 15\n");
}

}  // namespace
}  // namespace setup
