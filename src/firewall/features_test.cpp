#include "firewall/features.h"

#include <linux/netfilter.h>
#include <linux/netlink.h>

#include <gtest/gtest.h>

#include "firewall/objects.h"
#include "tk/testing/commands.h"
#include "tk/testing/privatenetwork.h"

namespace router {
namespace {

class NftFeaturesTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        ASSERT_TRUE(socket.open(NETLINK_NETFILTER).isOk());
    }
    static std::string tables() {
        bool failed = false;
        return testing::run("nft list tables", failed);
    }

    netlink::Socket socket;
};

TEST_F(NftFeaturesTest, AKernelThatHasThemAllLacksNone) {
    EXPECT_EQ(missingFeature(socket, nftFeatures(), true), "");
    EXPECT_EQ(tables(), "");
}

TEST_F(NftFeaturesTest, TheFirstThatIsMissingIsNamed) {
    // What no kernel has: a flag of tables, a type of chains, and an expression on a set that is not there.
    const auto drops = [](NftRuleBuilder& rule) { rule.drop(); };
    const NftFeature there{"one that is there", ownerFlag, "filter", NF_INET_FORWARD, drops};
    const NftFeature flag{"the flag", 0x40000000, "filter", NF_INET_FORWARD, drops};
    const NftFeature type{"the type", 0, "nosuchtype", NF_INET_FORWARD, drops};
    const NftFeature expression{"the expression", 0, "filter", NF_INET_FORWARD,
                                [](NftRuleBuilder& rule) { rule.lookUp("nosuchset"); }};
    for (const NftFeature& missing : {flag, type, expression}) {
        const NftFeature wanted[] = {there, missing, type};
        EXPECT_EQ(missingFeature(socket, wanted, true), missing.name);
        EXPECT_EQ(tables(), "");
    }
}

}  // namespace
}  // namespace router
