#include "services/descriptionbudget.h"

#include <vector>

#include <gtest/gtest.h>

namespace gateway {

namespace {

constexpr std::size_t hostLimit = DescriptionBudget::hostLimit;
constexpr const char* fullShare = "the descriptions of this host's mappings take too much memory";
constexpr const char* fullAtAll = "the descriptions of all mappings take too much memory";

PortMap mapOf(std::uint32_t requester, std::size_t size) {
    PortMap map;
    map.requester = requester;
    map.description = std::string(size, 'x');
    return map;
}

TEST(DescriptionBudget, HostMayFillItsShareAndNoMore) {
    DescriptionBudget budget;
    EXPECT_TRUE(budget.roomFor(mapOf(1, hostLimit), nullptr).isOk());
    EXPECT_EQ(budget.roomFor(mapOf(1, hostLimit + 1), nullptr).reason(), fullShare);
    budget.take(mapOf(1, hostLimit - 5));
    EXPECT_TRUE(budget.roomFor(mapOf(1, 5), nullptr).isOk());
    EXPECT_EQ(budget.roomFor(mapOf(1, 6), nullptr).reason(), fullShare);
}

TEST(DescriptionBudget, FullShareHarmsOnlyItsOwner) {
    DescriptionBudget budget;
    budget.take(mapOf(1, hostLimit));
    EXPECT_EQ(budget.roomFor(mapOf(1, 1), nullptr).reason(), fullShare);
    EXPECT_TRUE(budget.roomFor(mapOf(2, hostLimit), nullptr).isOk());
}

TEST(DescriptionBudget, AllHostsTogetherHaveALimit) {
    DescriptionBudget budget;
    for (std::uint32_t host = 1; host <= 16; ++host) budget.take(mapOf(host, hostLimit));
    EXPECT_EQ(budget.roomFor(mapOf(17, DescriptionBudget::hostFloor + 1), nullptr).reason(), fullAtAll);
    budget.giveBack(mapOf(3, hostLimit));
    EXPECT_TRUE(budget.roomFor(mapOf(17, hostLimit), nullptr).isOk());
}

TEST(DescriptionBudget, HostGetsALittleEvenWhenOneWithManyAddressesHasTakenAll) {
    constexpr std::size_t floor = DescriptionBudget::hostFloor;
    DescriptionBudget budget;
    for (std::uint32_t host = 1; host <= 16; ++host) budget.take(mapOf(host, hostLimit));
    EXPECT_TRUE(budget.roomFor(mapOf(17, floor), nullptr).isOk());
    budget.take(mapOf(17, floor));
    EXPECT_EQ(budget.roomFor(mapOf(17, 1), nullptr).reason(), fullAtAll);
    for (std::uint32_t host = 18; host <= 1040; ++host) budget.take(mapOf(host, floor));
    EXPECT_EQ(budget.roomFor(mapOf(2000, 1), nullptr).reason(), fullAtAll);
}

TEST(DescriptionBudget, WhatIsReplacedNoLongerCounts) {
    DescriptionBudget budget;
    const PortMap old = mapOf(1, hostLimit);
    budget.take(old);
    EXPECT_TRUE(budget.roomFor(mapOf(1, hostLimit), &old).isOk());
    EXPECT_EQ(budget.roomFor(mapOf(1, hostLimit + 1), &old).reason(), fullShare);
}

TEST(DescriptionBudget, MappingThatAnotherHostChangesCountsForThatHost) {
    DescriptionBudget budget;
    const PortMap old = mapOf(1, hostLimit);
    budget.take(old);
    budget.take(mapOf(2, hostLimit));
    EXPECT_EQ(budget.roomFor(mapOf(2, 1), &old).reason(), fullShare);
    EXPECT_TRUE(budget.roomFor(mapOf(3, hostLimit), &old).isOk());
}

TEST(DescriptionBudget, WhatIsGivenBackIsFreeAgain) {
    DescriptionBudget budget;
    for (int round = 0; round < 40; ++round) {
        ASSERT_TRUE(budget.roomFor(mapOf(1, hostLimit), nullptr).isOk()) << round;
        budget.take(mapOf(1, hostLimit));
        budget.giveBack(mapOf(1, hostLimit));
    }
}

}  // namespace

}  // namespace gateway
