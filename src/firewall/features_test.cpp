#include "firewall/features.h"

#include <linux/netfilter.h>
#include <linux/netlink.h>

#include <gtest/gtest.h>

#include "firewall/objects.h"
#include "tk/testing/commands.h"
#include "tk/testing/privatenetwork.h"

namespace firewall {
namespace {

class FeaturesTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        ASSERT_TRUE(socket.open(NETLINK_NETFILTER).isOk());
    }
    static std::string tables() {
        bool failed = false;
        return tk::testing::run("nft list tables", failed);
    }

    netlink::Socket socket;
};

TEST_F(FeaturesTest, AKernelThatHasThemAllLacksNone) {
    EXPECT_EQ(missingFeature(socket, neededFeatures(), {true, true}), std::nullopt);
    EXPECT_EQ(tables(), "");
}

TEST_F(FeaturesTest, TheFirstThatIsMissingIsNamed) {
    // What no kernel has: a flag of tables, a type of chains, and an expression on a set that is not there.
    const auto drops = [](RuleBuilder& rule) { rule.drop(); };
    const Feature there{"one that is there", ownerFlag, "filter", NF_INET_FORWARD, drops};
    const Feature flag{"the flag", 0x40000000, "filter", NF_INET_FORWARD, drops};
    const Feature type{"the type", 0, "nosuchtype", NF_INET_FORWARD, drops};
    const Feature expression{"the expression", 0, "filter", NF_INET_FORWARD,
                             [](RuleBuilder& rule) { rule.lookUp("nosuchset"); }};
    for (const Feature& missing : {flag, type, expression}) {
        const Feature wanted[] = {there, missing, type};
        EXPECT_EQ(missingFeature(socket, wanted, {}), missing.name);
        EXPECT_EQ(tables(), "");
    }
}

TEST_F(FeaturesTest, WhatIsNotNeededMayBeMissing) {
    const auto looksUp = [](RuleBuilder& rule) { rule.lookUp("nosuchset"); };
    const Feature forIp6[] = {{"for IPv6", 0, "filter", NF_INET_FORWARD, looksUp, nft::ip6, &Extras::ip6}};
    EXPECT_EQ(missingFeature(socket, forIp6, {false, true}), std::nullopt);
    EXPECT_EQ(missingFeature(socket, forIp6, {true, false}), "for IPv6");
    const Feature ofLimit[] = {
        {"the limit", 0, "filter", NF_INET_FORWARD, looksUp, nft::ip4, &Extras::limitsConnections}};
    EXPECT_EQ(missingFeature(socket, ofLimit, {true, false}), std::nullopt);
    EXPECT_EQ(missingFeature(socket, ofLimit, {false, true}), "the limit");
}

}  // namespace
}  // namespace firewall
