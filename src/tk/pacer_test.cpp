#include "tk/pacer.h"

#include <memory>

#include <gtest/gtest.h>

#include "tk/testing/testloop.h"

namespace tk {
namespace {

struct Owner {
    void act() { ++acts; }

    int acts = 0;
    Pacer<Owner, &Owner::act> pacer{*this};
};

class PacerTest : public ::testing::Test {
protected:
    tk::testing::TestLoop loop;
    std::unique_ptr<Owner> owner = std::make_unique<Owner>();
};

TEST_F(PacerTest, OneCallServesAllWhoAsk) {
    owner->pacer.call(3);
    loop.advance(2);
    owner->pacer.call(3);
    EXPECT_TRUE(owner->pacer.isDue());
    loop.advance(1);
    loop.advance(100);
    EXPECT_EQ(owner->acts, 1);
    EXPECT_FALSE(owner->pacer.isDue());
}

TEST_F(PacerTest, ACallThatIsAskedForAfterwardsIsAnother) {
    owner->pacer.call(1);
    loop.advance(1);
    owner->pacer.call(1);
    loop.advance(1);
    EXPECT_EQ(owner->acts, 2);
}

TEST_F(PacerTest, ARestPutsTheNextCallOff) {
    owner->pacer.rest(std::chrono::seconds(60));
    owner->pacer.call(1);
    loop.advance(3000);
    EXPECT_EQ(owner->acts, 0);
    loop.advance(3001);
    EXPECT_EQ(owner->acts, 1);
}

TEST_F(PacerTest, WhatIsWithdrawnDoesNotCome) {
    owner->pacer.call(1);
    owner->pacer.withdraw();
    EXPECT_FALSE(owner->pacer.isDue());
    loop.advance(10);
    EXPECT_EQ(owner->acts, 0);
}

TEST_F(PacerTest, NothingComesAfterTheOwnersEnd) {
    owner->pacer.call(1);
    owner.reset();
    loop.advance(10);
}

}  // namespace
}  // namespace tk
