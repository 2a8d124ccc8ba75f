#include "tk/runner.h"

#include <functional>
#include <memory>

#include <gmock/gmock.h>

#include "tk/testing/runnertest.h"

namespace tk {
namespace {

using ::testing::ElementsAre;
using tk::testing::Owner;

using RunnerTimers = tk::testing::RunnerTest;

TEST_F(RunnerTimers, CountTicksOfTenMilliseconds) {
    arm(first, 3);
    EXPECT_EQ(runner.untilNextTimer(), 30);
    after(29);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(runner.untilNextTimer(), 1);
    after(1);
    EXPECT_THAT(calls, ElementsAre("first"));
}

TEST_F(RunnerTimers, FireOnce) {
    arm(first, 1);
    after(10);
    after(1000);
    EXPECT_THAT(calls, ElementsAre("first"));
    EXPECT_EQ(runner.timerCount(), 0U);
    EXPECT_EQ(runner.untilNextTimer(), -1);
}

TEST_F(RunnerTimers, OfZeroTicksFireInTheNextTurn) {
    arm(first, 0);
    EXPECT_EQ(runner.untilNextTimer(), 0);
    EXPECT_TRUE(calls.empty());
    runner.turn(-1);
    EXPECT_THAT(calls, ElementsAre("first"));
}

TEST_F(RunnerTimers, FireInTheOrderOfTheirTimes) {
    arm(third, 3);
    arm(first, 1);
    arm(second, 2);
    after(100);
    EXPECT_THAT(calls, ElementsAre("first", "second", "third"));
}

TEST_F(RunnerTimers, DueTogetherFireInTheOrderOfArming) {
    arm(second, 2);
    arm(first, 2);
    arm(third, 2);
    arm(second, 2);  // armed anew: the last one now
    after(20);
    EXPECT_THAT(calls, ElementsAre("first", "third", "second"));
}

TEST_F(RunnerTimers, AreKnownByObjectAndCallback) {
    arm(first, 1);
    runner.addTimer<Owner, &Owner::expiredToo>(&first, 2);
    arm(second, 3);
    EXPECT_EQ(runner.timerCount(), 3U);
    after(30);
    EXPECT_THAT(calls, ElementsAre("first", "first too", "second"));
}

TEST_F(RunnerTimers, ArmedAgainReplaceTheFirstCall) {
    arm(first, 1);
    arm(first, 5);
    EXPECT_EQ(runner.timerCount(), 1U);
    after(10);
    EXPECT_TRUE(calls.empty());
    after(40);
    EXPECT_THAT(calls, ElementsAre("first"));
}

TEST_F(RunnerTimers, AreWithdrawnByObjectAndCallback) {
    arm(first, 1);
    runner.addTimer<Owner, &Owner::expiredToo>(&first, 1);
    runner.removeTimer<Owner, &Owner::expired>(&first);
    runner.removeTimer<Owner, &Owner::expired>(&second);  // unknown: no error
    EXPECT_FALSE((runner.hasTimer<Owner, &Owner::expired>(&first)));
    EXPECT_TRUE((runner.hasTimer<Owner, &Owner::expiredToo>(&first)));
    after(10);
    EXPECT_THAT(calls, ElementsAre("first too"));
}

TEST_F(RunnerTimers, AreGoneBeforeTheirCallbackRuns) {
    bool armed = true;
    first.then = [&] { armed = runner.hasTimer<Owner, &Owner::expired>(&first); };
    arm(first, 1);
    after(10);
    EXPECT_FALSE(armed);
}

TEST_F(RunnerTimers, ArmedAgainByTheirCallbackGoOnFromThere) {
    first.then = [&] { arm(first, 2); };
    arm(first, 1);
    after(10);
    EXPECT_EQ(runner.untilNextTimer(), 20);
    after(19);
    EXPECT_EQ(calls.size(), 1U);
    after(1);
    EXPECT_EQ(calls.size(), 2U);
}

TEST_F(RunnerTimers, ArmedByATimersCallbackWaitForTheNextTurn) {
    first.then = [&] {
        arm(first, 0);
        arm(second, 0);
    };
    arm(first, 0);
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first"));
    first.then = nullptr;
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first", "first", "second"));
}

TEST_F(RunnerTimers, WithdrawnByAnEarlierCallbackOfTheTurnAreNotCalled) {
    first.then = [&] { runner.removeTimer<Owner, &Owner::expired>(&second); };
    arm(first, 1);
    arm(second, 1);
    arm(third, 1);
    after(10);
    EXPECT_THAT(calls, ElementsAre("first", "third"));
}

TEST_F(RunnerTimers, MayDeleteTheirOwnObject) {
    auto owner = std::make_unique<Owner>(calls, "deleted");
    owner->then = [&owner] { owner.reset(); };
    arm(*owner, 1);
    arm(first, 1);
    after(10);
    EXPECT_FALSE(owner);
    EXPECT_THAT(calls, ElementsAre("deleted", "first"));
}

TEST_F(RunnerTimers, TakePlainCallbacksToo) {
    runner.addTimer(&first, &Owner::plainTimer, 1);
    EXPECT_TRUE(runner.hasTimer(&first, &Owner::plainTimer));
    EXPECT_FALSE((runner.hasTimer<Owner, &Owner::expired>(&first)));
    after(10);
    EXPECT_THAT(calls, ElementsAre("first"));
    runner.addTimer(&first, &Owner::plainTimer, 1);
    runner.removeTimer(&first, &Owner::plainTimer);
    after(10);
    EXPECT_THAT(calls, ElementsAre("first"));
}

TEST_F(RunnerTimers, OfTheLongestTimeAreNotDueEarly) {
    arm(first, 0xFFFFFFFF);
    EXPECT_EQ(runner.untilNextTimer(), 3600 * 1000);  // looked at again then
    after(std::uint64_t{0xFFFFFFFF} * 10 - 1);
    EXPECT_TRUE(calls.empty());
    after(1);
    EXPECT_THAT(calls, ElementsAre("first"));
}

}  // namespace
}  // namespace tk
