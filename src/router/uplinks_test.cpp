// The guard's interfaces with the real kernel, in a network namespace of the test's own.

#include "router/uplinks.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "router/testing/commands.h"
#include "tk/clock.h"
#include "tk/looper.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/scriptedbus.h"

namespace router {
namespace {

using Names = std::set<std::string>;

class UplinksTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        shell("ip link add up0 type veth peer name far0 && ip link add up1 type veth peer name far1");
        shell("for i in up0 far0 up1 far1; do ip link set $i up; done");
        shell("ip addr add 198.51.100.1/24 dev up0 && ip addr add 203.0.113.1/24 dev up1");
        std::string reason;
        ASSERT_TRUE(kernel.open(reason)) << reason;
        ASSERT_TRUE(table.open(reason)) << reason;
    }
    void TearDown() override {
        bool failed = false;
        testing::run("ip link del up0 2>&1; ip link del up1 2>&1; ip nexthop flush 2>&1", failed);
        testing::run("ip route flush table all type blackhole; ip route flush table 100 2>&1", failed);
        testing::run("sysctl -qw net.ipv4.nexthop_compat_mode=1", failed);
    }
    void start() {
        std::string reason;
        ASSERT_TRUE(uplinks.start(reason)) << reason;
    }
    static void shell(const std::string& command) {
        bool failed = false;
        testing::run(command, failed);
        ASSERT_FALSE(failed) << command;
    }
    /// Lets the kernel show nexthop objects by their ids alone. False when it has none.
    static bool usesNextHops() {
        bool failed = false;
        testing::run("sysctl -qw net.ipv4.nexthop_compat_mode=0 2>&1", failed);
        return !failed;
    }
    /// The interfaces that are guarded now.
    static Names guarded() {
        bool failed = false;
        const std::string text = testing::run("nft list set ip tk uplinks", failed);
        EXPECT_FALSE(failed);
        Names names;
        for (const char* name : {"up0", "up1"})
            if (text.find('"' + std::string(name) + '"') != std::string::npos) names.insert(name);
        return names;
    }
    /// Serves what the kernel has told by now, and next to nothing that follows from that. One turn is not
    /// enough where a reading takes the time of the first one.
    void serveWhatIsTold() {
        for (int i = 0; i < 5; ++i) looper.turn(0);
    }
    /// Serves what the kernel tells until the guard is as wanted, for at most half a minute: how long a
    /// reading takes, and with it the distance to the next one, is the machine's business.
    Names guardedUntil(const Names& wanted) {
        const std::uint64_t limit = clock.now() + 30000;
        while (guarded() != wanted && clock.now() < limit) looper.turn(5);
        return guarded();
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
    /// Lets the reading of very many routes, the default ones first, be under way.
    void beginLongReading() {
        addManyRoutes();
        settle();
        shell("ip link set up0 alias another");
        looper.turn(0);                               // hears of it
        for (int i = 0; i < 5; ++i) looper.turn(20);  // begins, and takes a small part
    }

    tk::SystemClock clock;
    tk::testing::ScriptedBus bus;
    tk::Looper looper{clock, bus, tk::program::network};
    RtNetlink kernel;
    NftTable table;
    Uplinks uplinks{kernel, table};
};

TEST_F(UplinksTest, AreThereFromTheStart) {
    shell("ip route add default via 198.51.100.2");
    start();
    EXPECT_EQ(guarded(), Names{"up0"});
}

TEST_F(UplinksTest, FollowTheRoutesOfEveryTable) {
    start();
    EXPECT_EQ(guarded(), Names{});
    shell("ip route add default via 198.51.100.2");
    shell("ip route add 128.0.0.0/1 via 203.0.113.2 table 100");
    EXPECT_EQ(guardedUntil({"up0", "up1"}), (Names{"up0", "up1"}));
    settle();
    shell("ip route del default");
    EXPECT_EQ(guardedUntil({"up1"}), Names{"up1"});
    shell("ip link set up1 down");  // which the kernel tells of the link alone
    EXPECT_EQ(guardedUntil({}), Names{});
}

TEST_F(UplinksTest, AreAllPathsOfARoute) {
    start();
    shell("ip route add default nexthop via 198.51.100.2 nexthop via 203.0.113.2");
    EXPECT_EQ(guardedUntil({"up0", "up1"}), (Names{"up0", "up1"}));
}

TEST_F(UplinksTest, RoutesThatLeadNowhereAreNone) {
    start();
    shell("ip route add default via 198.51.100.2");
    EXPECT_EQ(guardedUntil({"up0"}), Names{"up0"});
    shell("ip route replace blackhole default && ip route add local default dev up1 table 100");
    EXPECT_EQ(guardedUntil({}), Names{});
}

TEST_F(UplinksTest, ARouteThatComesCountsBeforeTheOthersAreRead) {
    start();
    shell("ip route add default via 198.51.100.2");
    serveWhatIsTold();
    EXPECT_EQ(guarded(), Names{"up0"});
    shell("ip route replace default via 203.0.113.2");
    serveWhatIsTold();
    EXPECT_EQ(guarded().count("up1"), 1U);
    EXPECT_EQ(guardedUntil({"up1"}), Names{"up1"});
}

TEST_F(UplinksTest, FollowWhereNextHopObjectsLead) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    shell("ip nexthop add id 7 via 198.51.100.2 dev up0 && ip nexthop add id 8 via 203.0.113.2 dev up1");
    shell("ip route add default nhid 7");
    start();
    EXPECT_EQ(guarded(), Names{"up0"});
    shell("ip nexthop replace id 7 via 203.0.113.2 dev up1");
    EXPECT_EQ(guardedUntil({"up1"}), Names{"up1"});
    shell("ip nexthop replace id 7 via 198.51.100.2 dev up0 && ip nexthop add id 9 group 7/8");
    shell("ip route replace default nhid 9");
    EXPECT_EQ(guardedUntil({"up0", "up1"}), (Names{"up0", "up1"}));
    shell("ip nexthop del id 7");  // a group goes on without
    EXPECT_EQ(guardedUntil({"up1"}), Names{"up1"});
    shell("ip nexthop del id 8");  // and with the last one, the group and its routes
    EXPECT_EQ(guardedUntil({}), Names{});
}

TEST_F(UplinksTest, FollowANextHopObjectThatLedNowhere) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    shell("ip nexthop add id 7 blackhole && ip route add default nhid 7");
    start();
    EXPECT_EQ(guarded(), Names{});
    shell("ip nexthop replace id 7 via 203.0.113.2 dev up1");
    EXPECT_EQ(guardedUntil({"up1"}), Names{"up1"});
}

TEST_F(UplinksTest, WhatIsKnownIsGuardedWhileANextHopObjectCannotBeRead) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    shell("ip route add default via 198.51.100.2");
    RtNetlink closed;  // every request of it fails until it is opened
    Uplinks blind(closed, table);
    std::string reason;
    ASSERT_TRUE(blind.start(reason)) << reason;
    ASSERT_EQ(guarded(), Names{"up0"});
    shell("ip nexthop add id 7 via 203.0.113.2 dev up1 && ip route replace default nhid 7");
    const std::uint64_t limit = clock.now() + 1500;  // so that all routes are read once more
    for (; clock.now() < limit; looper.turn(5))
        ASSERT_EQ(guarded(), Names{"up0"}) << "what it was told before";
    shell("ip route add default via 203.0.113.2 dev up1 table 100");
    EXPECT_EQ(guardedUntil({"up0", "up1"}), (Names{"up0", "up1"})) << "what is known without the object";
    shell("ip route flush table 100");
    ASSERT_TRUE(closed.open(reason)) << reason;
    EXPECT_EQ(guardedUntil({"up1"}), Names{"up1"});
}

TEST_F(UplinksTest, DoNotStartWhenItIsNotKnownWhereARouteLeads) {
    if (!usesNextHops()) GTEST_SKIP() << "this kernel has no nexthop objects";
    shell("ip nexthop add id 7 via 203.0.113.2 dev up1 && ip route add default nhid 7");
    RtNetlink closed;
    Uplinks blind(closed, table);
    std::string reason;
    EXPECT_FALSE(blind.start(reason));
    EXPECT_EQ(reason, "nexthop 7 cannot be read: Bad file descriptor");
}

TEST_F(UplinksTest, AChangeDuringAReadingLeadsToAnother) {
    shell("ip route add default via 203.0.113.2");
    start();
    beginLongReading();
    shell("ip link set up1 down");  // its route is behind the reading by now
    EXPECT_EQ(guardedUntil({}), Names{});
}

TEST_F(UplinksTest, ARouteThatComesDuringAReadingIsNotForgottenAtItsEnd) {
    start();
    beginLongReading();
    shell("ip route add default via 203.0.113.2");
    serveWhatIsTold();
    const std::uint64_t limit = clock.now() + 500;
    for (; clock.now() < limit; looper.turn(5)) ASSERT_EQ(guarded(), Names{"up1"});
}

TEST_F(UplinksTest, AreReadAgainWhenNotificationsWereLost) {
    shell("ip route add default via 198.51.100.2");
    start();
    // More than the socket's buffer holds of what does not concern the guard, and the end of a route behind
    // it.
    addManyRoutes();
    shell("ip route del default");
    EXPECT_EQ(guardedUntil({}), Names{});
}

}  // namespace
}  // namespace router
