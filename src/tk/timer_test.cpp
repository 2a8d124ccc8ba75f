#include "tk/timer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include <gtest/gtest.h>

#include "tk/testing/testloop.h"

namespace tk {
namespace {

struct Owner {
    void expired() { ++expiries; }
    void ready(int, std::uint32_t) { ++events; }

    int expiries = 0;
    int events = 0;
    Fd socket;
    Watch watch;
    Timer<Owner, &Owner::expired> timer{*this};
};

class TimerTest : public ::testing::Test {
protected:
    /// Gives the owner a socket that is readable.
    void connect() {
        int fds[2] = {-1, -1};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        owner->socket.reset(fds[0]);
        far.reset(fds[1]);
        ASSERT_EQ(::write(far.get(), "x", 1), 1);
    }
    void startWatch() { owner->watch.start<Owner, &Owner::ready>(owner->socket.get(), *owner, readable); }

    tk::testing::TestLoop loop;
    Fd far;
    std::unique_ptr<Owner> owner = std::make_unique<Owner>();
};

using WatchTest = TimerTest;

TEST_F(TimerTest, CallsItsOwnerOnce) {
    owner->timer.arm(2);
    loop.advance(1);
    EXPECT_EQ(owner->expiries, 0);
    loop.advance(1);
    loop.advance(100);
    EXPECT_EQ(owner->expiries, 1);
}

TEST_F(TimerTest, StartsAnewWhenItIsArmedAgain) {
    owner->timer.arm(2);
    loop.advance(1);
    owner->timer.arm(2);
    loop.advance(1);
    EXPECT_EQ(owner->expiries, 0);
    loop.advance(1);
    EXPECT_EQ(owner->expiries, 1);
    owner->timer.arm(1);
    loop.advance(1);
    EXPECT_EQ(owner->expiries, 2);
}

TEST_F(TimerTest, IsWithdrawnByDisarm) {
    owner->timer.disarm();  // was never armed: no error
    owner->timer.arm(1);
    owner->timer.disarm();
    loop.advance(10);
    EXPECT_EQ(owner->expiries, 0);
}

TEST_F(TimerTest, WithdrawsItselfWhenItIsDestroyed) {
    owner->timer.arm(1);
    ASSERT_EQ(loop.looper.runner().timerCount(), 1U);
    owner.reset();
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
    loop.advance(10);
}

TEST_F(TimerTest, GoesByTheRunnerThatItIsGiven) {
    Runner other(loop.clock);
    Timer<Owner, &Owner::expired> timer{*owner, other};
    timer.arm(1);
    loop.advance(1);
    EXPECT_EQ(owner->expiries, 0);
    other.turn(0);
    EXPECT_EQ(owner->expiries, 1);
}

TEST_F(WatchTest, GoesByTheRunnerThatItIsGiven) {
    connect();
    Runner other(loop.clock);
    Watch watch(other);
    watch.start<Owner, &Owner::ready>(owner->socket.get(), *owner, readable);
    loop.looper.turn(0);
    EXPECT_EQ(owner->events, 0);
    other.turn(0);
    EXPECT_EQ(owner->events, 1);
}

TEST_F(WatchTest, CallsItsOwnerUntilItStops) {
    connect();
    startWatch();
    loop.looper.turn(0);
    EXPECT_EQ(owner->events, 1);
    owner->watch.stop();
    loop.looper.turn(0);
    EXPECT_EQ(owner->events, 1);
    EXPECT_EQ(loop.looper.runner().socketCount(), 0U);
}

TEST_F(WatchTest, FollowsOneDescriptorAtATime) {
    connect();
    startWatch();
    const Fd former(owner->socket.release());
    const Fd formerPeer(far.release());
    connect();
    startWatch();
    EXPECT_EQ(loop.looper.runner().socketCount(), 1U);
    loop.looper.turn(0);
    EXPECT_EQ(owner->events, 1);
}

TEST_F(WatchTest, WithdrawsItselfWhenItIsDestroyed) {
    connect();
    startWatch();
    owner.reset();
    EXPECT_EQ(loop.looper.runner().socketCount(), 0U);
    loop.looper.turn(0);
}

TEST_F(WatchTest, NeverWatchesANegativeDescriptor) {
    startWatch();
    EXPECT_EQ(loop.looper.runner().socketCount(), 0U);
    owner->watch.stop();
    loop.looper.turn(0);
    EXPECT_EQ(owner->events, 0);
}

}  // namespace
}  // namespace tk
