#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tk/runner.h"
#include "tk/testing/manualclock.h"

namespace tk::testing {

/// What was called, in order.
using Calls = std::vector<std::string>;

/// Stands for an owner of sockets and timers: notes each call, and does what the test wants of it.
struct Owner {
    Owner(Calls& calls, std::string name) : calls(calls), name(std::move(name)) {}

    void called() {
        calls.push_back(name);
        const std::function<void()> copy = then;  // the call may delete this owner
        if (copy) copy();
    }
    void expired() { called(); }
    void expiredToo() { calls.push_back(name + " too"); }
    void ready(int fd, std::uint32_t events) {
        seen = events;
        descriptor = fd;
        called();
    }
    static void plainTimer(void* object) { static_cast<Owner*>(object)->called(); }
    static void plainSocket(void* object, int fd, std::uint32_t events) {
        static_cast<Owner*>(object)->ready(fd, events);
    }

    Calls& calls;
    std::string name;
    std::function<void()> then;
    std::uint32_t seen = 0;
    int descriptor = -1;
};

/// A connected pair of sockets.
struct Pair {
    Pair() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds), 0);
        near.reset(fds[0]);
        far.reset(fds[1]);
    }
    /// Makes the near end readable.
    void feed() const { EXPECT_EQ(::write(far.get(), "x", 1), 1); }
    Fd near;
    Fd far;
};

/// A runner whose time moves by hand, and three owners that note what reaches them.
class RunnerTest : public ::testing::Test {
protected:
    void watch(int fd, Owner& owner, Runner::Priority priority = Runner::Priority::normal) {
        runner.addSocket<Owner, &Owner::ready>(fd, &owner, readable, priority);
    }
    void arm(Owner& owner, std::uint32_t ticks) { runner.addTimer<Owner, &Owner::expired>(&owner, ticks); }
    /// Moves the clock on by some milliseconds and runs one turn.
    void after(std::uint64_t milliseconds) {
        clock.advance(milliseconds);
        runner.turn(0);
    }

    ManualClock clock;
    Runner runner{clock};
    Calls calls;
    Owner first{calls, "first"};
    Owner second{calls, "second"};
    Owner third{calls, "third"};
};

}  // namespace tk::testing
