#include "net/text.h"

#include <gtest/gtest.h>

namespace {

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

}  // namespace
