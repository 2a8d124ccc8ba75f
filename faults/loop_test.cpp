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
using tk::testing::Owner;
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
            watch(pair.near.get(), second, priority);  // another owner while it waits
        }
        (void)end();
        calls.clear();
        runner.turn(0);
        EXPECT_EQ(calls, Calls({"second"}));
        runner.removeSocket(pair.near.get());
    }
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
        runner.turn(0);
        runner.turn(0);
    }
    EXPECT_EQ(end()[static_cast<std::size_t>(Call::epollAdd)], 0U);
    EXPECT_EQ(calls, Calls());
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
