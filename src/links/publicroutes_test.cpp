// What routes tell of the interfaces with the real kernel, in a network namespace of the test's own.

#include "links/publicroutes.h"

#include <net/if.h>

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "links/testing/fakekernel.h"
#include "netlink/notifications.h"
#include "tk/looper.h"
#include "tk/runner.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/commands.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/scriptedbus.h"

namespace links {
namespace {

using Names = std::set<std::string>;

/// Passes on to the routes what the kernel tells.
class Feed final : private netlink::Notifications::Owner {
public:
    explicit Feed(PublicRoutes& routes) : routes(routes) {}
    tk::Status start() {
        if (tk::Status opened = notifications.open(NETLINK_ROUTE, PublicRoutes::groups); !opened.isOk())
            return opened;
        notifications.start();
        return routes.start();
    }

private:
    void heard(const nlmsghdr& message, bool) override { routes.heard(message); }
    void lost() override { routes.readAgain(); }

    PublicRoutes& routes;
    netlink::Notifications notifications{*this};
};

/// A router with two interfaces that may lead out, up0 and up1.
class PublicRoutesTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        shell("ip link add up0 type veth peer name far0 && ip link add up1 type veth peer name far1");
        shell("for i in up0 far0 up1 far1; do ip link set $i up; done");
        shell("ip addr add 198.51.100.1/24 dev up0 && ip addr add 203.0.113.1/24 dev up1");
        ASSERT_EQ(kernel.open().reason(), "");
        const auto links = kernel.readLinks();
        ASSERT_EQ(links.reason(), "");
        zones.applyAll(*links, {});
        zones.start(watcher);
    }
    void TearDown() override {
        bool failed = false;
        tk::testing::run("ip link del up0 2>&1; ip link del up1 2>&1; ip nexthop flush 2>&1", failed);
        tk::testing::run("ip route flush table all type blackhole; ip route flush table 100 2>&1", failed);
        tk::testing::run("sysctl -qw net.ipv4.nexthop_compat_mode=1", failed);
    }
    void start() { ASSERT_EQ(feed.start().reason(), ""); }
    static void shell(const std::string& command) {
        bool failed = false;
        tk::testing::run(command, failed);
        ASSERT_FALSE(failed) << command;
    }
    /// Makes the kernel show nexthop objects only by their ids. False when it has none.
    static bool usesNextHops() {
        bool failed = false;
        tk::testing::run("sysctl -qw net.ipv4.nexthop_compat_mode=0 2>&1", failed);
        return !failed;
    }
    Names outside() const {
        Names names;
        for (const char* name : {"up0", "up1"})
            if (zones.sideOf(::if_nametoindex(name)) == Side::outside) names.insert(name);
        return names;
    }
    /// Serves what the kernel has told by now, and almost nothing that follows from it. One turn is not
    /// enough: a reading may take up the first one.
    void serveWhatIsTold() {
        for (int i = 0; i < 5; ++i) looper.turn(0);
    }
    /// Serves what the kernel tells until the zones are as wanted, for at most half a minute: the duration of
    /// a reading, and so the distance to the next one, depends on the machine.
    Names outsideUntil(const Names& wanted) {
        const std::uint64_t limit = clock.now() + 30000;
        while (outside() != wanted && clock.now() < limit) looper.turn(5);
        return outside();
    }
    /// Serves what the kernel has told by now, and the readings that follow from that.
    void settle() {
        const std::uint64_t limit = clock.now() + 100;
        while (clock.now() < limit) looper.turn(5);
    }
    static void addManyRoutes() {
        const std::string line = "route add 10.1.\"int(i/256)\".\"i%256\"/32 dev up0";
        shell("awk 'BEGIN { for (i = 0; i < 20000; ++i) print \"" + line + "\" }' | ip -batch -");
    }

    const tk::testing::CapturedOutput output;
    tk::SystemClock clock;
    tk::testing::ScriptedBus bus;
    tk::Looper looper{clock, bus, contract::program::network};
    RtNetlink kernel;
    testing::IdleWatcher watcher;
    Zones zones;
    PublicRoutes routes{kernel, zones};
    Feed feed{routes};
};

TEST_F(PublicRoutesTest, CountFromTheStart) {
    shell("ip route add default via 198.51.100.2");
    start();
    EXPECT_EQ(outside(), Names{"up0"});
}

TEST_F(PublicRoutesTest, CountInEveryTable) {
    start();
    EXPECT_EQ(outside(), Names{});
    shell("ip route add default via 198.51.100.2");
    shell("ip route add 128.0.0.0/1 via 203.0.113.2 table 100");
    serveWhatIsTold();
    EXPECT_EQ(outside(), (Names{"up0", "up1"}));
}

TEST_F(PublicRoutesTest, CountForGood) {
    start();
    shell("ip route add 8.0.0.0/7 via 198.51.100.2");
    serveWhatIsTold();
    shell("ip route del 8.0.0.0/7 && ip link set up0 down");
    settle();
    EXPECT_EQ(outside(), Names{"up0"});
}

TEST_F(PublicRoutesTest, CountForAllTheirPaths) {
    start();
    shell("ip route add default nexthop via 198.51.100.2 nexthop via 203.0.113.2");
    serveWhatIsTold();
    EXPECT_EQ(outside(), (Names{"up0", "up1"}));
}

TEST_F(PublicRoutesTest, RoutesThatLeadNowhereOrStayPrivateDoNotCount) {
    start();
    shell("ip route add blackhole default && ip route add local default dev up1 table 100");
    shell("ip route add 10.0.0.0/8 via 203.0.113.2 && ip addr add 8.8.8.1/24 dev up1");
    settle();
    EXPECT_EQ(outside(), Names{});
}

TEST_F(PublicRoutesTest, AFallbackDoesNotCountWhileItIsOne) {
    shell("ip route add default via 198.51.100.2 metric 10");
    shell("ip route add default via 203.0.113.2 metric 1000");
    start();
    EXPECT_EQ(outside(), Names{"up0"});
    shell("ip route replace default via 203.0.113.2 metric 2000");
    settle();
    EXPECT_EQ(outside(), Names{"up0"});
    shell("ip route del default via 198.51.100.2 metric 10");
    EXPECT_EQ(outsideUntil({"up0", "up1"}), (Names{"up0", "up1"}));
}

TEST_F(PublicRoutesTest, AFallbackCountsWhenTheInterfaceOfTheBetterRouteGoesDown) {
    shell("ip route add default via 198.51.100.2 metric 10");
    shell("ip route add default via 203.0.113.2 metric 1000");
    start();
    shell("ip link set up0 down");  // the kernel tells only of the link
    EXPECT_EQ(outsideUntil({"up0", "up1"}), (Names{"up0", "up1"}));
}

TEST_F(PublicRoutesTest, ARouteWithAMetricCountsOnceTheOthersAreRead) {
    start();
    shell("ip route add default via 198.51.100.2 metric 100");
    EXPECT_EQ(outsideUntil({"up0"}), Names{"up0"});
}

TEST_F(PublicRoutesTest, FollowWhereNextHopObjectsLead) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    shell("ip nexthop add id 7 via 198.51.100.2 dev up0 && ip route add default nhid 7");
    start();
    EXPECT_EQ(outside(), Names{"up0"});
    shell("ip nexthop replace id 7 via 203.0.113.2 dev up1");
    EXPECT_EQ(outsideUntil({"up0", "up1"}), (Names{"up0", "up1"}));
}

TEST_F(PublicRoutesTest, CountForAllMembersOfAGroup) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    start();
    shell("ip nexthop add id 7 via 198.51.100.2 dev up0 && ip nexthop add id 8 via 203.0.113.2 dev up1");
    shell("ip nexthop add id 9 group 7/8 && ip route add default nhid 9");
    serveWhatIsTold();
    EXPECT_EQ(outside(), (Names{"up0", "up1"}));
}

TEST_F(PublicRoutesTest, AnObjectWithoutARouteDoesNotCount) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    shell("ip nexthop add id 7 via 198.51.100.2 dev up0 && ip route add default nhid 7");
    start();
    shell("ip route del default && ip nexthop replace id 7 via 203.0.113.2 dev up1");
    settle();
    EXPECT_EQ(outside(), Names{"up0"});
}

TEST_F(PublicRoutesTest, FollowANextHopObjectThatLedNowhere) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    shell("ip nexthop add id 7 blackhole && ip route add default nhid 7");
    start();
    EXPECT_EQ(outside(), Names{});
    shell("ip nexthop replace id 7 via 203.0.113.2 dev up1");
    EXPECT_EQ(outsideUntil({"up1"}), Names{"up1"});
}

TEST_F(PublicRoutesTest, WhatIsKnownCountsWhileANextHopObjectCannotBeRead) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    RtNetlink closed;  // each of its requests fails until it is opened
    PublicRoutes blind(closed, zones);
    Feed sight(blind);
    ASSERT_EQ(sight.start().reason(), "");
    shell("ip nexthop add id 7 via 203.0.113.2 dev up1 && ip route add default nhid 7");
    shell("ip route add default via 198.51.100.2 table 100");
    EXPECT_EQ(outsideUntil({"up0"}), Names{"up0"}) << "what is known without the object";
    ASSERT_EQ(closed.open().reason(), "");
    EXPECT_EQ(outsideUntil({"up0", "up1"}), (Names{"up0", "up1"}));
}

TEST_F(PublicRoutesTest, DoNotStartWhenItIsNotKnownWhereARouteLeads) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    shell("ip nexthop add id 7 via 203.0.113.2 dev up1 && ip route add default nhid 7");
    RtNetlink closed;
    PublicRoutes blind(closed, zones);
    EXPECT_EQ(blind.start().reason(), "nexthop 7 cannot be read: Bad file descriptor");
}

TEST_F(PublicRoutesTest, AChangeDuringAReadingLeadsToAnother) {
    shell("ip route add default via 198.51.100.2 metric 10");
    shell("ip route add default via 203.0.113.2 metric 1000");
    start();
    addManyRoutes();
    settle();
    shell("ip route add 9.9.9.9 via 203.0.113.2 metric 5 table 100 && ip route flush table 100");
    looper.turn(0);                               // hears of it
    for (int i = 0; i < 5; ++i) looper.turn(20);  // begins to read, and takes a small part
    shell("ip link set up0 down");                // the reading is past its route by now
    EXPECT_EQ(outsideUntil({"up0", "up1"}), (Names{"up0", "up1"}));
}

TEST_F(PublicRoutesTest, AreReadAgainWhenNotificationsWereLost) {
    start();
    addManyRoutes();  // more than the socket's buffer holds, and then what matters
    shell("ip route add default via 198.51.100.2");
    EXPECT_EQ(outsideUntil({"up0"}), Names{"up0"});
}

TEST_F(PublicRoutesTest, ManyRoutesOutOfAnInterfaceThatIsOutsideAreNotReadAgain) {
    shell("ip route add default via 198.51.100.2");
    start();
    const std::string line = "route add 8.1.0.\"i%256\"/32 via 198.51.100.2 metric 20";
    for (int round = 0; round < 3; ++round) {
        shell("awk 'BEGIN { for (i = 0; i < 256; ++i) print \"" + line + "\" }' | ip -batch -");
        shell("ip route flush root 8.1.0.0/24");
        serveWhatIsTold();
        EXPECT_FALSE(routes.isReading());
    }
    EXPECT_EQ(outside(), Names{"up0"});
}

}  // namespace
}  // namespace links
