#include "nat/policy.h"

#include <gtest/gtest.h>

#include "links/testing/fakekernel.h"

namespace nat {
namespace {

using links::testing::address;

struct Case {
    const char* name;
    const char* target;
    const char* fault;  // empty: allowed
};

constexpr Case cases[] = {
    {"LanHost", "192.0.2.2", ""},
    {"Nobody", "0.0.0.0", "no host has this address"},
    {"Loopback", "127.0.0.1", "it is a loopback address"},
    {"LoopbackHighest", "127.255.255.255", "it is a loopback address"},
    {"MulticastLowest", "224.0.0.0", "it is a multicast address"},
    {"MulticastHighest", "239.255.255.255", "it is a multicast address"},
    {"Broadcast", "255.255.255.255", "it is the broadcast address"},
    {"BroadcastOfTheLan", "192.0.2.255", "it is a broadcast address"},
    {"TheLanItself", "192.0.2.0", "it is the address of a network itself"},
    {"TheRouterInTheLan", "192.0.2.1", "it is an address of the router itself"},
    {"TheRouterOutside", "198.51.100.1", "it is an address of the router itself"},
    {"NeighbourOutside", "198.51.100.9", "it is in the network of wan0, which is outside"},
    {"Internet", "1.1.1.1", "it is in no network inside"},
    {"BehindTheLan", "10.0.0.1", "it is in no network inside"},
};

class PolicyTest : public ::testing::Test {
protected:
    links::testing::FakeZones world;
    Policy policy{world.zones};
};

class TabledPolicyTest : public PolicyTest, public ::testing::WithParamInterface<Case> {};

TEST_P(TabledPolicyTest, AnswersAsTabled) {
    const tk::Status answer =
        policy.allows({{address("198.51.100.1"), 6, 80}, {address(GetParam().target), 80}});
    const std::string fault = GetParam().fault;
    EXPECT_EQ(answer.isOk(), fault.empty());
    EXPECT_EQ(answer.reason(),
              fault.empty() ? "" : std::string("target ") + GetParam().target + " refused: " + fault);
}

INSTANTIATE_TEST_SUITE_P(Targets, TabledPolicyTest, ::testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

class ConfiguredPolicyTest : public PolicyTest {
protected:
    std::string answer(const char* target, std::uint16_t port = 80, std::uint16_t targetPort = 80) {
        const firewall::Element element{{address("198.51.100.1"), 6, port}, {address(target), targetPort}};
        return Policy(world.zones, config).allows(element).reason();
    }
    std::string room(std::size_t total, std::size_t ofTarget) {
        return Policy(world.zones, config).hasRoom(total, ofTarget, address("192.0.2.2")).reason();
    }
    Config config;
};

TEST_F(PolicyTest, ARuleForNoAddressWouldNeverMatch) {
    const contract::NatTarget target{address("192.0.2.2"), 80};
    EXPECT_EQ(policy.allows({{0, 6, 80}, target}).reason(),
              "destination 0.0.0.0 refused: the rule would never match");
    EXPECT_TRUE(policy.allows({{address("198.51.100.77"), 6, 80}, target}).isOk());
}

TEST_F(PolicyTest, AProgramsRuleIsForAnAddressThatTheRouterHoldsOutside) {
    const auto answer = [this](const char* destination) {
        return policy.allowsDestination(address(destination), true).reason();
    };
    EXPECT_EQ(answer("198.51.100.1"), "");
    for (const std::string foreign : {"1.1.1.1", "198.51.100.77", "192.0.2.1", "127.0.0.1", "192.0.2.2"})
        EXPECT_EQ(
            answer(foreign.c_str()),
            "destination " + foreign + " refused: it is no address of an outside interface of the router");
}

TEST_F(ConfiguredPolicyTest, PortsAreThoseOfTheLists) {
    config.externalPorts = {{80, 80}, {1024, 65535}};
    config.internalPorts = {{22, 22}};
    EXPECT_EQ(answer("192.0.2.2", 80, 22), "");
    EXPECT_EQ(answer("192.0.2.2", 65535, 22), "");
    EXPECT_EQ(answer("192.0.2.2", 1023, 22), "external port 1023 refused: it is not among those configured");
    EXPECT_EQ(answer("192.0.2.2", 1024, 23), "internal port 23 refused: it is not among those configured");
}

TEST_F(ConfiguredPolicyTest, WithoutTheCheckAnyTargetIsAllowed) {
    config.checksTargets = false;
    EXPECT_EQ(answer("127.0.0.1"), "");
    EXPECT_EQ(answer("1.1.1.1"), "");
}

TEST_F(ConfiguredPolicyTest, LimitsCount) {
    EXPECT_EQ(room(100000, 100000), "");
    config.limit = 10;
    config.limitPerTarget = 3;
    EXPECT_EQ(room(9, 2), "");
    EXPECT_EQ(room(10, 2), "there are 10 rules already, as many as configured");
    EXPECT_EQ(room(9, 3), "3 rules lead to 192.0.2.2 already, as many as configured");
}

}  // namespace
}  // namespace nat
