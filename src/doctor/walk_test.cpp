#include "doctor/walk.h"

#include <gtest/gtest.h>

namespace doctor {
namespace {

Rule ruleWith(Verdict verdict, const std::string& target = {}) {
    Rule rule;
    rule.verdict = verdict;
    rule.target = target;
    rule.text = "rule";
    return rule;
}

/// A rule of which nobody can tell whether it is about the packet.
Rule uncertain(Verdict verdict, const std::string& target = {}) {
    Rule rule = ruleWith(verdict, target);
    rule.conditions.emplace_back();
    return rule;
}

struct WalkTest : testing::Test {
    Outcome outcome() { return walk(table, "base", Packet(), true); }

    Table table{{}, "inet", "filter", {{"base", {}}, {"inner", {}}}, false};
    Chain& base = table.chains["base"];
    Chain& inner = table.chains["inner"];
};

TEST_F(WalkTest, AnEmptyChainDoesAsItsPolicySays) {
    EXPECT_FALSE(outcome().drop);
    base.policyDrops = true;
    base.policyPackets = 3;
    EXPECT_TRUE(outcome().isDropped());
    EXPECT_EQ(outcome().drop, (DropSite{"base", "", 3}));
}

TEST_F(WalkTest, NothingComesAfterACertainVerdict) {
    base.rules = {ruleWith(Verdict::accept), ruleWith(Verdict::drop)};
    EXPECT_FALSE(outcome().drop);
}

TEST_F(WalkTest, AJumpComesBackAndAGotoDoesNot) {
    base.rules = {ruleWith(Verdict::jump, "inner"), ruleWith(Verdict::drop)};
    EXPECT_TRUE(outcome().isDropped());
    base.rules = {ruleWith(Verdict::goTo, "inner"), ruleWith(Verdict::drop)};
    EXPECT_FALSE(outcome().drop);
}

TEST_F(WalkTest, AReturnLeavesItsChainAlone) {
    inner.rules = {ruleWith(Verdict::leave), ruleWith(Verdict::drop)};
    base.rules = {ruleWith(Verdict::jump, "inner"), ruleWith(Verdict::accept)};
    base.policyDrops = true;
    EXPECT_FALSE(outcome().drop);
}

TEST_F(WalkTest, AnUncertainDropBeforeAnAcceptIsADoubt) {
    base.rules = {uncertain(Verdict::drop), ruleWith(Verdict::accept)};
    EXPECT_TRUE(outcome().mayPass);
    EXPECT_TRUE(outcome().drop);
    EXPECT_EQ(outcome().doubt, "rule");
}

TEST_F(WalkTest, AnUncertainDropBeforeACertainOneIsNoDoubt) {
    base.rules = {uncertain(Verdict::drop)};
    base.policyDrops = true;
    EXPECT_TRUE(outcome().isDropped());
    EXPECT_EQ(outcome().drop->rule, "");  // the one that certainly drops
}

TEST_F(WalkTest, AnUncertainJumpMayLeadToADrop) {
    inner.rules = {ruleWith(Verdict::drop)};
    base.rules = {uncertain(Verdict::jump, "inner")};
    EXPECT_TRUE(outcome().mayPass);
    EXPECT_EQ(outcome().drop->chain, "inner");
}

TEST_F(WalkTest, AnUncertainJumpToAnAcceptIsNoAllClear) {
    inner.rules = {ruleWith(Verdict::accept)};
    base.rules = {uncertain(Verdict::jump, "inner")};
    base.policyDrops = true;
    EXPECT_TRUE(outcome().mayPass);
    EXPECT_TRUE(outcome().drop);
}

TEST_F(WalkTest, AChainThatIsNotThereIsADoubt) {
    base.rules = {ruleWith(Verdict::jump, "nowhere")};
    EXPECT_TRUE(outcome().mayPass);
    EXPECT_TRUE(outcome().drop);
}

TEST_F(WalkTest, ManyJumpsTakeNoLongerThanTheirChains) {
    constexpr int depth = 15, jumps = 50;
    for (int level = 0; level < depth; ++level)
        for (int jump = 0; jump < jumps; ++jump)
            table.chains["c" + std::to_string(level)].rules.push_back(
                ruleWith(Verdict::jump, "c" + std::to_string(level + 1)));
    table.chains["c" + std::to_string(depth)].rules = {ruleWith(Verdict::drop)};
    base.rules = {ruleWith(Verdict::jump, "c0")};
    EXPECT_TRUE(outcome().isDropped());
}

}  // namespace
}  // namespace doctor
