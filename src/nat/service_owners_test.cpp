// The end of dynamic rules: they go with their owner.

#include "nat/service.h"

#include <gtest/gtest.h>

#include "nat/testing/servicetest.h"

namespace nat {
namespace {

using testing::natRequest;
using testing::ServiceTest;

TEST_F(ServiceTest, DynamicRulesGoWithTheirOwnerInOneTransaction) {
    addMany(5);
    add(natRequest(6, "192.0.2.2", 6, 6, {1000}));
    add(lasting(7));
    const int before = kernel.transactions;
    EXPECT_FALSE(tk::isError(nat.cmdDisconnected({80})));
    EXPECT_EQ(kernel.transactions, before + 1);
    EXPECT_EQ(count(), 2U);
    EXPECT_FALSE(kernel.find("198.51.100.1", 6, 1));
    EXPECT_TRUE(kernel.find("198.51.100.1", 6, 6));
    EXPECT_FALSE(tk::isError(nat.cmdDisconnected({80})));
    EXPECT_EQ(kernel.transactions, before + 1);
}

TEST_F(ServiceTest, RulesThatCannotGoWithTheirOwnerAreTriedAgainEachSecond) {
    add(natRequest(1, "192.0.2.2", 1));
    add(natRequest(2, "192.0.2.2", 2));
    kernel.fault = "Cannot allocate memory";
    std::string text;
    EXPECT_TRUE(tk::isError(nat.cmdDisconnected({80}), nullptr, &text));
    EXPECT_EQ(text, kernel.fault);
    loop.advance(350);
    EXPECT_EQ(count(), 2U);
    EXPECT_EQ(kernel.elements.size(), 2U);
    const int before = kernel.transactions;
    bus.posted.clear();
    kernel.fault.clear();
    loop.advance(49);
    EXPECT_EQ(count(), 2U);
    loop.advance(1);
    EXPECT_EQ(count(), 0U);
    EXPECT_TRUE(kernel.elements.empty());
    EXPECT_EQ(kernel.transactions, before + 1);
    ASSERT_EQ(bus.posted.size(), 1U);
    EXPECT_EQ(bus.posted.front().size_message_array(tk::field::objects), 2U);
    loop.advance(1000);
    EXPECT_EQ(kernel.transactions, before + 1);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
}

TEST_F(ServiceTest, ManyRulesGoWithTheirOwnerInTransactionsOfBoundedSize) {
    addMany(5000);
    add(natRequest(6000, "192.0.2.2", 6000, 6, {1000}));
    kernel.largest = 2048;
    bus.posted.clear();
    EXPECT_FALSE(tk::isError(nat.cmdDisconnected({80})));
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(kernel.elements.size(), 1U);
    std::size_t told = 0;
    for (const tk::message& notification : bus.posted)
        told += notification.size_message_array(tk::field::objects);
    EXPECT_EQ(told, 5000U);
}

TEST_F(ServiceTest, WhatOneTransactionTookOutStaysOutWhenTheNextIsRefused) {
    addMany(3000);
    kernel.transactionsLeft = 1;
    EXPECT_TRUE(tk::isError(nat.cmdDisconnected({80})));
    EXPECT_EQ(count(), 3000U - 2048U);
    EXPECT_EQ(kernel.elements.size(), 3000U - 2048U);
    kernel.transactionsLeft.reset();
    loop.advance(100);
    EXPECT_EQ(count(), 0U);
    EXPECT_TRUE(kernel.elements.empty());
}

TEST_F(ServiceTest, AProgramThatComesBackKeepsItsNewRulesWhenTheOldOnesGo) {
    add(natRequest(1, "192.0.2.2", 1));
    kernel.fault = "Cannot allocate memory";
    EXPECT_TRUE(tk::isError(nat.cmdDisconnected({80})));
    kernel.fault.clear();
    const std::uint32_t kept = add(natRequest(2, "192.0.2.2", 2));
    loop.advance(100);
    EXPECT_EQ(count(), 1U);
    EXPECT_FALSE(tk::isError(nat.cmdGetObj(ofId(kept))));
    EXPECT_TRUE(kernel.find("198.51.100.1", 6, 2));
    EXPECT_FALSE(kernel.find("198.51.100.1", 6, 1));
}

TEST_F(ServiceTest, RulesThatOutlivedTheirOwnerAreRemovedInTheirLatestForm) {
    const std::uint32_t removed = add(natRequest(1, "192.0.2.2", 1));
    const std::uint32_t disabled = add(natRequest(2, "192.0.2.2", 2));
    const std::uint32_t moved = add(natRequest(3, "192.0.2.2", 3));
    kernel.fault = "Cannot allocate memory";
    EXPECT_TRUE(tk::isError(nat.cmdDisconnected({80})));
    kernel.fault.clear();
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(ofId(removed))));
    tk::message change = ofId(disabled);
    change.insert_bool(tk::field::disabled, true);
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(change)));
    change = ofId(moved);
    change.insert_u32(9, 4);
    change.insert_u32(10, 4);
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(change)));
    ASSERT_TRUE(kernel.find("198.51.100.1", 6, 4));
    loop.advance(100);
    EXPECT_EQ(count(), 0U);
    EXPECT_TRUE(kernel.elements.empty());
}

}  // namespace
}  // namespace nat
