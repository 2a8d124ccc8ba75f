// Programs that are systemd units.

#include "hub/activation.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hub/testing/awaitedprogram.h"
#include "hub/testing/testhub.h"
#include "tk/names.h"

namespace hub {
namespace {

using testing::codeOf;

constexpr int good = 0;
constexpr int status5 = 5 << 8;

/// A program that is a unit, asked for over the bus.
class UnitActivationTest : public testing::AwaitedProgram {
protected:
    ~UnitActivationTest() override { bus.hub.close(); }

    void endCommand(int status) {
        processes.end(status);
        bus.settle();
    }
    std::vector<std::string> times(std::size_t count) const { return {count, "upnpd.service"}; }

    Activation activation{{{80, {}, false, {}, "upnpd.service"}}, bus.hub, processes};
};

TEST_F(UnitActivationTest, TheGoodEndOfTheCommandIsNotTheProgramsEnd) {
    EXPECT_TRUE(ask().empty());
    EXPECT_EQ(processes.started, times(1));
    endCommand(good);
    EXPECT_TRUE(client->take().empty());
    EXPECT_FALSE(activation.isRunning());
    const auto requests = come();
    ASSERT_EQ(requests.size(), 1U);
    program->answer(requests.front(), {});
    bus.settle();
    EXPECT_EQ(client->take().size(), 1U);
}

TEST_F(UnitActivationTest, AProgramMayComeBeforeTheCommandEnds) {
    EXPECT_TRUE(ask().empty());
    EXPECT_EQ(come().size(), 1U);
    endCommand(good);
    bus.advance(5 * second);
    EXPECT_EQ(processes.started, times(1));
    EXPECT_TRUE(client->take().empty());
}

TEST_F(UnitActivationTest, AFailedCommandEndsTheRequestsAtOnce) {
    EXPECT_TRUE(ask().empty());
    endCommand(status5);
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(codeOf(ends.front()), tk::error::unreachable);
    EXPECT_EQ(tk::getError(ends.front()),
              "upnpd.service could not be started: systemctl ended with status 5");
    EXPECT_TRUE(ask().empty()) << "it is tried again";
    EXPECT_EQ(processes.started, times(2));
}

TEST_F(UnitActivationTest, ACommandThatCannotBeRunEndsTheRequestAtOnce) {
    processes.fault = "/usr/bin/systemctl: No such file or directory";
    const auto ends = ask();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(tk::getError(ends.front()), processes.fault);
}

TEST_F(UnitActivationTest, RequestsThatWaitAskOnce) {
    EXPECT_TRUE(ask().empty());
    EXPECT_TRUE(ask().empty());
    endCommand(good);
    EXPECT_TRUE(ask().empty());
    EXPECT_EQ(processes.started, times(1));
}

TEST_F(UnitActivationTest, AProgramThatLeftTheBusIsAskedForAgain) {
    EXPECT_TRUE(ask().empty());
    endCommand(good);
    EXPECT_EQ(come().size(), 1U);
    program->close();
    bus.settle();
    EXPECT_EQ(client->take().size(), 1U) << "it left without an answer";
    EXPECT_TRUE(ask().empty());
    EXPECT_EQ(processes.started, times(2));
}

TEST_F(UnitActivationTest, AProgramThatDoesNotComeIsAskedForEachSecondWhileItIsAwaited) {
    EXPECT_TRUE(ask().empty());
    endCommand(good);
    std::size_t asked = 1;
    for (std::uint32_t ticks = second; ticks < 2 * Hub::expiryTicks; ticks += second) {
        bus.advance(second);
        ASSERT_EQ(processes.started, times(++asked));
        endCommand(good);
    }
    EXPECT_TRUE(client->take().empty());
    bus.advance(second);
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(tk::getError(ends.front()), "the program was started, but did not come to the bus in time");
    asked = processes.started.size();
    endCommand(good);
    bus.advance(60 * second);
    EXPECT_EQ(processes.started, times(asked)) << "nobody waits for it any more";
}

TEST_F(UnitActivationTest, AProgramThatCameAndLeftDuringTheCommandIsAskedForAgain) {
    EXPECT_TRUE(ask().empty());
    EXPECT_EQ(come().size(), 1U);
    program->close();
    bus.settle();
    EXPECT_EQ(client->take().size(), 1U);
    EXPECT_TRUE(ask().empty());
    EXPECT_EQ(processes.started, times(1)) << "the command is still running";
    endCommand(good);
    bus.advance(second);
    EXPECT_EQ(processes.started, times(2));
}

TEST_F(UnitActivationTest, AProgramWhoseRequesterHasGoneIsNotAskedForAgain) {
    EXPECT_TRUE(ask().empty());
    endCommand(good);
    client->close();
    bus.settle();
    bus.advance(60 * second);
    EXPECT_EQ(processes.started, times(1));
}

TEST_F(UnitActivationTest, AProgramThatGaveItsNumberUpIsAskedForUntilItComesAnew) {
    EXPECT_TRUE(ask().empty());
    endCommand(good);
    EXPECT_EQ(come().size(), 1U);
    tk::message content;
    content.insert_u32(1, 80);
    EXPECT_FALSE(tk::isError(bus.ask(*program, {0}, tk::command::hubUnregister, content)));
    EXPECT_TRUE(ask().empty());
    EXPECT_EQ(processes.started, times(2)) << "systemd may take it for running yet";
    endCommand(good);
    program->close();
    bus.settle();
    EXPECT_EQ(client->take().size(), 1U) << "what it had been asked before";
    bus.advance(second);
    EXPECT_EQ(processes.started, times(3));
    EXPECT_EQ(come().size(), 1U);
}

TEST_F(UnitActivationTest, AProgramThatNobodyAwaitsIsAskedForOnce) {
    EXPECT_TRUE(activation.start(80).isOk());
    endCommand(good);
    bus.advance(60 * second);
    EXPECT_EQ(processes.started, times(1));
}

TEST_F(UnitActivationTest, ARequestAfterSuchAStartAsksAtOnce) {
    EXPECT_TRUE(activation.start(80).isOk());
    endCommand(good);
    EXPECT_TRUE(ask().empty());
    EXPECT_EQ(processes.started, times(2));
}

TEST_F(UnitActivationTest, AProgramThatIsNoLongerAwaitedIsNotAskedForAgain) {
    EXPECT_TRUE(ask().empty());
    endCommand(good);
    bus.hub.programFailed(80, "nobody waits any more");
    bus.advance(60 * second);
    EXPECT_EQ(processes.started, times(1));
}

TEST_F(UnitActivationTest, TheEndOfTheRouterAsksForNoneAndStopsNone) {
    EXPECT_TRUE(ask().empty());
    endCommand(good);
    activation.endAll();
    bus.advance(5 * second);
    EXPECT_EQ(processes.started, times(1));
    EXPECT_TRUE(processes.signals.empty());
    EXPECT_FALSE(activation.isRunning());
}

}  // namespace
}  // namespace hub
