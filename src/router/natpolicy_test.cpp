#include "router/natpolicy.h"

#include <gtest/gtest.h>

#include "router/testing/fakekernel.h"

namespace router {
namespace {

using testing::address;

// The world of the table: the router has 198.51.100.1 on interface 3 and 192.0.2.1 on interface 2.
struct Case {
    const char* name;
    const char* destination;
    const char* target;
    const char* reason;  // empty: allowed
};

constexpr Case cases[] = {
    {"LanHost", "198.51.100.1", "192.0.2.2", ""},
    {"NoDestination", "0.0.0.0", "192.0.2.2", "destination 0.0.0.0 refused: the rule would never match"},
    {"DestinationOfNobody", "198.51.100.77", "192.0.2.2", ""},
    {"Nobody", "198.51.100.1", "0.0.0.0", "target 0.0.0.0 refused: no host has this address"},
    {"Loopback", "198.51.100.1", "127.0.0.1", "target 127.0.0.1 refused: it is a loopback address"},
    {"LoopbackHighest", "198.51.100.1", "127.255.255.255",
     "target 127.255.255.255 refused: it is a loopback address"},
    {"MulticastLowest", "198.51.100.1", "224.0.0.0", "target 224.0.0.0 refused: it is a multicast address"},
    {"MulticastHighest", "198.51.100.1", "239.255.255.255",
     "target 239.255.255.255 refused: it is a multicast address"},
    {"Broadcast", "198.51.100.1", "255.255.255.255",
     "target 255.255.255.255 refused: it is the broadcast address"},
    {"BroadcastOfTheLan", "198.51.100.1", "192.0.2.255",
     "target 192.0.2.255 refused: it is a broadcast address"},
    {"TheRouterInTheLan", "198.51.100.1", "192.0.2.1",
     "target 192.0.2.1 refused: it is an address of the router itself"},
    {"TheRouterOutside", "198.51.100.1", "198.51.100.1",
     "target 198.51.100.1 refused: it is an address of the router itself"},
    {"TheRouterByItsRoutes", "198.51.100.1", "203.0.113.5",
     "target 203.0.113.5 refused: it is an address of the router itself"},
    {"NeighbourOutside", "198.51.100.1", "198.51.100.9",
     "target 198.51.100.9 refused: it is reached over the interface that holds the destination address"},
    {"SecondPathOutside", "198.51.100.1", "203.0.113.6",
     "target 203.0.113.6 refused: it is reached over the interface that holds the destination address"},
    {"DefaultRoute", "198.51.100.1", "203.0.113.7",
     "target 203.0.113.7 refused: it is reached over the default route"},
    {"HalfOfADefaultRoute", "198.51.100.1", "203.0.113.8",
     "target 203.0.113.8 refused: it is reached over the default route"},
    {"RouteOfAnUnknownInterface", "198.51.100.1", "203.0.113.10",
     "target 203.0.113.10 refused: nobody tells which interface it is reached over"},
    {"NeighbourOnALinkOfItsOwn", "169.254.9.9", "169.254.9.10",
     "target 169.254.9.10 refused: it is reached over the interface that holds the destination address"},
    {"TheRouterOnALinkOfItsOwn", "198.51.100.1", "169.254.9.9",
     "target 169.254.9.9 refused: it is an address of the router itself"},
    {"NoRoute", "198.51.100.1", "203.0.113.9", "target 203.0.113.9 refused: there is no route to it"},
};

class NatPolicyTest : public ::testing::Test {
protected:
    NatPolicyTest() {
        addresses.apply({3, address("198.51.100.1"), address("198.51.100.1"), 24});
        addresses.apply({2, address("192.0.2.1"), address("192.0.2.1"), 24});
        addresses.apply({3, address("169.254.9.9"), address("169.254.9.9"), 16, false});
        network.routes[address("192.0.2.255")] = {Route::Type::broadcast, 32, {2}};
        network.routes[address("203.0.113.5")] = {Route::Type::local, 32, {1}};
        network.routes[address("198.51.100.9")] = {Route::Type::unicast, 24, {3}};
        network.routes[address("203.0.113.6")] = {Route::Type::unicast, 24, {2, 3}};
        network.routes[address("203.0.113.7")] = {Route::Type::unicast, 0, {4}};
        network.routes[address("203.0.113.8")] = {Route::Type::unicast, 1, {4}};
        network.routes[address("203.0.113.9")] = {};
        network.routes[address("203.0.113.10")] = {Route::Type::unicast, 24, {}};
        network.routes[address("169.254.9.10")] = {Route::Type::unicast, 16, {3}};
    }
    testing::FakeNetwork network;
    Addresses addresses;
    NatPolicy policy{network, addresses};
};

class TabledNatPolicyTest : public NatPolicyTest, public ::testing::WithParamInterface<Case> {};

TEST_P(TabledNatPolicyTest, AnswersAsTabled) {
    const NatElement element{address(GetParam().destination), 6, 80, address(GetParam().target), 80};
    std::string reason;
    EXPECT_EQ(policy.allows(element, reason), *GetParam().reason == '\0');
    EXPECT_EQ(reason, GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(Targets, TabledNatPolicyTest, ::testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

class ConfiguredNatPolicyTest : public NatPolicyTest {
protected:
    std::string answer(const char* target, std::uint16_t port = 80, std::uint16_t targetPort = 80) {
        std::string reason;
        const NatElement element{address("198.51.100.1"), 6, port, address(target), targetPort};
        return NatPolicy(network, addresses, config).allows(element, reason) ? "" : reason;
    }
    std::string room(std::size_t total, std::size_t ofTarget) {
        std::string reason;
        const NatElement element{address("198.51.100.1"), 6, 80, address("192.0.2.2"), 80};
        return NatPolicy(network, addresses, config).hasRoom(total, ofTarget, element, reason) ? "" : reason;
    }
    NatConfig config;
};

TEST_F(ConfiguredNatPolicyTest, InternalPrefixesAreInsideWhereverTheyAreRouted) {
    config.internalPrefixes = {{0xCB007100, 0xFFFFFF00}};  // 203.0.113.0/24
    EXPECT_EQ(answer("203.0.113.7"), "");
    EXPECT_EQ(answer("203.0.113.6"), "");
    EXPECT_EQ(answer("203.0.113.9"), "");
    EXPECT_EQ(answer("203.0.113.10"), "");
    EXPECT_EQ(answer("203.0.113.5"), "target 203.0.113.5 refused: it is an address of the router itself");
    EXPECT_EQ(
        answer("198.51.100.9"),
        "target 198.51.100.9 refused: it is reached over the interface that holds the destination address");
}

TEST_F(ConfiguredNatPolicyTest, PortsAreThoseOfTheLists) {
    config.externalPorts = {{80, 80}, {1024, 65535}};
    config.internalPorts = {{22, 22}};
    EXPECT_EQ(answer("192.0.2.2", 80, 22), "");
    EXPECT_EQ(answer("192.0.2.2", 65535, 22), "");
    EXPECT_EQ(answer("192.0.2.2", 1023, 22), "external port 1023 refused: it is not among those configured");
    EXPECT_EQ(answer("192.0.2.2", 1024, 23), "internal port 23 refused: it is not among those configured");
}

TEST_F(ConfiguredNatPolicyTest, WithoutTheCheckAnyTargetWillDo) {
    config.checksTargets = false;
    EXPECT_EQ(answer("127.0.0.1"), "");
    EXPECT_EQ(answer("203.0.113.7"), "");
}

TEST_F(ConfiguredNatPolicyTest, LimitsCount) {
    EXPECT_EQ(room(100000, 100000), "");
    config.limit = 10;
    config.limitPerTarget = 3;
    EXPECT_EQ(room(9, 2), "");
    EXPECT_EQ(room(10, 2), "there are 10 rules already, as many as configured");
    EXPECT_EQ(room(9, 3), "3 rules lead to 192.0.2.2 already, as many as configured");
}

}  // namespace
}  // namespace router
