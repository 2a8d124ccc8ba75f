// The monitor with the real kernel, in a network namespace of the test's own.

#include "links/monitor.h"

#include <gtest/gtest.h>

#include "hub/testing/fakeprocesses.h"
#include "hub/testing/testhub.h"
#include "links/prefix.h"
#include "links/testing/fakekernel.h"
#include "tk/bus.h"
#include "tk/runner.h"
#include "tk/testing/commands.h"
#include "tk/testing/folder.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/scriptedbus.h"

namespace links {
namespace {

class MonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        shell("ip link add lan0 type veth peer name far0 && ip addr add 192.0.2.1/24 dev lan0");
        ASSERT_TRUE(kernel.open().isOk());
        interfaces.attach(bus, {20, 0});
        addresses.attach(bus, {20, 1});
        interfaces.addWatcher(addresses);
        ASSERT_EQ(monitor.start().reason(), "");
        zones.start(watcher);
        bus.posted.clear();
    }
    void TearDown() override {
        bool failed = false;
        tk::testing::run("ip link del lan0 2>&1; ip link del wan0 2>&1", failed);  // either may be gone
    }
    void shell(const std::string& command) {
        bool failed = false;
        tk::testing::run(command, failed);
        ASSERT_FALSE(failed) << command;
    }
    /// Serves what the kernel has told by now.
    void settle() {
        for (int i = 0; i < 50; ++i) loop.looper.turn(0);
    }
    /// Serves what the kernel tells, for at most ten seconds, until the interface is running or not, as
    /// wanted: the kernel notices a change of a link some time after the command that made it.
    bool becomesRunning(const std::string& name, bool running) {
        const std::uint64_t limit = realClock.now() + 10000;
        while (recordOf(name).get_bool(0x1000E) != running && realClock.now() < limit) loop.looper.turn(10);
        return recordOf(name).get_bool(0x1000E) == running;
    }
    tk::message recordOf(const std::string& name) {
        const tk::message list = interfaces.cmdGetAll({});
        for (const tk::message& record : list.get_message_array(tk::field::objects))
            if (record.get_string(0x10005) == name) return record;
        return {};
    }
    std::vector<std::string> addressesOf(std::uint32_t interface) {
        std::vector<std::string> texts;
        const tk::message list = addresses.cmdGetAll({});
        for (const tk::message& record : list.get_message_array(tk::field::objects))
            if (record.get_u32(5) == interface) texts.push_back(addressText(record.get_be32(1)));
        return texts;
    }
    using Texts = std::vector<std::string>;

    tk::SystemClock realClock;
    hub::testing::TestHub loop;
    tk::testing::ScriptedBus bus;
    tk::testing::Folder files;
    RtNetlink kernel;
    InterfaceIds ids{files.file("interfaces")};
    testing::IdleWatcher watcher;
    Zones zones;
    hub::testing::FakeProcesses processes;
    testing::FakeRequester requester;
    LinkSwitch links{{}, kernel, processes};
    Interfaces interfaces{ids, kernel, zones, {links, requester}};
    Addresses addresses;
    Monitor monitor{kernel, zones, interfaces, addresses};
};

TEST_F(MonitorTest, ReadsWhatIsThere) {
    const tk::message lan = recordOf("lan0");
    EXPECT_EQ(lan.get_u32(0x10001), 1U);
    EXPECT_TRUE(lan.get_bool(tk::field::disabled));
    EXPECT_FALSE(lan.get_bool(0x1000E));
    EXPECT_EQ(addressesOf(lan.get_u32(tk::field::objectId)), (Texts{"192.0.2.1"}));
    EXPECT_TRUE(recordOf("lo").empty());
}

TEST_F(MonitorTest, FollowsTheStatus) {
    shell("ip link set lan0 up && ip link set far0 up");
    settle();
    EXPECT_FALSE(recordOf("lan0").get_bool(tk::field::disabled));
    EXPECT_TRUE(becomesRunning("lan0", true));
    shell("ip link set far0 down");
    EXPECT_TRUE(becomesRunning("lan0", false));
}

TEST_F(MonitorTest, FollowsAddresses) {
    const std::uint32_t lan = recordOf("lan0").get_u32(tk::field::objectId);
    shell(
        "ip addr add 192.0.2.7 peer 203.0.113.7 dev lan0 && ip addr add 203.0.113.9/32 scope link dev lan0");
    settle();
    EXPECT_EQ(addressesOf(lan), (Texts{"192.0.2.1", "192.0.2.7"}));
    shell("ip addr del 192.0.2.1/24 dev lan0");
    settle();
    EXPECT_EQ(addressesOf(lan), (Texts{"192.0.2.7"}));
}

TEST_F(MonitorTest, FollowsAnInterfaceThatComesAndGoes) {
    shell("ip link add wan0 type veth peer name far1 && ip addr add 198.51.100.1/24 dev wan0");
    settle();
    const std::uint32_t id = recordOf("wan0").get_u32(tk::field::objectId);
    ASSERT_NE(id, 0U);
    EXPECT_EQ(addressesOf(id), (Texts{"198.51.100.1"}));
    shell("ip link del wan0");
    settle();
    EXPECT_TRUE(recordOf("wan0").empty());
    EXPECT_TRUE(addressesOf(id).empty());
    shell("ip link add wan0 type veth peer name far1");
    settle();
    EXPECT_EQ(recordOf("wan0").get_u32(tk::field::objectId), id);
}

TEST_F(MonitorTest, LeavingABridgeIsNoEnd) {
    shell("ip link add br0 type bridge && ip link set lan0 master br0");
    settle();
    bus.posted.clear();
    shell("ip link set lan0 nomaster && ip link del br0");
    settle();
    EXPECT_FALSE(recordOf("lan0").empty());
    EXPECT_TRUE(recordOf("br0").empty());
}

TEST_F(MonitorTest, ReadsAgainWhenNotificationsWereLost) {
    // More changes than the socket's buffer holds, none of them read meanwhile.
    shell("ip link set lan0 up");
    std::string batch;
    for (int i = 0; i < 4000; ++i) batch += "link set lan0 alias a" + std::to_string(i) + "\\n";
    shell("printf '" + batch + "addr add 192.0.2.9/24 dev lan0\\n' | ip -batch -");
    settle();
    EXPECT_EQ(recordOf("lan0").get_string(0x10006), "a3999");
    EXPECT_EQ(addressesOf(recordOf("lan0").get_u32(tk::field::objectId)), (Texts{"192.0.2.1", "192.0.2.9"}));
    EXPECT_LT(bus.posted.size(), 4000U);  // else nothing was lost, and the test is void
}

TEST_F(MonitorTest, SetsInterfacesUpAndDown) {
    const std::uint32_t lan = recordOf("lan0").get_u32(tk::field::objectId);
    tk::message request;
    request.insert_u32(tk::field::objectId, lan);
    request.insert_bool(tk::field::disabled, false);
    EXPECT_TRUE(interfaces.cmdSetObj(request).empty());
    settle();
    EXPECT_FALSE(recordOf("lan0").get_bool(tk::field::disabled));
    request.insert_bool(tk::field::disabled, true);
    EXPECT_TRUE(interfaces.cmdSetObj(request).empty());
    settle();
    EXPECT_TRUE(recordOf("lan0").get_bool(tk::field::disabled));
}

TEST_F(MonitorTest, CountersAreThoseOfTheKernel) {
    // Nothing but what is sent here.
    shell("ip link set lan0 addrgenmode none && ip link set far0 addrgenmode none");
    shell(
        "ip link set lan0 up && ip link set far0 up && ip neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 dev "
        "lan0");
    shell("for i in 1 2 3; do bash -c 'echo hello >/dev/udp/192.0.2.2/9'; done");
    tk::message request;
    request.insert_u32(tk::field::objectId, recordOf("lan0").get_u32(tk::field::objectId));
    request.insert_u32(0xFE000C, 256);
    const tk::message sent = interfaces.cmdGetObj(request);
    constexpr std::uint64_t frame = 14 + 20 + 8 + 6;  // Ethernet, IP, UDP and "hello"
    EXPECT_EQ(sent.get_u64(0x100FF), 3U);
    EXPECT_EQ(sent.get_u64(0x100FD), 3 * frame);
    request.insert_u32(tk::field::objectId, recordOf("far0").get_u32(tk::field::objectId));
    const tk::message arrived = interfaces.cmdGetObj(request);
    EXPECT_EQ(arrived.get_u64(0x100FE), 3U);
    EXPECT_EQ(arrived.get_u64(0x100FC), 3 * frame);
}

TEST_F(MonitorTest, TheZonesHearOfEverything) {
    shell("ip link set lan0 up && ip link set far0 up");
    settle();
    EXPECT_EQ(zones.sideOf(recordOf("lan0").get_u32(0x10004)), Side::inside);
    EXPECT_TRUE(zones.isInside(testing::address("192.0.2.2")));
    shell("ip addr add 192.0.2.7/32 scope link dev lan0");
    settle();
    EXPECT_TRUE(zones.isOwn(testing::address("192.0.2.7"))) << "whatever its scope";
    shell("ip addr del 192.0.2.1/24 dev lan0");
    settle();
    EXPECT_FALSE(zones.isInside(testing::address("192.0.2.2")));
    shell("ip addr add 192.0.2.1/24 broadcast 192.0.2.127 dev lan0");
    settle();
    EXPECT_TRUE(zones.isBroadcastAddress(testing::address("192.0.2.127")));
    shell("ip link set lan0 down");
    settle();
    EXPECT_FALSE(zones.isInside(testing::address("192.0.2.2")));
}

TEST_F(MonitorTest, TheZonesHearOfRoutes) {
    shell("ip link set lan0 up && ip link set far0 up");
    shell("ip route add default via 192.0.2.2");
    settle();
    EXPECT_EQ(zones.sideOf(recordOf("lan0").get_u32(0x10004)), Side::outside);
}

TEST_F(MonitorTest, RoutesCanBeFollowedLater) {
    LanConfig named;
    named.interfaces = {{"lan0"}};
    Zones others(named);
    Monitor later(kernel, others, interfaces, addresses);
    ASSERT_EQ(later.start().reason(), "");
    others.start(watcher);
    shell("ip link set lan0 up && ip link set far0 up && ip link add wan0 type veth peer name far1");
    shell("ip link set wan0 up && ip link set far1 up");
    shell("ip route add default dev lan0");
    settle();
    const std::uint32_t lan = recordOf("lan0").get_u32(0x10004);
    const std::uint32_t wan = recordOf("wan0").get_u32(0x10004);
    EXPECT_EQ(later.followRoutes().reason(), "");
    others.setConfig({});
    EXPECT_EQ(others.sideOf(lan), Side::outside) << "a route that was there";
    EXPECT_EQ(others.sideOf(wan), Side::inside);
    shell("ip route add 203.0.113.0/24 dev wan0 && ip route add 9.9.9.0/24 dev wan0");
    settle();
    EXPECT_EQ(others.sideOf(wan), Side::outside) << "and one that came";
    EXPECT_EQ(later.followRoutes().reason(), "");
}

TEST_F(MonitorTest, TheZonesKnowWhatIsBelowWhat) {
    shell("ip link add br0 type bridge && ip link set far0 master br0 && ip link set br0 up");
    settle();
    zones.addExits({{recordOf("br0").get_u32(0x10004), Prefix{}}});
    EXPECT_EQ(zones.sideOf(recordOf("far0").get_u32(0x10004)), Side::outside);
    EXPECT_EQ(zones.sideOf(recordOf("lan0").get_u32(0x10004)), Side::inside)
        << "the other end of a pair is not below it";
    shell("ip link del br0");
}

// A VLAN is told in the same way; not every kernel makes them.
TEST_F(MonitorTest, TheLinkOfAnInterfaceIsBelowIt) {
    bool failed = false;
    tk::testing::run("ip link add link lan0 name lan0.7 type macvlan", failed);
    ASSERT_FALSE(failed);
    settle();
    zones.addExits({{recordOf("lan0.7").get_u32(0x10004), Prefix{}}});
    EXPECT_EQ(zones.sideOf(recordOf("lan0").get_u32(0x10004)), Side::outside);
    EXPECT_EQ(zones.sideOf(recordOf("far0").get_u32(0x10004)), Side::inside);
}

}  // namespace
}  // namespace links
