#include "tk/fd.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <utility>

#include <gtest/gtest.h>

namespace tk {
namespace {

bool isOpenDescriptor(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

bool isNullDevice(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

int openNull() {
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

TEST(Fd, HoldsNothingByDefault) {
    const Fd none;
    EXPECT_FALSE(none.isOpen());
    EXPECT_EQ(none.get(), -1);
}

TEST(Fd, ClosesItsDescriptorAtTheEnd) {
    const int descriptor = openNull();
    {
        const Fd owner(descriptor);
        EXPECT_TRUE(owner.isOpen());
        EXPECT_TRUE(isOpenDescriptor(descriptor));
    }
    EXPECT_FALSE(isOpenDescriptor(descriptor));
}

TEST(Fd, MovesItsDescriptor) {
    Fd first(openNull());
    const int descriptor = first.get();
    Fd second(std::move(first));
    EXPECT_EQ(second.get(), descriptor);
    Fd third(openNull());
    const int dropped = third.get();
    third = std::move(second);
    EXPECT_EQ(third.get(), descriptor);
    EXPECT_TRUE(isOpenDescriptor(descriptor));
    EXPECT_FALSE(isOpenDescriptor(dropped));
}

TEST(Fd, ReleasedDescriptorsStayOpen) {
    int descriptor = -1;
    {
        Fd owner(openNull());
        descriptor = owner.release();
        EXPECT_FALSE(owner.isOpen());
    }
    EXPECT_TRUE(isOpenDescriptor(descriptor));
    ::close(descriptor);
}

TEST(Fd, ResetClosesTheOldDescriptorAndTakesTheNewOne) {
    Fd owner(openNull());
    const int first = owner.get();
    const int second = openNull();
    owner.reset(second);
    EXPECT_FALSE(isOpenDescriptor(first));
    EXPECT_EQ(owner.get(), second);
    owner.reset();
    EXPECT_FALSE(isOpenDescriptor(second));
}

/// In a child process: closes the standard descriptors in `closed` and reserves them. The exit status tells
/// whether exactly those are now the null device and the next descriptor is above them.
[[noreturn]] void reserveAfterClosing(std::initializer_list<int> closed) {
    bool wasNull[3];
    for (int descriptor = 0; descriptor < 3; ++descriptor) wasNull[descriptor] = isNullDevice(descriptor);
    for (const int descriptor : closed) {
        ::close(descriptor);
        wasNull[descriptor] = true;
    }
    reserveStandardDescriptors();
    for (int descriptor = 0; descriptor < 3; ++descriptor)
        if (!isOpenDescriptor(descriptor) || isNullDevice(descriptor) != wasNull[descriptor])
            ::_exit(10 + descriptor);
    ::_exit(openNull() > STDERR_FILENO ? 0 : 20);
}

TEST(StandardDescriptors, AllThreeClosedAreReserved) {
    EXPECT_EXIT(reserveAfterClosing({0, 1, 2}), ::testing::ExitedWithCode(0), "");
}

TEST(StandardDescriptors, OneClosedIsReservedAndTheOthersAreLeftAlone) {
    EXPECT_EXIT(reserveAfterClosing({0}), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(reserveAfterClosing({1}), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(reserveAfterClosing({2}), ::testing::ExitedWithCode(0), "");
}

/// In a child process with a limit of 20 descriptors out of at most 40: the limit after allowing `count`.
[[noreturn]] void allowOfForty(unsigned count) {
    const rlimit before{20, 40};
    rlimit after{};
    if (::setrlimit(RLIMIT_NOFILE, &before) != 0) ::_exit(1);
    allowDescriptors(count);
    if (::getrlimit(RLIMIT_NOFILE, &after) != 0 || after.rlim_max != 40) ::_exit(2);
    ::_exit(static_cast<int>(after.rlim_cur));
}

TEST(AllowedDescriptors, AreRaisedAsFarAsTheSystemAllowsAndNeverLowered) {
    EXPECT_EXIT(allowOfForty(30), ::testing::ExitedWithCode(30), "");
    EXPECT_EXIT(allowOfForty(1000), ::testing::ExitedWithCode(40), "");
    EXPECT_EXIT(allowOfForty(10), ::testing::ExitedWithCode(20), "");
}

TEST(StandardDescriptors, NoneIsLeftOpenBeyondThem) {
    const int next = openNull();
    ::close(next);
    reserveStandardDescriptors();
    const int again = openNull();
    ::close(again);
    EXPECT_EQ(again, next);
}

}  // namespace
}  // namespace tk
