// Programs that a trigger asks for.

#include "hub/activation.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hub/testing/awaitedprogram.h"
#include "hub/testing/testhub.h"
#include "tk/names.h"
#include "tk/testing/folder.h"

namespace hub {
namespace {

using testing::codeOf;

/// A program that is asked for by a trigger.
class TriggerTest : public testing::AwaitedProgram {
protected:
    explicit TriggerTest(bool startsWithRouter = false)
        : activation({{80, {}, startsWithRouter, {}, {}, trigger}}, bus.hub, processes) {}
    ~TriggerTest() override { bus.hub.close(); }

    /// True when the trigger was pulled since the last call.
    bool isPulled() const { return ::unlink(trigger.c_str()) == 0; }
    void leave() {
        program->close();
        bus.settle();
        client->take();
    }
    /// How often the trigger is pulled within a time.
    int pulls(std::uint32_t seconds) {
        int count = 0;
        for (std::uint32_t i = 0; i < seconds; ++i) {
            bus.advance(second);
            if (isPulled()) ++count;
        }
        return count;
    }

    const tk::testing::Folder folder;
    const std::string trigger = folder.file("upnpd");
    Activation activation;
};

TEST_F(TriggerTest, ARequestPullsItAndWaitsForTheProgram) {
    EXPECT_FALSE(isPulled());
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
    EXPECT_FALSE(activation.isRunning()) << "it is no process of the router's";
    const auto requests = come();
    ASSERT_EQ(requests.size(), 1U);
    program->answer(requests.front(), {});
    bus.settle();
    EXPECT_EQ(client->take().size(), 1U);
    EXPECT_EQ(pulls(60), 0);
    EXPECT_TRUE(processes.started.empty());
}

TEST_F(TriggerTest, ItIsPulledEachSecondWhileTheProgramIsAwaited) {
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
    for (std::uint32_t ticks = second; ticks < 2 * Hub::expiryTicks; ticks += second) {
        bus.advance(second);
        ASSERT_TRUE(isPulled());
    }
    EXPECT_TRUE(client->take().empty());
    bus.advance(second);
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(tk::getError(ends.front()), "the program was started, but did not come to the bus in time");
    (void)isPulled();
    EXPECT_EQ(pulls(60), 0) << "nobody waits for it any more";
}

TEST_F(TriggerTest, RequestsWithinASecondPullItOnce) {
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
    EXPECT_TRUE(ask().empty());
    EXPECT_FALSE(isPulled());
}

TEST_F(TriggerTest, ItIsPulledAgainForAProgramThatLeft) {
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
    come();
    leave();
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
    EXPECT_EQ(come().size(), 1U);
}

TEST_F(TriggerTest, ThatCannotBePulledEndsTheRequestAtOnce) {
    ASSERT_EQ(::mkdir(trigger.c_str(), 0700), 0);
    const auto ends = ask();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(codeOf(ends.front()), tk::error::unreachable);
    EXPECT_EQ(tk::getError(ends.front()), trigger + ": Is a directory");
}

TEST_F(TriggerTest, ThatCannotBePulledAgainEndsTheRequests) {
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
    ASSERT_EQ(::mkdir(trigger.c_str(), 0700), 0);
    bus.advance(second);
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(tk::getError(ends.front()), trigger + ": Is a directory");
}

TEST_F(TriggerTest, TheEndOfTheRouterPullsItNoMore) {
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
    activation.endAll();
    EXPECT_EQ(pulls(5), 0);
    EXPECT_TRUE(processes.signals.empty());
}

TEST_F(TriggerTest, ACommandInItsPlaceServesTheRequestsThatWait) {
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
    activation.setConfig({{80, {"/upnpd"}}});
    EXPECT_EQ(processes.started, std::vector<std::string>{"/upnpd"});
    EXPECT_EQ(pulls(5), 0);
    EXPECT_EQ(come().size(), 1U);
}

TEST_F(TriggerTest, ACommandInItsPlaceThatFailsEndsTheRequestsThatWait) {
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
    processes.fault = "no memory";
    activation.setConfig({{80, {"/upnpd"}}});
    bus.settle();
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(tk::getError(ends.front()), "no memory");
}

/// A program that runs with the router. Its service manager may not listen yet.
class EarlyTriggerTest : public TriggerTest {
protected:
    EarlyTriggerTest() : TriggerTest(true) { activation.startConfigured(); }
};

TEST_F(EarlyTriggerTest, ItIsPulledEverLaterUntilTheProgramComes) {
    EXPECT_TRUE(isPulled());
    EXPECT_EQ(pulls(1), 1);
    EXPECT_EQ(pulls(2), 1);
    EXPECT_EQ(pulls(4), 1);
    EXPECT_EQ(pulls(120), 4) << "after 8, 16 and 32 s, and then about each minute";
    come();
    EXPECT_EQ(pulls(300), 0);
}

TEST_F(EarlyTriggerTest, AProgramThatCameAndLeftIsLeftToItsServiceManager) {
    EXPECT_TRUE(isPulled());
    come();
    leave();
    EXPECT_EQ(pulls(300), 0);
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(isPulled());
}

TEST_F(EarlyTriggerTest, TheEndOfTheRouterEndsTheWait) {
    EXPECT_TRUE(isPulled());
    activation.endAll();
    EXPECT_EQ(pulls(300), 0);
}

TEST_F(EarlyTriggerTest, OneThatCannotBePulledIsTriedAgain) {
    EXPECT_TRUE(isPulled());
    ASSERT_EQ(::mkdir(trigger.c_str(), 0700), 0);
    bus.advance(second);
    ASSERT_EQ(::rmdir(trigger.c_str()), 0);
    EXPECT_EQ(pulls(2), 1);
}

}  // namespace
}  // namespace hub
