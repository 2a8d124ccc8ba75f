#include "nat/rule.h"

#include <functional>

#include <gtest/gtest.h>

#include "nat/testing/natrequest.h"

namespace nat {
namespace {

using links::testing::address;
using testing::natRequest;

TEST(NewRule, TakesTheGatewaysRequest) {
    const auto rule = newRule(natRequest(80, "192.0.2.2", 8080));
    ASSERT_TRUE(rule.isOk()) << rule.reason();
    EXPECT_EQ(rule->key, (NatKey{address("198.51.100.1"), 6, 80}));
    EXPECT_EQ(rule->target, (NatTarget{address("192.0.2.2"), 8080}));
    EXPECT_TRUE(rule->dynamic);
    EXPECT_FALSE(rule->disabled);
}

TEST(NewRule, ARecordReadsBackAsItsRuleButForTheId) {
    Rule rule;
    rule.id = 7;
    rule.disabled = true;
    rule.key = {address("198.51.100.1"), 17, 0};
    rule.target = {address("192.0.2.2"), 65535};
    const auto copy = newRule(rule.toMessage());
    ASSERT_TRUE(copy.isOk()) << copy.reason();
    rule.id = 0;
    EXPECT_EQ(*copy, rule);
}

TEST(ChangedRule, KeepsWhatTheRequestDoesNotName) {
    auto rule = newRule(natRequest(80, "192.0.2.2", 8080));
    ASSERT_TRUE(rule.isOk()) << rule.reason();
    rule->id = 7;
    rule->owner = 80;
    tk::message change;
    change.insert_bool(tk::field::dynamic, false);
    change.insert_bool(tk::field::disabled, true);
    change.insert_be32(1000, address("192.0.2.3"));
    change.insert_be32(1001, address("192.0.2.3"));
    const auto changed = changedRule(*rule, change);
    ASSERT_TRUE(changed.isOk()) << changed.reason();
    Rule expected = *rule;
    expected.disabled = true;
    expected.target.address = address("192.0.2.3");
    EXPECT_EQ(*changed, expected);
}

struct Case {
    const char* name;
    void (*spoil)(tk::message& request);
    const char* reason;
};

constexpr Case cases[] = {
    {"OtherChain", [](tk::message& r) { r.insert_string(39, "srcnat"); },
     "chain \"srcnat\" is not supported, only \"dstnat\""},
    {"NoChain", [](tk::message& r) { r.remove(39); }, "chain \"\" is not supported, only \"dstnat\""},
    {"OtherAction", [](tk::message& r) { r.insert_u32(40, 1); },
     "action 1 is not supported, only 22 (destination NAT)"},
    {"OtherProtocol", [](tk::message& r) { r.insert_u32(11, 1); },
     "protocol 1 is not supported, only 6 (TCP) and 17 (UDP)"},
    {"PortRange", [](tk::message& r) { r.insert_u32(10, 90); },
     "the destination port: ranges are not supported"},
    {"PortAbove", [](tk::message& r) { r.insert_u32(9, 65536), r.insert_u32(10, 65536); },
     "the destination port 65536 is above 65535"},
    {"PortMissing", [](tk::message& r) { r.remove(9); }, "the destination port is missing"},
    {"AddressRange", [](tk::message& r) { r.insert_be32(53, address("198.51.100.2")); },
     "the destination address: ranges are not supported"},
    {"AddressOfAnotherType", [](tk::message& r) { r.insert_string(52, "198.51.100.1"); },
     "the destination address is missing"},
    {"AnyDestination", [](tk::message& r) { r.insert_bool(419, false); },
     "the destination address cannot be left open"},
    {"AnyProtocol", [](tk::message& r) { r.insert_bool(404, false); }, "the protocol cannot be left open"},
    {"TargetRange", [](tk::message& r) { r.insert_be32(1001, address("192.0.2.9")); },
     "the target address: ranges are not supported"},
    {"TargetPortRange", [](tk::message& r) { r.insert_u32(1003, 9); },
     "the target port: ranges are not supported"},
    {"Owner", [](tk::message& r) { r.insert_u32(1102, 80); }, "field 1102 is not supported"},
    {"UnknownCondition", [](tk::message& r) { r.insert_string(60, "wan0"); }, "field 60 is not supported"},
};

class RefusedRule : public ::testing::TestWithParam<Case> {};

TEST_P(RefusedRule, SaysWhy) {
    tk::message request = natRequest(80, "192.0.2.2", 8080);
    GetParam().spoil(request);
    const auto rule = newRule(request);
    EXPECT_FALSE(rule.isOk());
    EXPECT_EQ(rule.reason(), GetParam().reason);
    EXPECT_EQ(rule.status().code(), tk::error::invalid);
}

INSTANTIATE_TEST_SUITE_P(Requests, RefusedRule, ::testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace nat
