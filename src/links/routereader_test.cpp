// The reading of many routes with the real kernel, in a network namespace of the test's own.

#include "links/routereader.h"

#include <net/if.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "tk/looper.h"
#include "tk/runner.h"
#include "tk/testing/commands.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/scriptedbus.h"

namespace links {
namespace {

Route route(std::vector<std::uint32_t> interfaces, bool leadsSomewhere = true) {
    Route made;
    made.leadsSomewhere = leadsSomewhere;
    made.interfaces = std::move(interfaces);
    return made;
}

template <typename Map>
std::set<std::uint32_t> keysOf(const Map& map) {
    std::set<std::uint32_t> keys;
    for (const auto& [key, value] : map) keys.insert(key);
    return keys;
}

TEST(RouteExits, ARouteByAnObjectIsKeptByItsIdWhateverIsShownOfIt) {
    RouteExits exits;
    exits.add(route({2, 3}));
    Route byObject = route({4});
    byObject.nextHop = 7;
    exits.add(byObject);
    byObject = route({}, false);  // of an object that is a blackhole now
    byObject.nextHop = 8;
    exits.add(byObject);
    exits.add(route({5}, false));
    EXPECT_EQ(keysOf(exits.interfaces), (std::set<std::uint32_t>{2, 3}));
    EXPECT_EQ(keysOf(exits.nextHops), (std::set<std::uint32_t>{7, 8}));
}

class RouteReaderTest : public ::testing::Test, protected RouteReader::Owner {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        shell("ip link add up0 type veth peer name far0 && ip link add up1 type veth peer name far1");
        shell("for i in up0 far0 up1 far1; do ip link set $i up; done");
        ASSERT_EQ(routes.open().reason(), "");
    }
    void TearDown() override {
        bool failed = false;
        tk::testing::run("ip link del up0 2>&1; ip link del up1 2>&1", failed);
        tk::testing::run("ip route flush type blackhole; ip route flush table 100 2>&1", failed);
    }
    static void shell(const std::string& command) {
        bool failed = false;
        tk::testing::run(command, failed);
        ASSERT_FALSE(failed) << command;
    }
    static void addRoutes(int count) {
        const std::string line = "route add 10.\"int(i/65536)\".\"int(i/256)%256\".\"i%256\"/32 dev up0";
        shell("awk 'BEGIN { for (i = 0; i < " + std::to_string(count) + "; ++i) print \"" + line +
              "\" }' | ip -batch -");
    }
    void routesRead(const RouteExits& exits, bool isComplete) override {
        ++readings;
        found = exits;
        EXPECT_TRUE(isComplete);
    }
    void routesUnread(const tk::Status& why) override { ADD_FAILURE() << why.reason(); }

    using Names = std::set<std::string>;
    static Names namesOf(const std::set<std::uint32_t>& indexes) {
        Names names;
        for (const std::uint32_t index : indexes) {
            char name[IF_NAMESIZE] = {};
            names.insert(::if_indextoname(index, name) ? name : "?");
        }
        return names;
    }
    /// The interfaces that carry what counts.
    Names read() {
        routes.begin();
        routes.complete();
        return namesOf(keysOf(found.interfaces));
    }

    tk::SystemClock clock;
    tk::testing::ScriptedBus bus;
    tk::Looper looper{clock, bus, contract::program::network};
    RouteReader routes{*this};
    RouteExits found;
    int readings = 0;
};

TEST_F(RouteReaderTest, AreReadInManyTurnsOfTheLoop) {
    addRoutes(20000);
    shell("ip route add 128.0.0.0/1 dev up0");  // after all others
    routes.begin();
    int turns = 0;
    for (; routes.isBusy() && turns < 20000; ++turns) looper.turn(100);
    EXPECT_EQ(readings, 1);
    EXPECT_EQ(found.interfaces.size(), 1U);
    EXPECT_GT(turns, 10);
    EXPECT_GT(routes.cost().count(), 0);
}

TEST_F(RouteReaderTest, AreThereWhenSomebodyWaits) {
    shell("ip route add default dev up0");
    routes.begin();
    EXPECT_TRUE(routes.isBusy());
    routes.complete();
    EXPECT_FALSE(routes.isBusy());
    EXPECT_EQ(found.interfaces.size(), 1U);
}

TEST_F(RouteReaderTest, CanBeReadAgainAndAgain) {
    for (int i = 0; i < 3; ++i) {
        shell(i == 1 ? "ip route add default dev up0" : "ip route flush exact default");
        routes.begin();
        routes.complete();
        EXPECT_EQ(found.interfaces.size(), i == 1 ? 1U : 0U);
    }
    EXPECT_EQ(readings, 3);
}

TEST_F(RouteReaderTest, OnlyTheLowestMetricOfADestinationCounts) {
    shell("ip route add default dev up0 metric 100 && ip route add default dev up1 metric 1000");
    EXPECT_EQ(read(), Names{"up0"});
    EXPECT_EQ(namesOf(found.fallbacks), Names{"up1"});
    shell("ip route add default dev up1 metric 1000 table 100");
    EXPECT_EQ(read(), (Names{"up0", "up1"})) << "in a table of its own it is the best one";
    shell("ip route flush table 100 && ip route add 128.0.0.0/1 dev up1 metric 1000");
    EXPECT_EQ(read(), (Names{"up0", "up1"})) << "half of everything is another destination";
    shell("ip route del 128.0.0.0/1 && ip route del default dev up0");
    EXPECT_EQ(read(), Names{"up1"});
    EXPECT_EQ(namesOf(found.fallbacks), Names{});
}

TEST_F(RouteReaderTest, ARouteWorseThanOneThatLeadsNowhereIsAFallback) {
    shell("ip route add blackhole default metric 10 && ip route add default dev up1 metric 20");
    EXPECT_EQ(read(), Names{});
    EXPECT_EQ(namesOf(found.fallbacks), Names{"up1"});
}

TEST_F(RouteReaderTest, WhatIsPrivateOrTheInterfacesOwnDoesNotCount) {
    shell("ip addr add 8.8.8.1/24 dev up0 && ip addr add 9.9.9.1 peer 9.9.9.2 dev up0");
    shell("ip route add 10.0.0.0/8 dev up0 && ip route add 203.0.113.0/24 dev up0");
    shell("ip route add 224.0.0.0/4 dev up0 && ip route add 255.255.255.255 dev up0");
    EXPECT_EQ(read(), Names{});
    shell("ip route add 8.0.0.0/7 via 8.8.8.2 dev up0");
    EXPECT_EQ(read(), Names{"up0"});
}

TEST_F(RouteReaderTest, OneHostOfTheInternetIsEnough) {
    shell("ip route add 1.1.1.1 dev up1");
    EXPECT_EQ(read(), Names{"up1"});
}

}  // namespace
}  // namespace links
