#include "tk/platform.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <gtest/gtest.h>

namespace tk {
namespace {

TEST(Platform, VersionIsTheKernelsRelease) {
    utsname system{};
    ASSERT_EQ(uname(&system), 0);
    EXPECT_EQ(getOSVersion(), system.release);
    EXPECT_NE(getOSVersion(), "");
}

TEST(Platform, UptimeIsInSecondsSinceTheStartOfTheSystem) {
    struct sysinfo before {};
    struct sysinfo after {};
    ASSERT_EQ(sysinfo(&before), 0);
    const std::uint32_t uptime = getUptime();
    ASSERT_EQ(sysinfo(&after), 0);
    // The system may round its own seconds up.
    EXPECT_GE(static_cast<long>(uptime) + 1, before.uptime);
    EXPECT_LE(static_cast<long>(uptime), after.uptime);
}

}  // namespace
}  // namespace tk
