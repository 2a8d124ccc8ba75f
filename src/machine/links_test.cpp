#include "machine/links.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "machine/testing/recorded.h"
#include "tk/testing/folder.h"

namespace machine {
namespace {

using testing::recordedAddresses;
using testing::recordedLinks;
using testing::recordedRoutes;

Network net(const char* text) {
    return parseNetwork(text).value();
}

TEST(LinksOfIp, TellNameStateKindAndWhatTheyBelongTo) {
    const auto links = parseLinks(recordedLinks);
    ASSERT_TRUE(links.isOk()) << links.reason();
    const Links machine{*links, {}, {}, {}};
    EXPECT_EQ(*machine.find("lo"), (Link{"lo", 1, true, true, "loopback", "", "", ""}));
    EXPECT_EQ(*machine.find("lan1"), (Link{"lan1", 5, true, false, "ether", "veth", "lan0", ""}));
    EXPECT_EQ(*machine.find("macvlan.7"),
              (Link{"macvlan.7", 7, false, false, "ether", "macvlan", "", "wan0"}));
    EXPECT_EQ(*machine.find("tun0"), (Link{"tun0", 8, true, false, "none", "tun", "", ""}));
    EXPECT_EQ(machine.find("lan0")->kind, "bridge");
    EXPECT_EQ(machine.find("wan0")->lower, "") << "the other end of a pair is not below it";
    EXPECT_EQ(machine.find("wan9"), nullptr);
    EXPECT_EQ(links->size(), 8U);
}

TEST(OwnerOf, IsTheBridgeOrBondOfAMemberOrElseTheInterfaceItself) {
    Links machine;
    const auto add = [&](const std::string& name, const std::string& kind, const std::string& master) {
        machine.links.push_back({name, 1, true, true, "ether", kind, master, ""});
    };
    for (const char* kind : {"bridge", "bond", "team", "vrf"}) {
        add(kind, kind, "");
        add(std::string("member of ") + kind, "", kind);
    }
    add("lost", "", "gone");
    for (const char* kind : {"bridge", "bond", "team"})
        EXPECT_EQ(ownerOf(machine, *machine.find(std::string("member of ") + kind)).name, kind);
    for (const char* name : {"bridge", "member of vrf", "lost"})
        EXPECT_EQ(ownerOf(machine, *machine.find(name)).name, name);
}

TEST(AddressesOfIp, TellTheNetworkThatIsDirectlyConnected) {
    const auto addresses = parseAddresses(recordedAddresses);
    ASSERT_TRUE(addresses.isOk()) << addresses.reason();
    EXPECT_THAT(
        *addresses,
        ::testing::ElementsAre(
            Address{"lo", *parseIPv4("127.0.0.1"), net("127.0.0.0/8"), std::nullopt, "host"},
            Address{"wan0", *parseIPv4("169.254.1.1"), net("169.254.0.0/16"), std::nullopt, "link"},
            Address{"wan0", *parseIPv4("198.51.100.7"), net("198.51.100.0/24"), std::nullopt, "global"},
            Address{"lan0", *parseIPv4("192.168.1.1"), net("192.168.1.0/24"), std::nullopt, "global"},
            Address{"tun0", *parseIPv4("10.9.0.1"), net("10.9.0.2/32"), parseIPv4("10.9.0.2"), "global"}));
}

TEST(AddressesOfIp, TellWhetherTheyAreLeased) {
    const auto addresses = parseAddresses(
        R"([{"ifname":"wan0","addr_info":[{"family":"inet","local":"192.0.2.7","prefixlen":24,)"
        R"("scope":"global","dynamic":true,"valid_life_time":3585,"preferred_life_time":3585}]}])");
    ASSERT_TRUE(addresses.isOk()) << addresses.reason();
    EXPECT_TRUE(addresses->front().isLeased);
}

TEST(RoutesOfIp, TellDestinationTableDeviceAndMetric) {
    const auto routes = parseRoutes(recordedRoutes);
    ASSERT_TRUE(routes.isOk()) << routes.reason();
    EXPECT_THAT(std::vector<Route>(routes->begin(), routes->begin() + 6),
                ::testing::ElementsAre(
                    Route{net("172.16.0.0/12"), "unicast", "77", "lan0", parseIPv4("192.168.1.2"), 0},
                    Route{net("default"), "unicast", "main", "wan0", parseIPv4("198.51.100.1"), 100},
                    Route{net("default"), "unicast", "main", "lan0", parseIPv4("192.168.1.9"), 200},
                    Route{net("default"), "unicast", "main", "wan0", parseIPv4("198.51.100.3"), 200},
                    Route{net("default"), "unicast", "main", "tun0", std::nullopt, 900},
                    Route{net("10.0.0.0/8"), "blackhole", "main", "", std::nullopt, 0}));
    EXPECT_EQ(routes->back(), (Route{net("198.51.100.255"), "broadcast", "local", "wan0", std::nullopt, 0}));
    EXPECT_EQ(routes->size(), 20U) << "a route of two hops counts twice";
}

TEST(RoutesOfIp, OnlyAReachableRouteToEverywhereIsADefaultRoute) {
    const auto routes =
        parseRoutes(R"([{"dst":"default","dev":"wan0"},{"type":"unreachable","dst":"default","dev":"lo"},)"
                    R"({"type":"blackhole","dst":"default"},{"dst":"0.0.0.0/1","dev":"wan0"}])");
    ASSERT_TRUE(routes.isOk());
    EXPECT_TRUE((*routes)[0].isDefault());
    for (std::size_t i = 1; i < routes->size(); ++i) EXPECT_FALSE((*routes)[i].isDefault()) << i;
}

TEST(LinksOfIp, NothingAndEmptyObjectsAreLeftOut) {
    EXPECT_TRUE(parseLinks("")->empty());
    EXPECT_TRUE(parseAddresses("[{},{}]")->empty());
    EXPECT_TRUE(parseRoutes("[ ]")->empty());
}

TEST(LinksOfIp, AnythingElseIsAFailure) {
    for (const char* text : {"[", "Object \"-j\" is unknown", "7", "[7]", R"([{"ifname":"a"}])",
                             R"([{"ifindex":"x","ifname":"a"}])", R"([{"ifindex":1,"ifname":2}])"})
        EXPECT_FALSE(parseLinks(text).isOk()) << text;
    EXPECT_FALSE(parseAddresses(R"([{"ifname":"a","addr_info":[{"local":"192.0.2.1"}]}])").isOk());
    EXPECT_FALSE(parseRoutes(R"([{"dev":"a"}])").isOk());
}

TEST(Forwarding, IsOnUnlessTheKernelSaysOtherwise) {
    const tk::testing::Folder folder;
    folder.write("off", "0\n");
    folder.write("on", "1\n");
    EXPECT_FALSE(isForwarding(folder.file("off")));
    EXPECT_TRUE(isForwarding(folder.file("on")));
    EXPECT_TRUE(isForwarding(folder.file("none")));
}

TEST(PPPoESessions, NameTheirInterfaces) {
    EXPECT_THAT(parsePPPoE("Id       Address              Device\n"
                           "00000007 00:11:22:33:44:55     eth1\n"
                           "00000109 00:11:22:33:44:55 eth0.35\n"),
                ::testing::ElementsAre("eth1", "eth0.35"));
    EXPECT_TRUE(parsePPPoE("").empty());
}

TEST(LinksOfThisMachine, HoldItsLoopback) {
    const auto machine = readLinks();
    ASSERT_TRUE(machine.isOk()) << machine.reason();
    ASSERT_NE(machine->find("lo"), nullptr);
    EXPECT_EQ(machine->find("lo")->type, "loopback");
}

}  // namespace
}  // namespace machine
