// What comes back after a crash.

#include "hub/activation.h"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "hub/testing/fakeprocesses.h"
#include "hub/testing/testhub.h"

namespace hub {
namespace {

constexpr std::uint32_t second = 100;  // ticks
constexpr int good = 0;
constexpr int status1 = 1 << 8;
constexpr int killed = SIGKILL;

/// Programs that the configuration starts, without anybody asking for them.
class RestartTest : public ::testing::Test {
protected:
    ~RestartTest() override { bus.hub.close(); }

    void startAll() {
        activation.startConfigured();
        bus.settle();
    }
    void end(int status) {
        processes.end(status);
        bus.settle();
    }
    /// How often the program has been started.
    std::size_t starts() const { return processes.started.size(); }

    testing::FakeProcesses processes;
    testing::TestHub bus;
    Activation activation{
        {{80, {"/upnpd"}, true, {}, ""}, {14, {"/resolverd"}, false, {}, ""}}, bus.hub, processes};
};

TEST_F(RestartTest, AProgramThatWasOnTheBusComesBackASecondAfterItsCrash) {
    startAll();
    for (std::size_t life = 1; life < 5; ++life) {
        activation.registered(80);
        end(killed);
        bus.advance(second - 1);
        EXPECT_EQ(starts(), life);
        bus.advance(1);
        EXPECT_EQ(starts(), life + 1);
    }
}

TEST_F(RestartTest, OneThatNeverComesToTheBusIsTriedLessAndLessOften) {
    startAll();
    std::size_t attempts = 1;
    for (const std::uint32_t ticks : {100U, 200U, 400U, 800U, 1600U, 3200U, 6400U, 6400U}) {
        end(status1);
        bus.advance(ticks - 1);
        EXPECT_EQ(starts(), attempts);
        bus.advance(1);
        EXPECT_EQ(starts(), ++attempts);
    }
    activation.registered(80);
    end(status1);
    bus.advance(second);
    EXPECT_EQ(starts(), attempts + 1);
}

TEST_F(RestartTest, OneThatLeavesWithStatus0StaysAway) {
    startAll();
    activation.registered(80);
    end(good);
    bus.advance(Restart::mostTicks);
    EXPECT_EQ(starts(), 1U);
}

TEST_F(RestartTest, OneThatIsOnlyStartedByMessagesStaysAway) {
    ASSERT_TRUE(activation.start(14).isOk());
    bus.settle();
    end(killed);
    bus.advance(Restart::mostTicks);
    EXPECT_EQ(starts(), 1U);
}

TEST_F(RestartTest, OneThatAMessageHasStartedMeanwhileIsNotStartedTwice) {
    startAll();
    end(killed);
    ASSERT_TRUE(activation.start(80).isOk());
    bus.advance(second);
    EXPECT_EQ(starts(), 2U);
}

TEST_F(RestartTest, OneThatAMessageHasStartedAndThatLeftByItselfStaysAway) {
    startAll();
    end(killed);
    ASSERT_TRUE(activation.start(80).isOk());
    bus.settle();
    end(good);
    bus.advance(Restart::mostTicks);
    EXPECT_EQ(starts(), 2U);
}

TEST_F(RestartTest, OneThatCannotBeStartedIsTriedAgain) {
    processes.fault = "no memory";
    startAll();
    EXPECT_EQ(starts(), 1U);
    bus.advance(second);
    EXPECT_EQ(starts(), 2U);
    processes.fault.clear();
    bus.advance(2 * second);
    EXPECT_EQ(starts(), 3U);
    bus.advance(Restart::mostTicks);
    EXPECT_EQ(starts(), 3U);
}

TEST_F(RestartTest, OneWhosePathIsMendedIsStartedAtOnceAndThenTriedAsUsual) {
    processes.fault = "no such file";
    startAll();
    bus.advance(second);
    ASSERT_EQ(starts(), 2U);
    processes.fault.clear();
    activation.setConfig({{80, {"/usr/upnpd"}, true, {}, ""}});
    EXPECT_EQ(starts(), 3U);
    EXPECT_EQ(processes.started.back(), "/usr/upnpd");
    bus.advance(Restart::mostTicks);
    EXPECT_EQ(starts(), 3U) << "the former wait is over";
    end(status1);
    bus.advance(second);
    EXPECT_EQ(starts(), 4U);
}

TEST_F(RestartTest, OneThatIsConfiguredAsBeforeWaitsOn) {
    startAll();
    end(status1);
    activation.setConfig({{80, {"/upnpd"}, true, {}, ""}});
    bus.advance(second - 1);
    EXPECT_EQ(starts(), 1U);
    bus.advance(1);
    EXPECT_EQ(starts(), 2U);
}

TEST_F(RestartTest, OneThatRunsGoesOnWhenItIsConfiguredInAnotherWay) {
    startAll();
    activation.setConfig({{80, {"/usr/upnpd"}, true, {}, ""}});
    EXPECT_EQ(starts(), 1U);
    end(status1);
    bus.advance(second);
    EXPECT_EQ(processes.started.back(), "/usr/upnpd");
}

TEST_F(RestartTest, OneWhoseUnitBecomesACommandIsStarted) {
    activation.setConfig({{80, {}, true, {}, "wrong.service"}});
    bus.settle();
    end(status1);
    ASSERT_EQ(starts(), 1U);
    activation.setConfig({{80, {"/upnpd"}, true, {}, ""}});
    EXPECT_EQ(starts(), 2U);
}

TEST_F(RestartTest, AnEndIsToldWithNothingRunningAnyMore) {
    startAll();
    int told = 0;
    activation.setEndWatcher([this, &told] {
        ++told;
        EXPECT_FALSE(activation.runsAs(80, ::geteuid()));
    });
    EXPECT_TRUE(activation.runsAs(80, ::geteuid()));
    EXPECT_FALSE(activation.runsAs(80, ::geteuid() + 1));
    EXPECT_FALSE(activation.runsAs(14, ::geteuid()));
    end(killed);
    EXPECT_EQ(told, 1);
}

TEST_F(RestartTest, AProcessRunsAsTheUserThatItWasStartedAs) {
    activation.setConfig(
        {{14, {"/resolverd"}, true, tk::Account{.name = "a", .uid = 71, .groups = {}, .busGroup = {}}}});
    activation.setConfig(
        {{14, {"/resolverd"}, true, tk::Account{.name = "b", .uid = 72, .groups = {}, .busGroup = {}}}});
    EXPECT_TRUE(activation.runsAs(14, 71));
    EXPECT_FALSE(activation.runsAs(14, 72));
}

TEST_F(RestartTest, NothingComesBackWhenTheRouterEnds) {
    startAll();
    end(killed);
    activation.endAll();
    bus.advance(Restart::mostTicks);
    EXPECT_EQ(starts(), 1U);
}

}  // namespace
}  // namespace hub
