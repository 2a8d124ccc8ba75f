// The monitor with the real kernel, in a network namespace of the test's own.

#include "router/networkmonitor.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "router/natrule.h"
#include "router/testing/commands.h"
#include "router/testing/fakekernel.h"
#include "router/testing/testhub.h"
#include "tk/bus.h"
#include "tk/clock.h"
#include "tk/testing/folder.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/scriptedbus.h"

namespace router {
namespace {

class NetworkMonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        shell("ip link add lan0 type veth peer name far0 && ip addr add 192.0.2.1/24 dev lan0");
        std::string reason;
        ASSERT_TRUE(kernel.open(reason)) << reason;
        interfaces.attach(bus, {20, 0});
        addresses.attach(bus, {20, 1});
        interfaces.addWatcher(addresses);
        ASSERT_TRUE(monitor.start(reason)) << reason;
        bus.posted.clear();
    }
    void TearDown() override {
        bool failed = false;
        testing::run("ip link del lan0 2>&1; ip link del wan0 2>&1", failed);  // either may be gone
    }
    void shell(const std::string& command) {
        bool failed = false;
        testing::run(command, failed);
        ASSERT_FALSE(failed) << command;
    }
    /// Serves what the kernel has told by now.
    void settle() {
        for (int i = 0; i < 50; ++i) loop.looper.turn(0);
    }
    /// Serves what the kernel tells until the interface is running, or is not, for at most ten seconds: the
    /// kernel finds out about a link in its own time, which is behind the end of the command that changed it.
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
    testing::TestHub loop;
    tk::testing::ScriptedBus bus;
    tk::testing::Folder files;
    RtNetlink kernel;
    InterfaceIds ids{files.file("interfaces")};
    Interfaces interfaces{ids, kernel};
    Addresses addresses;
    NetworkMonitor monitor{kernel, interfaces, addresses};
};

TEST_F(NetworkMonitorTest, ReadsWhatIsThere) {
    const tk::message lan = recordOf("lan0");
    EXPECT_EQ(lan.get_u32(0x10001), 1U);
    EXPECT_TRUE(lan.get_bool(tk::field::disabled));
    EXPECT_FALSE(lan.get_bool(0x1000E));
    EXPECT_EQ(addressesOf(lan.get_u32(tk::field::objectId)), (Texts{"192.0.2.1"}));
    EXPECT_TRUE(recordOf("lo").empty());
}

TEST_F(NetworkMonitorTest, FollowsTheStatus) {
    shell("ip link set lan0 up && ip link set far0 up");
    settle();
    EXPECT_FALSE(recordOf("lan0").get_bool(tk::field::disabled));
    EXPECT_TRUE(becomesRunning("lan0", true));
    shell("ip link set far0 down");
    EXPECT_TRUE(becomesRunning("lan0", false));
}

TEST_F(NetworkMonitorTest, FollowsAddresses) {
    const std::uint32_t lan = recordOf("lan0").get_u32(tk::field::objectId);
    shell(
        "ip addr add 192.0.2.7 peer 203.0.113.7 dev lan0 && ip addr add 203.0.113.9/32 scope link dev lan0");
    settle();
    EXPECT_EQ(addressesOf(lan), (Texts{"192.0.2.1", "192.0.2.7"}));
    EXPECT_EQ(addresses.holdersOf(testing::address("203.0.113.9")),
              (std::vector<std::uint32_t>{recordOf("lan0").get_u32(0x10004)}));
    shell("ip addr del 203.0.113.9/32 dev lan0");
    settle();
    EXPECT_TRUE(addresses.holdersOf(testing::address("203.0.113.9")).empty());
    shell("ip addr del 192.0.2.1/24 dev lan0");
    settle();
    EXPECT_EQ(addressesOf(lan), (Texts{"192.0.2.7"}));
}

TEST_F(NetworkMonitorTest, FollowsAnInterfaceThatComesAndGoes) {
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

TEST_F(NetworkMonitorTest, LeavingABridgeIsNoEnd) {
    shell("ip link add br0 type bridge && ip link set lan0 master br0");
    settle();
    bus.posted.clear();
    shell("ip link set lan0 nomaster && ip link del br0");
    settle();
    EXPECT_FALSE(recordOf("lan0").empty());
    EXPECT_TRUE(recordOf("br0").empty());
}

TEST_F(NetworkMonitorTest, ReadsAgainWhenNotificationsWereLost) {
    // More changes than the socket's buffer holds, none of them read meanwhile.
    shell("ip link set lan0 up");
    std::string batch;
    for (int i = 0; i < 4000; ++i) batch += "link set lan0 alias a" + std::to_string(i) + "\\n";
    shell("printf '" + batch + "addr add 192.0.2.9/24 dev lan0\\n' | ip -batch -");
    settle();
    EXPECT_EQ(recordOf("lan0").get_string(0x10006), "a3999");
    EXPECT_EQ(addressesOf(recordOf("lan0").get_u32(tk::field::objectId)), (Texts{"192.0.2.1", "192.0.2.9"}));
    EXPECT_LT(bus.posted.size(), 4000U);  // or nothing was lost, and this test shows nothing
}

TEST_F(NetworkMonitorTest, SetsInterfacesUpAndDown) {
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

TEST_F(NetworkMonitorTest, CountersAreThoseOfTheKernel) {
    shell("ip link set lan0 addrgenmode none && ip link set far0 addrgenmode none");  // nothing but what is
                                                                                      // sent here
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

TEST_F(NetworkMonitorTest, LooksUpRoutes) {
    shell("ip link set lan0 up && ip link set far0 up && ip route add default via 192.0.2.254");
    const auto lan = recordOf("lan0").get_u32(0x10004);
    const auto routeTo = [this](const char* text) { return kernel.routeTo(testing::address(text)); };
    EXPECT_EQ(routeTo("192.0.2.2").type, Route::Type::unicast);
    EXPECT_EQ(routeTo("192.0.2.2").prefixLength, 24);
    EXPECT_EQ(routeTo("192.0.2.2").interfaces, (std::vector<std::uint32_t>{lan}));
    EXPECT_EQ(routeTo("192.0.2.1").type, Route::Type::local);
    EXPECT_EQ(routeTo("192.0.2.255").type, Route::Type::broadcast);
    EXPECT_EQ(routeTo("203.0.113.1").type, Route::Type::unicast);
    EXPECT_EQ(routeTo("203.0.113.1").prefixLength, 0);
    shell("ip route del default");
    EXPECT_EQ(routeTo("203.0.113.1").type, Route::Type::none);
}

TEST_F(NetworkMonitorTest, LooksUpRoutesOfSeveralPaths) {
    shell("ip link add wan0 type veth peer name far1 && ip addr add 198.51.100.1/24 dev wan0");
    shell("for i in lan0 far0 wan0 far1; do ip link set $i up; done");
    shell("ip route add 203.0.113.0/24 nexthop via 192.0.2.254 nexthop via 198.51.100.254");
    settle();
    const Route route = kernel.routeTo(testing::address("203.0.113.1"));
    EXPECT_EQ(route.prefixLength, 24);
    EXPECT_EQ(route.interfaces, (std::vector<std::uint32_t>{recordOf("lan0").get_u32(0x10004),
                                                            recordOf("wan0").get_u32(0x10004)}));
}

TEST_F(NetworkMonitorTest, LooksUpRoutesByNextHopObjects) {
    if (::access("/proc/sys/net/ipv4/nexthop_compat_mode", F_OK) != 0)
        GTEST_SKIP() << "this kernel has no nexthop objects";
    shell("ip link add wan0 type veth peer name far1 && ip addr add 198.51.100.1/24 dev wan0");
    shell("for i in lan0 far0 wan0 far1; do ip link set $i up; done");
    shell("ip nexthop add id 5 via 192.0.2.254 dev lan0 && ip nexthop add id 6 via 198.51.100.254 dev wan0");
    shell("ip nexthop add id 7 group 5/6 && ip nexthop add id 8 blackhole");
    shell("ip route add 203.0.113.0/26 nhid 6 && ip route add 203.0.113.64/26 nhid 7");
    shell("ip route add 203.0.113.128/26 nhid 8");
    settle();
    const std::uint32_t lan = recordOf("lan0").get_u32(0x10004);
    const std::uint32_t wan = recordOf("wan0").get_u32(0x10004);
    for (const char* mode : {"0", "1"}) {  // the ids alone, or what older programs understand as well
        shell(std::string("sysctl -qw net.ipv4.nexthop_compat_mode=") + mode);
        const auto routeTo = [this](const char* text) { return kernel.routeTo(testing::address(text)); };
        EXPECT_EQ(routeTo("203.0.113.1").interfaces, (std::vector<std::uint32_t>{wan})) << mode;
        EXPECT_EQ(routeTo("203.0.113.65").interfaces, (std::vector<std::uint32_t>{lan, wan})) << mode;
        EXPECT_EQ(routeTo("203.0.113.129").type, Route::Type::none) << mode;
    }
    shell("ip nexthop flush");
}

TEST_F(NetworkMonitorTest, RoutesThatLeadNowhereAreNone) {
    shell("ip link set lan0 up && ip link set far0 up && ip route add default via 192.0.2.254");
    for (const char* kind : {"unreachable", "blackhole", "prohibit"}) {
        shell(std::string("ip route replace ") + kind + " 203.0.113.0/24");
        EXPECT_EQ(kernel.routeTo(testing::address("203.0.113.1")).type, Route::Type::none) << kind;
    }
    shell("ip route del 203.0.113.0/24");
}

}  // namespace
}  // namespace router
