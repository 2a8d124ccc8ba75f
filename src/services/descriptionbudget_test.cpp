#include "services/descriptionbudget.h"

#include <vector>

#include <gtest/gtest.h>

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
    EXPECT_EQ(budget.refusal(mapOf(1, hostLimit), nullptr), nullptr);
    EXPECT_STREQ(budget.refusal(mapOf(1, hostLimit + 1), nullptr), fullShare);
    budget.take(mapOf(1, hostLimit - 5));
    EXPECT_EQ(budget.refusal(mapOf(1, 5), nullptr), nullptr);
    EXPECT_STREQ(budget.refusal(mapOf(1, 6), nullptr), fullShare);
}

TEST(DescriptionBudget, FullShareHarmsItsOwnerAlone) {
    DescriptionBudget budget;
    budget.take(mapOf(1, hostLimit));
    EXPECT_STREQ(budget.refusal(mapOf(1, 1), nullptr), fullShare);
    EXPECT_EQ(budget.refusal(mapOf(2, hostLimit), nullptr), nullptr);
}

TEST(DescriptionBudget, AllHostsTogetherHaveALimit) {
    DescriptionBudget budget;
    for (std::uint32_t host = 1; host <= 16; ++host) budget.take(mapOf(host, hostLimit));
    EXPECT_STREQ(budget.refusal(mapOf(17, DescriptionBudget::hostFloor + 1), nullptr), fullAtAll);
    budget.giveBack(mapOf(3, hostLimit));
    EXPECT_EQ(budget.refusal(mapOf(17, hostLimit), nullptr), nullptr);
}

TEST(DescriptionBudget, HostGetsALittleThoughOneWithManyAddressesHasTakenAll) {
    constexpr std::size_t floor = DescriptionBudget::hostFloor;
    DescriptionBudget budget;
    for (std::uint32_t host = 1; host <= 16; ++host) budget.take(mapOf(host, hostLimit));
    EXPECT_EQ(budget.refusal(mapOf(17, floor), nullptr), nullptr);
    budget.take(mapOf(17, floor));
    EXPECT_STREQ(budget.refusal(mapOf(17, 1), nullptr), fullAtAll);
    for (std::uint32_t host = 18; host <= 1040; ++host) budget.take(mapOf(host, floor));
    EXPECT_STREQ(budget.refusal(mapOf(2000, 1), nullptr), fullAtAll);
}

TEST(DescriptionBudget, WhatIsReplacedCountsNoMore) {
    DescriptionBudget budget;
    const PortMap old = mapOf(1, hostLimit);
    budget.take(old);
    EXPECT_EQ(budget.refusal(mapOf(1, hostLimit), &old), nullptr);
    EXPECT_STREQ(budget.refusal(mapOf(1, hostLimit + 1), &old), fullShare);
}

TEST(DescriptionBudget, MappingThatAnotherHostChangesCountsToThatHost) {
    DescriptionBudget budget;
    const PortMap old = mapOf(1, hostLimit);
    budget.take(old);
    budget.take(mapOf(2, hostLimit));
    EXPECT_STREQ(budget.refusal(mapOf(2, 1), &old), fullShare);
    EXPECT_EQ(budget.refusal(mapOf(3, hostLimit), &old), nullptr);
}

TEST(DescriptionBudget, WhatIsGivenBackIsThereAgain) {
    DescriptionBudget budget;
    for (int round = 0; round < 40; ++round) {
        ASSERT_EQ(budget.refusal(mapOf(1, hostLimit), nullptr), nullptr) << round;
        budget.take(mapOf(1, hostLimit));
        budget.giveBack(mapOf(1, hostLimit));
    }
}

}  // namespace
