// The runner's sockets. Its timers are in runner_test.cpp.

#include "tk/runner.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>

#include <gmock/gmock.h>

#include "tk/log.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/runnertest.h"

namespace tk {
namespace {

using ::testing::ElementsAre;
using tk::testing::Calls;
using tk::testing::Owner;
using tk::testing::Pair;

using RunnerSockets = tk::testing::RunnerTest;

TEST_F(RunnerSockets, AreCalledWhenTheyAreReady) {
    const Pair pair;
    watch(pair.near.get(), first);
    runner.turn(0);
    EXPECT_TRUE(calls.empty());
    pair.feed();
    runner.turn(-1);
    EXPECT_THAT(calls, ElementsAre("first"));
    EXPECT_EQ(first.descriptor, pair.near.get());
    EXPECT_EQ(first.seen, readable);
}

TEST_F(RunnerSockets, AreCalledOnlyForWhatTheyAreWatchedFor) {
    const Pair pair;
    pair.feed();
    runner.addSocket<Owner, &Owner::ready>(pair.near.get(), &first, writable);
    runner.turn(0);
    EXPECT_EQ(first.seen, writable);
    runner.addSocket<Owner, &Owner::ready>(pair.near.get(), &second, readable | writable);
    runner.turn(0);
    EXPECT_EQ(second.seen, readable | writable);
    EXPECT_THAT(calls, ElementsAre("first", "second"));
}

TEST_F(RunnerSockets, ThatHangUpCountAsReady) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const Fd reader(ends[0]);
    watch(reader.get(), first);
    ::close(ends[1]);  // an empty pipe without a writer hangs up and never gets readable
    runner.turn(0);
    EXPECT_EQ(first.seen, readable);
}

TEST_F(RunnerSockets, AddedAgainReplaceTheFirstRegistration) {
    const Pair pair;
    watch(pair.near.get(), first);
    watch(pair.near.get(), second);
    EXPECT_EQ(runner.socketCount(), 1U);
    pair.feed();
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("second"));
}

TEST_F(RunnerSockets, TakePlainCallbacksToo) {
    const Pair pair;
    runner.addSocket(pair.near.get(), &first, &Owner::plainSocket, readable);
    pair.feed();
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first"));
}

TEST_F(RunnerSockets, NegativeDescriptorsAreNeverWatched) {
    watch(-1, first);
    EXPECT_EQ(runner.socketCount(), 0U);
    runner.removeSocket(-1);
    runner.turn(0);
    EXPECT_TRUE(calls.empty());
}

TEST_F(RunnerSockets, ThatWereRemovedAreNotCalled) {
    const Pair pair;
    watch(pair.near.get(), first);
    pair.feed();
    runner.removeSocket(pair.near.get());
    runner.removeSocket(pair.near.get());  // unknown now: no error
    runner.turn(0);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(runner.socketCount(), 0U);
}

TEST_F(RunnerSockets, ThatRestAreCalledAgainAfterAHundredMilliseconds) {
    for (const auto priority : {Runner::Priority::normal, Runner::Priority::urgent}) {
        const Pair resting, pairs[2];  // urgent sockets are looked at again between two others
        watch(resting.near.get(), second, priority);
        resting.feed();
        second.then = [&] { runner.restSocket(resting.near.get()); };
        for (const Pair& pair : pairs) {
            watch(pair.near.get(), first);
            pair.feed();
        }
        runner.turn(0);
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "second"), 1);
        for (const Pair& pair : pairs) runner.removeSocket(pair.near.get());
        calls.clear();
        after(99);
        EXPECT_TRUE(calls.empty());
        after(1);
        runner.turn(0);
        EXPECT_THAT(calls, ElementsAre("second"));
        runner.removeSocket(resting.near.get());
        after(100);
        calls.clear();
    }
    EXPECT_EQ(runner.timerCount(), 0U);
}

TEST_F(RunnerSockets, ThatRestStayRegisteredUntilTheyAreRemoved) {
    const Pair pair;
    runner.restSocket(pair.near.get());  // unknown: no error
    watch(pair.near.get(), first);
    pair.feed();
    runner.restSocket(pair.near.get());
    EXPECT_EQ(runner.socketCount(), 1U);
    runner.removeSocket(pair.near.get());
    EXPECT_EQ(runner.socketCount(), 0U);
    after(100);
    runner.turn(0);
    EXPECT_TRUE(calls.empty());
}

TEST_F(RunnerSockets, ThatAreAddedAgainRestNoLonger) {
    const Pair pair;
    watch(pair.near.get(), first);
    pair.feed();
    runner.restSocket(pair.near.get());
    watch(pair.near.get(), second);
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("second"));
}

TEST_F(RunnerSockets, WhatIsUrgentIsServedFirst) {
    const Pair pairs[4];
    watch(pairs[0].near.get(), first);
    watch(pairs[1].near.get(), second, Runner::Priority::urgent);
    watch(pairs[2].near.get(), first);
    watch(pairs[3].near.get(), third, Runner::Priority::urgent);
    for (const Pair& pair : pairs) pair.feed();
    second.then = [this] { runner.removeSocket(second.descriptor); };
    third.then = [this] { runner.removeSocket(third.descriptor); };
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("second", "third", "first", "first"));
}

TEST_F(RunnerSockets, WhatGetsUrgentMeanwhileIsServedBetweenTwoOthers) {
    const Pair listener, pairs[3];
    watch(listener.near.get(), second, Runner::Priority::urgent);
    for (const Pair& pair : pairs) {
        watch(pair.near.get(), first);
        pair.feed();
    }
    first.then = [&] {
        runner.removeSocket(first.descriptor);
        if (calls.size() == 1) listener.feed();
    };
    second.then = [&] { runner.removeSocket(listener.near.get()); };
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first", "second", "first", "first"));
}

TEST_F(RunnerSockets, ThatAreNoLongerUrgentAreCalledOnceATurn) {
    const Pair former, pairs[2];
    watch(former.near.get(), second, Runner::Priority::urgent);
    watch(former.near.get(), second);
    former.feed();
    for (const Pair& pair : pairs) {
        watch(pair.near.get(), first);
        pair.feed();
    }
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("second", "first", "first"));
}

TEST_F(RunnerSockets, ForgottenJustBeforeTheyCloseAreNotCalled) {
    Pair pair;
    watch(pair.near.get(), first);
    pair.feed();
    runner.forgetSocket(pair.near.get());
    EXPECT_EQ(runner.socketCount(), 0U);
    pair.near.reset();
    runner.turn(0);
    EXPECT_TRUE(calls.empty());
}

TEST_F(RunnerSockets, LinesOfACallGoOutAtItsEnd) {
    const Pair pairs[2];
    for (const Pair& pair : pairs) {
        watch(pair.near.get(), first);
        pair.feed();
    }
    std::string before, between;
    const tk::testing::CapturedOutput output;
    first.then = [&] {
        runner.removeSocket(first.descriptor);
        if (calls.size() == 2) between = output.text();
        log("one");
        log("two");
        if (calls.size() == 1) before = output.text();
    };
    runner.turn(0);
    EXPECT_EQ(before, "");
    EXPECT_EQ(between, "one\ntwo\n");
    EXPECT_EQ(output.text(), "one\ntwo\none\ntwo\n");
}

TEST_F(RunnerSockets, ThatTakeLongLeaveTheRestOfTheTurnToTimersAndTheNextTurnToTheOthers) {
    const Pair pairs[3];
    for (const Pair& pair : pairs) {
        watch(pair.near.get(), first);
        pair.feed();
    }
    first.then = [this] {
        clock.advance(60);
        runner.removeSocket(first.descriptor);
    };
    arm(second, 1);
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first", "first", "second"));
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first", "first", "second", "first"));
}

TEST_F(RunnerSockets, AreServedBeforeTimers) {
    const Pair pair;
    watch(pair.near.get(), first);
    arm(second, 0);
    pair.feed();
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first", "second"));
}

TEST_F(RunnerSockets, MayDeleteTheirOwnObject) {
    const Pair pair;
    auto owner = std::make_unique<Owner>(calls, "deleted");
    owner->then = [&] {
        runner.removeSocket(pair.near.get());
        owner.reset();
    };
    watch(pair.near.get(), *owner);
    pair.feed();
    runner.turn(0);
    runner.turn(0);
    EXPECT_FALSE(owner);
    EXPECT_THAT(calls, ElementsAre("deleted"));
}

/// Two ready descriptors, the first of which is served first and does something to the second.
class RunnerGenerations : public tk::testing::RunnerTest {
protected:
    void serve(std::function<void()> then) {
        first.then = std::move(then);
        watch(one.near.get(), first, Runner::Priority::urgent);
        watch(other.near.get(), second);
        one.feed();
        other.feed();
        runner.turn(0);
    }
    Pair one;
    Pair other;
};

TEST_F(RunnerGenerations, EventOfARemovedDescriptorReachesNobody) {
    serve([&] { runner.removeSocket(other.near.get()); });
    EXPECT_THAT(calls, ElementsAre("first"));
}

TEST_F(RunnerGenerations, EventOfAClosedDescriptorReachesNobody) {
    serve([&] {
        runner.removeSocket(other.near.get());
        other.near.reset();
    });
    runner.turn(0);
    EXPECT_EQ(calls, Calls({"first", "first"}));
}

TEST_F(RunnerGenerations, EventOfAReusedDescriptorDoesNotReachItsNewOwner) {
    const Pair fresh;
    serve([&] {
        const int number = other.near.get();
        runner.removeSocket(number);
        EXPECT_EQ(::dup2(fresh.near.get(), number), number);  // closes it and uses its number again
        watch(number, third);
    });
    EXPECT_THAT(calls, ElementsAre("first"));
    runner.removeSocket(one.near.get());
    fresh.feed();
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first", "third"));
}

TEST_F(RunnerGenerations, EventOfAReusedDescriptorReachesNobodyEvenWhenItsRemovalWasForgotten) {
    const Pair fresh;
    serve([&] {
        EXPECT_EQ(::dup2(fresh.near.get(), other.near.get()), other.near.get());
        watch(other.near.get(), third);
    });
    EXPECT_THAT(calls, ElementsAre("first"));
    runner.removeSocket(one.near.get());
    fresh.feed();
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first", "third"));
}

TEST_F(RunnerGenerations, DescriptorThatIsAddedAgainWaitsForTheNextTurn) {
    serve([&] {
        runner.removeSocket(other.near.get());
        watch(other.near.get(), third);
    });
    EXPECT_THAT(calls, ElementsAre("first"));
    runner.removeSocket(one.near.get());
    runner.turn(0);
    EXPECT_THAT(calls, ElementsAre("first", "third"));
}

}  // namespace
}  // namespace tk
