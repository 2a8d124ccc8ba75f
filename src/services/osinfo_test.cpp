#include "services/osinfo.h"

#include <sched.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tk/testing/testloop.h"

namespace gateway {

namespace {

/// Gives the calling thread its own host name, which no other process sees.
bool setPrivateHostName(const std::string& name) {
    return ::unshare(CLONE_NEWUTS) == 0 && ::sethostname(name.data(), name.size()) == 0;
}

TEST(OSInfo, HasFourEventedVariablesAndNoAction) {
    OSInfo service;
    EXPECT_EQ(service.serviceType, "urn:schemas-microsoft-com:service:OSInfo:1");
    EXPECT_EQ(service.getVar("OSMajorVersion"), "2");
    EXPECT_EQ(service.getVar("OSMinorVersion"), "9");
    EXPECT_EQ(service.getVar("OSBuildNumber"), "1234");
    EXPECT_EQ(service.variables.size(), 4u);
    EXPECT_TRUE(service.actions.empty());
    for (const auto& [name, variable] : service.variables) EXPECT_TRUE(variable->evented) << name;
}

TEST(OSInfo, NamesTheMachineOnlyWithUpToThreeCharacters) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root for a host name of its own";
    const std::pair<const char*, const char*> names[] = {
        {"gw", "gw"}, {"abc", "abc"}, {"abcd", ""}, {"gateway", ""}};
    for (const auto& [host, machine] : names) {
        ASSERT_TRUE(setPrivateHostName(host));
        EXPECT_EQ(OSInfo().getVar("OSMachineName"), machine) << host;
    }
}

}  // namespace

}  // namespace gateway
