#include "tk/budget.h"

#include <utility>

#include <gtest/gtest.h>

namespace tk {
namespace {

TEST(Budget, HasRoomUpToItsLimit) {
    Budget budget(100);
    EXPECT_TRUE(budget.hasRoomFor(100));
    EXPECT_FALSE(budget.hasRoomFor(101));
    const Charge charge(budget, 60);
    EXPECT_TRUE(budget.hasRoomFor(40));
    EXPECT_FALSE(budget.hasRoomFor(41));
    EXPECT_FALSE(budget.isOver());
}

TEST(Budget, WhatCannotBeRefusedIsCountedBeyondTheLimit) {
    Budget budget(100);
    const Charge charge(budget, 130);
    EXPECT_TRUE(budget.isOver());
    EXPECT_EQ(budget.usedBytes(), 130U);
    EXPECT_FALSE(budget.hasRoomFor(0));
}

TEST(Charge, GivesItsBytesBackWhenItEnds) {
    Budget budget(100);
    {
        const Charge charge(budget, 60);
        EXPECT_EQ(budget.usedBytes(), 60U);
    }
    EXPECT_EQ(budget.usedBytes(), 0U);
}

TEST(Charge, GrowsAndShrinks) {
    Budget budget(100);
    Charge charge(budget, 60);
    charge.set(80);
    EXPECT_EQ(budget.usedBytes(), 80U);
    charge.set(0);
    EXPECT_EQ(budget.usedBytes(), 0U);
    EXPECT_TRUE(charge.isOf(budget));
}

TEST(Charge, MovesAndIsCountedOnce) {
    Budget first(100);
    Budget second(100);
    Charge charge(first, 60);
    Charge moved(std::move(charge));
    EXPECT_EQ(first.usedBytes(), 60U);
    moved = Charge(second, 10);
    EXPECT_EQ(first.usedBytes(), 0U);
    EXPECT_EQ(second.usedBytes(), 10U);
    moved = Charge();
    EXPECT_EQ(second.usedBytes(), 0U);
}

TEST(Charge, OfNobodyCostsNothing) {
    Charge charge;
    charge.set(60);
    EXPECT_EQ(charge.bytes(), 0U);
}

}  // namespace
}  // namespace tk
