#include "nat/routerports.h"

#include <net/if.h>

#include <gtest/gtest.h>

#include "nat/testing/fakenat.h"

namespace nat {
namespace {

using links::testing::address;

class RouterPortsTest : public ::testing::Test {
protected:
    RouterPortsTest() {
        links::Link link;
        link.index = 6;
        link.name = "wan1";
        link.flags = IFF_UP | IFF_RUNNING;
        world.zones.apply(link);
        world.zones.addExits({{6, links::Prefix{}}});
        world.hold(6, "198.51.100.1", 24);
    }
    std::string refusal(std::uint8_t protocol, std::uint16_t port) const {
        return ports.areFreeFor({address("198.51.100.1"), protocol, port}).reason();
    }

    links::testing::FakeZones world;
    testing::FakeListeners listeners;
    RouterPorts ports{world.zones, listeners, {{53, 53}, {8000, 8010}}};
};

TEST_F(RouterPortsTest, ConfiguredPortsAreTheRoutersForEveryProtocol) {
    EXPECT_EQ(refusal(6, 53), "external port 53 refused: it is one of the router's own");
    EXPECT_EQ(refusal(17, 8010), "external port 8010 refused: it is one of the router's own");
    EXPECT_EQ(refusal(6, 7999), "");
    EXPECT_EQ(refusal(6, 8011), "");
}

TEST_F(RouterPortsTest, AServiceCountsOnEachInterfaceThatHoldsTheAddress) {
    listeners.heard = {{{address("198.51.100.1"), 6, 22}, 6}};
    EXPECT_EQ(refusal(6, 22), "tcp 198.51.100.1:22 refused: a service of the router listens there");
    EXPECT_EQ(refusal(17, 22), "");
}

TEST_F(RouterPortsTest, AServiceInsideDoesNotCount) {
    listeners.heard = {{{address("198.51.100.1"), 6, 22}, 2}, {{address("192.0.2.1"), 6, 22}, 2}};
    EXPECT_EQ(refusal(6, 22), "");
}

TEST_F(RouterPortsTest, APortIsNotGivenAwayWhenNobodyCanTell) {
    listeners.fault = "No buffer space available";
    EXPECT_EQ(refusal(17, 22),
              "udp 198.51.100.1:22 refused: nobody can tell whether a service of the router listens there: "
              "No buffer space available");
}

}  // namespace
}  // namespace nat
