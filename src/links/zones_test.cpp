#include "links/zones.h"

#include <net/if.h>
#include <net/if_arp.h>

#include <memory>

#include <gtest/gtest.h>

#include "links/prefix.h"
#include "links/testing/fakekernel.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"

namespace links {
namespace {

using testing::address;
using Indexes = std::set<std::uint32_t>;

constexpr std::uint32_t up = IFF_UP | IFF_RUNNING;
const Prefix everything{0, 0};

Link link(std::uint32_t index, const char* name, std::uint32_t flags = up) {
    Link made;
    made.index = index;
    made.name = name;
    made.hardwareType = ARPHRD_ETHER;
    made.flags = flags;
    return made;
}

LinkAddress held(std::uint32_t index, const char* text, std::uint8_t length) {
    return {index, address(text), address(text), length};
}

/// A router with lo 1, lan0 2 and wan0 3.
class ZonesTest : public ::testing::Test, protected InsideWatcher {
protected:
    void insideChanged(const Inside& inside) override {
        ++changes;
        told = inside;
    }
    void start(LanConfig config = {}) {
        zones = std::make_unique<Zones>(std::move(config), files.file("pppoe"));
        zones->applyAll({link(1, "lo", up | IFF_LOOPBACK), link(2, "lan0"), link(3, "wan0")},
                        {held(1, "127.0.0.1", 8), held(2, "192.0.2.1", 24), held(3, "198.51.100.1", 24)});
        zones->start(*this);
    }
    std::string ranges() const {
        std::string text;
        for (const AddressRange& range : told.addresses)
            text += (text.empty() ? "" : " ") + addressText(htonl(range.first)) + "-" +
                    addressText(htonl(range.last));
        return text;
    }

    const tk::testing::CapturedOutput output;
    const tk::testing::Folder files;
    std::unique_ptr<Zones> zones;
    Inside told;
    int changes = 0;
};

constexpr const char* lanRange = "192.0.2.0-192.0.2.255";

TEST_F(ZonesTest, WithoutARouteBeyondEverythingButLoopbackIsInside) {
    start();
    EXPECT_EQ(told.interfaces, (Indexes{2, 3}));
    EXPECT_EQ(ranges(), "192.0.2.0-192.0.2.255 198.51.100.0-198.51.100.255");
    EXPECT_EQ(zones->sideOf(1), Side::neither);
    EXPECT_EQ(zones->sideOf(2), Side::inside);
    EXPECT_EQ(zones->sideOf(99), Side::neither);
    EXPECT_EQ(zones->whyOf(2), "it carries no route beyond the private ranges");
}

TEST_F(ZonesTest, AnInterfaceThatCarriesOneIsOutsideForGood) {
    start();
    zones->addExits({{3, everything}});
    EXPECT_EQ(told.interfaces, Indexes{2});
    EXPECT_EQ(ranges(), lanRange);
    EXPECT_EQ(zones->sideOf(3), Side::outside);
    EXPECT_EQ(zones->whyOf(3), "it carries, or has carried, a route to 0.0.0.0/0");
    zones->removeLink(3);
    zones->apply(link(7, "wan0"));
    zones->apply(held(7, "198.51.100.1", 24));
    EXPECT_EQ(zones->sideOf(7), Side::outside) << "it is back under its name";
    EXPECT_EQ(ranges(), lanRange);
}

TEST_F(ZonesTest, ARouteMayBeToldBeforeItsInterface) {
    start();
    zones->addExits({{8, everything}});
    zones->apply(link(8, "ppp0"));
    EXPECT_EQ(zones->sideOf(8), Side::outside);
    EXPECT_EQ(told.interfaces, (Indexes{2, 3}));
}

TEST_F(ZonesTest, AnInterfaceThatIsRenamedStaysOutside) {
    start();
    zones->addExits({{3, everything}});
    zones->apply(link(3, "uplink"));
    EXPECT_EQ(zones->sideOf(3), Side::outside);
}

TEST_F(ZonesTest, LowerDevicesAreOutsideHoweverDeep) {
    start();
    Link vlan = link(10, "eth0.7");
    vlan.lower = 11;
    Link port = link(12, "port1");
    port.master = 11;
    Link other = link(13, "port2");
    other.master = 2;
    for (const Link& each : {vlan, link(11, "br1"), port, other}) zones->apply(each);
    zones->addExits({{10, everything}});
    EXPECT_EQ(zones->sideOf(11), Side::outside);
    EXPECT_EQ(zones->whyOf(11), "it is the lower device of eth0.7");
    EXPECT_EQ(zones->sideOf(12), Side::outside);
    EXPECT_EQ(zones->whyOf(12), "it is the lower device of br1");
    EXPECT_EQ(zones->sideOf(13), Side::inside);
    zones->removeLink(10);
    EXPECT_EQ(zones->sideOf(11), Side::outside) << "the modem below is no host of the LAN's";
}

TEST_F(ZonesTest, TheDeviceBelowPppoeIsOutside) {
    files.write("pppoe", "Id       Address              Device\n00000100 02:00:00:00:00:01     wan0\n");
    start();
    Link ppp = link(9, "ppp0");
    ppp.hardwareType = ARPHRD_PPP;
    zones->apply(ppp);
    EXPECT_EQ(zones->sideOf(3), Side::inside);
    zones->addExits({{9, everything}});
    EXPECT_EQ(zones->sideOf(3), Side::outside);
    EXPECT_EQ(zones->whyOf(3), "it is the lower device of ppp0");
    EXPECT_EQ(told.interfaces, Indexes{2});
}

TEST_F(ZonesTest, TheConfigurationNamesWhatIsInside) {
    LanConfig config;
    config.interfaces = {{"lan0"}};
    start(config);
    EXPECT_FALSE(zones->dependsOnRoutes());
    EXPECT_EQ(told.interfaces, Indexes{2});
    EXPECT_EQ(ranges(), lanRange);
    EXPECT_EQ(zones->sideOf(1), Side::neither);
    EXPECT_EQ(zones->whyOf(2), "it is among the interfaces of [lan] in router.toml");
    EXPECT_EQ(zones->whyOf(3), "it is not among the interfaces of [lan] in router.toml");
    zones->addExits({{2, everything}});
    EXPECT_EQ(zones->sideOf(2), Side::inside);
}

TEST_F(ZonesTest, FollowAnotherConfigurationAtOnce) {
    start();
    zones->addExits({{3, everything}});
    EXPECT_EQ(told.interfaces, Indexes{2});
    LanConfig config;
    config.interfaces = {{"wan0"}};
    zones->setConfig(config);
    EXPECT_EQ(told.interfaces, Indexes{3});
    EXPECT_EQ(ranges(), "198.51.100.0-198.51.100.255");
    zones->addExits({{2, everything}});
    zones->setConfig({});
    EXPECT_EQ(told.interfaces, Indexes{}) << "what was told of routes meanwhile counts";
}

TEST_F(ZonesTest, ConfiguredNetworksAreInsideLessThoseOfOutsideInterfaces) {
    LanConfig config;
    config.interfaces = {{"lan0"}};
    config.networks = {{0xC6336000, 0xFFFFF000}, {0x0A000000, 0xFF000000}};  // 198.51.96.0/20, 10.0.0.0/8
    start(config);
    EXPECT_EQ(ranges(),
              "10.0.0.0-10.255.255.255 192.0.2.0-192.0.2.255 198.51.96.0-198.51.99.255 "
              "198.51.101.0-198.51.111.255");
    zones->apply(link(3, "wan0", 0));
    EXPECT_FALSE(zones->isInside(address("198.51.100.9"))) << "what is outside stays so while it is down";
}

TEST_F(ZonesTest, ANetworkIsInsideWhileItsInterfaceIsUp) {
    LanConfig config;
    config.interfaces = {{"lan0"}};
    start(config);
    zones->apply(link(2, "lan0", 0));
    EXPECT_EQ(ranges(), "");
    EXPECT_EQ(zones->whyOutside(address("192.0.2.2")), "it is in the network of lan0, which is down");
    zones->apply(link(2, "lan0"));
    EXPECT_EQ(ranges(), lanRange);
    zones->remove(held(2, "192.0.2.1", 24));
    EXPECT_EQ(ranges(), "");
}

TEST_F(ZonesTest, OnAPointToPointLinkTheOtherEndIsTheNetwork) {
    LanConfig config;
    config.interfaces = {{"lan0"}};
    start(config);
    zones->apply(LinkAddress{2, address("10.0.0.1"), address("10.0.0.2"), 32});
    EXPECT_EQ(ranges(), "10.0.0.2-10.0.0.2 192.0.2.0-192.0.2.255");
    EXPECT_TRUE(zones->isOwn(address("10.0.0.1")));
    EXPECT_FALSE(zones->isOwn(address("10.0.0.2")));
}

TEST_F(ZonesTest, OnlyChangesAreTold) {
    start();
    EXPECT_EQ(changes, 1);
    zones->apply(link(2, "lan0"));
    zones->apply(link(2, "lan0", IFF_UP));  // no carrier
    zones->apply(held(2, "192.0.2.77", 24));
    zones->addExits({});
    EXPECT_EQ(changes, 1);
    zones->addExits({{3, everything}});
    EXPECT_EQ(changes, 2);
}

TEST_F(ZonesTest, TellOwnAddressesAndTheEndsOfNetworks) {
    start();
    zones->addExits({{3, everything}});
    EXPECT_TRUE(zones->isOwn(address("127.0.0.1")));
    EXPECT_EQ(zones->outsideHoldersOf(address("198.51.100.1")).size(), 1U);
    EXPECT_TRUE(zones->outsideHoldersOf(address("192.0.2.1")).empty());
    EXPECT_TRUE(zones->outsideHoldersOf(address("198.51.100.2")).empty());
    EXPECT_TRUE(zones->isNetworkAddress(address("192.0.2.0")));
    EXPECT_TRUE(zones->isBroadcastAddress(address("192.0.2.255")));
    EXPECT_FALSE(zones->isBroadcastAddress(address("192.0.2.127")));
    LinkAddress odd = held(2, "192.0.2.1", 24);
    odd.broadcast = address("192.0.2.127");
    zones->apply(odd);
    EXPECT_TRUE(zones->isBroadcastAddress(address("192.0.2.127"))) << "it was given another one";
    zones->remove(held(2, "192.0.2.1", 24));
    EXPECT_FALSE(zones->isBroadcastAddress(address("192.0.2.127")));
    zones->apply(held(2, "10.0.0.0", 31));
    EXPECT_FALSE(zones->isNetworkAddress(address("10.0.0.0")));
    EXPECT_FALSE(zones->isBroadcastAddress(address("10.0.0.1"))) << "a network of two hosts has no ends";
}

TEST_F(ZonesTest, SayWhyAnAddressIsNotInside) {
    start();
    zones->addExits({{3, everything}});
    EXPECT_EQ(zones->whyOutside(address("198.51.100.2")), "it is in the network of wan0, which is outside");
    EXPECT_EQ(zones->whyOutside(address("1.1.1.1")), "it is in no network inside");
}

}  // namespace
}  // namespace links
