// With the real kernel, in a network namespace of the test's own.

#include "router/otherdnat.h"

#include <string>

#include <gtest/gtest.h>

#include "router/nfttable.h"
#include "router/testing/commands.h"
#include "tk/testing/privatenetwork.h"

namespace router {
namespace {

struct Chain {
    const char* name;
    const char* text;
    bool counts;
};

constexpr Chain chains[] = {
    {"OfPrerouting", "ip other { type nat hook prerouting priority dstnat; }", true},
    {"OfPreroutingOfBothFamilies", "inet other { type nat hook prerouting priority dstnat; }", true},
    {"OfPreroutingInATableOfOurName", "inet tk { type nat hook prerouting priority dstnat; }", true},
    {"OfPreroutingOfAnotherFamily", "ip6 other { type nat hook prerouting priority dstnat; }", false},
    {"OfOutput", "ip other { type nat hook output priority -100; }", true},
    {"OfPostrouting", "ip other { type nat hook postrouting priority srcnat; }", false},
    {"OfAFilter", "ip other { type filter hook prerouting priority 0; }", false},
    {"WithoutAHook", "ip other", false},
};

class OtherDnatTest : public ::testing::TestWithParam<Chain> {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        bool failed = false;
        EXPECT_EQ(testing::run("nft flush ruleset 2>&1", failed), "");
    }
    void TearDown() override {  // the namespace serves other tests too
        if (IsSkipped()) return;
        bool failed = false;
        EXPECT_EQ(testing::run("nft flush ruleset 2>&1", failed), "");
    }
};

TEST_P(OtherDnatTest, AChainCountsAsTabled) {
    const OtherDnat others;
    NftTable table;
    std::string reason;
    ASSERT_TRUE(table.open(reason)) << reason;
    EXPECT_FALSE(others.mayBe()) << "the router's own";
    std::string place = GetParam().text;
    const std::size_t brace = place.find(" {");
    const std::string content = brace == std::string::npos ? "" : place.substr(brace);
    place = place.substr(0, brace);
    bool failed = false;
    EXPECT_EQ(
        testing::run("nft 'add table " + place + "; add chain " + place + " c" + content + "' 2>&1", failed),
        "");
    EXPECT_EQ(others.mayBe(), GetParam().counts);
}

INSTANTIATE_TEST_SUITE_P(Chains, OtherDnatTest, ::testing::ValuesIn(chains),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace router
