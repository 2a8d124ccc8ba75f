// What the loop of a process does where the kernel gives it no more than part of what it needs.
#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "faults/injection.h"
#include "tk/looper.h"
#include "tk/testing/runnertest.h"

namespace faults {

namespace {

using tk::testing::Calls;
using tk::testing::Pair;

using LoopFaults = tk::testing::RunnerTest;

TEST_F(LoopFaults, ASocketThatCouldNotBeWatchedIsWatchedLater) {
    for (const auto priority : {tk::Runner::Priority::normal, tk::Runner::Priority::urgent}) {
        const Pair pair;
        pair.feed();
        begin({Call::epollAdd, 1, ENOSPC});
        {
            const InProgram here;
            watch(pair.near.get(), first, priority);
        }
        (void)end();
        calls.clear();
        after(99);
        EXPECT_EQ(calls, Calls());
        after(1);
        runner.turn(0);
        EXPECT_EQ(calls, Calls({"first"}));
        runner.removeSocket(pair.near.get());
    }
}

TEST_F(LoopFaults, ASocketThatCouldNotBeWatchedCanGetAnotherOwner) {
    const Pair pair;
    pair.feed();
    begin({Call::epollAdd, 1, ENOSPC});
    {
        const InProgram here;
        watch(pair.near.get(), first);
        watch(pair.near.get(), second);
    }
    (void)end();
    runner.turn(0);
    EXPECT_EQ(calls, Calls({"second"}));
    after(100);
    EXPECT_EQ(calls, Calls({"second", "second"}));
}

TEST_F(LoopFaults, ASocketThatIsGoneBeforeItCouldBeWatchedIsForgotten) {
    const Pair pair;
    pair.feed();
    begin({Call::epollAdd, 1, ENOMEM});
    {
        const InProgram here;
        watch(pair.near.get(), first);
    }
    runner.removeSocket(pair.near.get());
    begin();
    {
        const InProgram here;
        after(100);
        after(100);
    }
    EXPECT_EQ(end()[static_cast<std::size_t>(Call::epollAdd)], 0U);
    EXPECT_EQ(calls, Calls());
    EXPECT_EQ(runner.timerCount(), 0U);
}

TEST_F(LoopFaults, ASocketThatStillCannotBeWatchedIsTriedAgain) {
    const Pair pair;
    pair.feed();
    for (int tries = 0; tries < 3; ++tries) {
        begin({Call::epollAdd, 1, ENOMEM});
        {
            const InProgram here;
            if (tries == 0) watch(pair.near.get(), first);
            after(tries == 0 ? 0 : 100);
        }
        EXPECT_EQ(end()[static_cast<std::size_t>(Call::epollAdd)], 1U);
    }
    after(100);
    runner.turn(0);
    EXPECT_EQ(calls, Calls({"first"}));
    EXPECT_EQ(runner.timerCount(), 0U);
}

[[noreturn]] void startWithout(Call call, std::uint32_t number) {
    begin({call, number, EMFILE});
    const InProgram here;
    tk::Looper looper;
    ::kill(::getpid(), SIGTERM);
    looper.run();
    ::_exit(7);
}

TEST(LoopFaultsAtStart, AProcessThatCannotWatchSocketsEnds) {
    for (const std::uint32_t number : {1U, 2U})
        EXPECT_EXIT(startWithout(Call::epollCreate, number), testing::ExitedWithCode(1), "");
}

TEST(LoopFaultsAtStart, AProcessThatCannotWatchForSignalsIsEndedByThem) {
    EXPECT_EXIT(startWithout(Call::signalfd, 1), testing::KilledBySignal(SIGTERM), "");
}

}  // namespace

}  // namespace faults
