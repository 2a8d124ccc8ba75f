// The reading of many routes with the real kernel, in a network namespace of the test's own.

#include "router/defaultroutes.h"

#include <gtest/gtest.h>

#include "router/testing/commands.h"
#include "tk/clock.h"
#include "tk/looper.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/scriptedbus.h"

namespace router {
namespace {

TEST(DefaultExits, ARouteByAnObjectIsKeptByItsIdWhateverIsShownOfIt) {
    DefaultExits exits;
    exits.add({Route::Type::unicast, 0, {2, 3}});
    exits.add({Route::Type::unicast, 1, {4}, 7});
    exits.add({Route::Type::none, 0, {}, 8});  // of an object that is a blackhole now
    exits.add({Route::Type::local, 0, {5}});
    EXPECT_EQ(exits.interfaces, (std::set<std::uint32_t>{2, 3}));
    EXPECT_EQ(exits.nextHops, (std::set<std::uint32_t>{7, 8}));
}

class DefaultRoutesTest : public ::testing::Test, protected DefaultRoutes::Owner {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        shell("ip link add up0 type veth peer name far0 && ip link set up0 up && ip link set far0 up");
        std::string reason;
        ASSERT_TRUE(routes.open(reason)) << reason;
    }
    void TearDown() override {
        bool failed = false;
        testing::run("ip link del up0 2>&1", failed);
    }
    static void shell(const std::string& command) {
        bool failed = false;
        testing::run(command, failed);
        ASSERT_FALSE(failed) << command;
    }
    static void addRoutes(int count) {
        const std::string line = "route add 10.\"int(i/65536)\".\"int(i/256)%256\".\"i%256\"/32 dev up0";
        shell("awk 'BEGIN { for (i = 0; i < " + std::to_string(count) + "; ++i) print \"" + line +
              "\" }' | ip -batch -");
    }
    void defaultRoutesRead(const DefaultExits& exits, bool isComplete) override {
        ++readings;
        found = exits;
        EXPECT_TRUE(isComplete);
    }
    void defaultRoutesUnread(const std::string& reason) override { ADD_FAILURE() << reason; }

    tk::SystemClock clock;
    tk::testing::ScriptedBus bus;
    tk::Looper looper{clock, bus, tk::program::network};
    DefaultRoutes routes{*this};
    DefaultExits found;
    int readings = 0;
};

TEST_F(DefaultRoutesTest, AreReadInManyTurnsOfTheLoop) {
    addRoutes(20000);
    shell("ip route add 128.0.0.0/1 dev up0");  // behind all others
    routes.begin();
    int turns = 0;
    for (; routes.isBusy() && turns < 20000; ++turns) looper.turn(100);
    EXPECT_EQ(readings, 1);
    EXPECT_EQ(found.interfaces.size(), 1U);
    EXPECT_GT(turns, 10);
    EXPECT_GT(routes.cost().count(), 0);
}

TEST_F(DefaultRoutesTest, AreThereWhenSomebodyWaits) {
    shell("ip route add default dev up0");
    routes.begin();
    EXPECT_TRUE(routes.isBusy());
    routes.complete();
    EXPECT_FALSE(routes.isBusy());
    EXPECT_EQ(found.interfaces.size(), 1U);
}

TEST_F(DefaultRoutesTest, CanBeReadAgainAndAgain) {
    for (int i = 0; i < 3; ++i) {
        shell(i == 1 ? "ip route add default dev up0" : "ip route flush exact default");
        routes.begin();
        routes.complete();
        EXPECT_EQ(found.interfaces.size(), i == 1 ? 1U : 0U);
    }
    EXPECT_EQ(readings, 3);
}

}  // namespace
}  // namespace router
