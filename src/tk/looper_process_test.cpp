// What the loop does to its whole process: signals and standard descriptors. Each test is a child process.

#include "tk/looper.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

namespace tk {
namespace {

/// Runs a loop, sends it signal `number`, then ends with a status that is reached in no other way.
[[noreturn]] void endBySignal(int number) {
    Looper looper;
    ::kill(::getpid(), number);
    looper.run();
    ::_exit(7);
}

/// The same, but a second signal comes before the process is done.
[[noreturn]] void endBySecondSignal(int first, int second) {
    Looper looper;
    ::kill(::getpid(), first);
    looper.run();
    ::kill(::getpid(), second);
    ::_exit(7);
}

TEST(LooperProcess, TerminationEndsTheLoopInOrder) {
    EXPECT_EXIT(endBySignal(SIGTERM), ::testing::ExitedWithCode(7), "");
}

TEST(LooperProcess, InterruptEndsTheLoopInOrder) {
    EXPECT_EXIT(endBySignal(SIGINT), ::testing::ExitedWithCode(7), "");
}

TEST(LooperProcess, SecondSignalEndsTheProcessAtOnce) {
    EXPECT_EXIT(endBySecondSignal(SIGTERM, SIGTERM), ::testing::KilledBySignal(SIGTERM), "");
    EXPECT_EXIT(endBySecondSignal(SIGINT, SIGINT), ::testing::KilledBySignal(SIGINT), "");
    EXPECT_EXIT(endBySecondSignal(SIGTERM, SIGINT), ::testing::KilledBySignal(SIGINT), "");
}

[[noreturn]] void leaveAfterOneTick() {
    Looper looper(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const std::uint64_t start = looper.runner().now();
    looper.setupLeave(1);
    looper.run();
    ::_exit(looper.runner().now() - start >= 10 ? 7 : 8);
}

TEST(LooperProcess, LeavesByTheSystemsClock) {
    EXPECT_EXIT(leaveAfterOneTick(), ::testing::ExitedWithCode(7), "");
}

[[noreturn]] void writeToNobody() {
    ::signal(SIGPIPE, SIG_DFL);
    const Looper looper;
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) ::_exit(8);
    ::close(ends[0]);
    ::_exit(::write(ends[1], "x", 1) < 0 && errno == EPIPE ? 7 : 9);
}

TEST(LooperProcess, WritingToAPeerThatIsGoneDoesNotEndIt) {
    EXPECT_EXIT(writeToNobody(), ::testing::ExitedWithCode(7), "");
}

[[noreturn]] void startWithoutStandardDescriptors() {
    for (int descriptor = 0; descriptor < 3; ++descriptor) ::close(descriptor);
    const Looper looper;
    for (int descriptor = 0; descriptor < 3; ++descriptor) {
        struct stat status {};
        const bool reserved =
            ::fstat(descriptor, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
        if (!reserved) ::_exit(10 + descriptor);
    }
    ::_exit(7);
}

TEST(LooperProcess, NothingOfTheLoopTakesAStandardDescriptorThatWasClosed) {
    EXPECT_EXIT(startWithoutStandardDescriptors(), ::testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace tk
