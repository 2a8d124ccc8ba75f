#include "tk/allocator.h"

#include <gtest/gtest.h>

namespace tk {
namespace {

TEST(Allocator, HandsOutIdsFromTheLowestUp) {
    Allocator ids(5, 7);
    EXPECT_EQ(ids.allocNewID(), 5U);
    EXPECT_EQ(ids.allocNewID(), 6U);
    EXPECT_EQ(ids.allocNewID(), 7U);
}

TEST(Allocator, HasNoneWhenAllAreInUse) {
    Allocator ids(5, 6);
    (void)ids.allocNewID();
    (void)ids.allocNewID();
    EXPECT_EQ(ids.allocNewID(), unassigned);
    EXPECT_EQ(ids.allocNewID(), unassigned);
}

TEST(Allocator, GivesAFreedIdOutAgainOnlyWhenTheRangeIsUsedUp) {
    Allocator ids(1, 3);
    EXPECT_EQ(ids.allocNewID(), 1U);
    ids.freeID(1);
    EXPECT_EQ(ids.allocNewID(), 2U);
    EXPECT_EQ(ids.allocNewID(), 3U);
    EXPECT_EQ(ids.allocNewID(), 1U);
    EXPECT_EQ(ids.allocNewID(), unassigned);
    ids.freeID(2);
    EXPECT_EQ(ids.allocNewID(), 2U);
}

TEST(Allocator, TakesAGivenIdOnce) {
    Allocator ids(1, 9);
    EXPECT_FALSE(ids.isAllocID(4));
    EXPECT_TRUE(ids.allocID(4));
    EXPECT_TRUE(ids.isAllocID(4));
    EXPECT_FALSE(ids.allocID(4));
}

TEST(Allocator, RefusesIdsOutsideItsRange) {
    Allocator ids(2, 9);
    EXPECT_FALSE(ids.allocID(1));
    EXPECT_FALSE(ids.allocID(10));
    EXPECT_FALSE(ids.isAllocID(1));
    EXPECT_TRUE(ids.allocID(2));
    EXPECT_TRUE(ids.allocID(9));
}

TEST(Allocator, NewIdsGoOnAfterTheGivenOnes) {
    Allocator ids(1, 9);
    ASSERT_TRUE(ids.allocID(4));
    EXPECT_EQ(ids.allocNewID(), 5U);
    ASSERT_TRUE(ids.allocID(2));
    EXPECT_EQ(ids.allocNewID(), 6U);
}

TEST(Allocator, FreeingAnIdThatIsNotInUseIsNoError) {
    Allocator ids(1, 9);
    ids.freeID(3);
    EXPECT_FALSE(ids.isAllocID(3));
    EXPECT_EQ(ids.allocNewID(), 1U);
}

TEST(Allocator, ServesTheWholeRangeOfAnObjectMap) {
    Allocator ids(1, 0xFFFFFFFE);
    ASSERT_TRUE(ids.allocID(0xFFFFFFFE));
    EXPECT_EQ(ids.allocNewID(), 1U);
}

}  // namespace
}  // namespace tk
