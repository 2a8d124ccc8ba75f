#include "hub/activation.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hub/testing/fakeprocesses.h"
#include "hub/testing/testhub.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace hub {
namespace {

constexpr std::uint32_t command = 77;

/// Programs that really run, while a client waits for the first.
class ActivationTest : public ::testing::Test {
protected:
    ~ActivationTest() override { bus.hub.close(); }

    /// Waits at most 10 s for the kernel to tell of an end. Returns what the client hears of it.
    std::vector<std::string> awaitEnd() {
        std::vector<std::string> ends;
        for (int i = 0; i < 1000 && ends.empty(); ++i) {
            bus.looper.turn(10);
            for (const tk::message& end : client->take()) ends.push_back(tk::getError(end));
        }
        return ends;
    }
    void ask() {
        client->request({80}, command);
        bus.settle();
    }

    OwnProcesses processes;
    testing::TestHub bus;
    std::unique_ptr<testing::TestClient> client = bus.connect();
};

TEST_F(ActivationTest, StartsReapsAndTellsTheStatus) {
    Activation activation({{80, {"/bin/sh", "-c", "exit 3"}, false}}, bus.hub, processes);
    ask();
    EXPECT_EQ(awaitEnd(),
              (std::vector<std::string>{"the program ended with status 3 before it came to the bus"}));
    EXPECT_FALSE(activation.isRunning());
}

TEST_F(ActivationTest, EndsItsProgramsAndStartsNoneAfterwards) {
    Activation activation({{80, {"/bin/sleep", "60"}, true}}, bus.hub, processes);
    activation.startConfigured();
    ask();  // it runs
    EXPECT_TRUE(activation.isRunning());
    activation.endAll();
    EXPECT_EQ(awaitEnd(),
              (std::vector<std::string>{"the program ended by signal 15 before it came to the bus"}));
    EXPECT_FALSE(activation.isRunning());
    EXPECT_EQ(activation.start(80).reason(), "the router is ending");
}

TEST_F(ActivationTest, StartsAProgramAgainForWhatArrivedAfterItHadLeftTheBus) {
    testing::FakeProcesses fakes;
    Activation activation({{80, {"/upnpd"}, false}}, bus.hub, fakes);
    ask();
    const auto program = bus.connect();
    tk::message number;
    number.insert_u32(1, 80);
    program->request({0}, tk::command::hubRegister, number);
    EXPECT_EQ(bus.arrivedAt(*program).size(), 2U) << "the reply, and what had waited";
    program->close();
    bus.settle();
    EXPECT_EQ(client->take().size(), 1U) << "it left without an answer";
    ask();
    EXPECT_EQ(fakes.started.size(), 1U) << "it has not ended";
    fakes.end(0);
    bus.settle();
    EXPECT_EQ(fakes.started.size(), 2U);
    EXPECT_TRUE(client->take().empty());
    fakes.end(0);
    bus.settle();
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U) << "this time it never came";
    EXPECT_EQ(tk::getError(ends[0]), "the program ended with status 0 before it came to the bus");
}

/// Programs that end when a test says so, and a configuration that changes.
class ChangedActivation : public ActivationTest {
protected:
    using Texts = std::vector<std::string>;

    testing::FakeProcesses fakes;
    Activation activation{{{80, {"/upnpd"}, true}, {14, {"/resolverd"}}}, bus.hub, fakes};
};

TEST_F(ChangedActivation, NewProgramsCanBeStartedAndFormerOnesNot) {
    activation.setConfig({{80, {"/upnpd"}, true}, {81, {"/new"}}});
    EXPECT_EQ(activation.start(14).reason(), "nobody at this destination");
    EXPECT_EQ(activation.start(81).reason(), "");
    EXPECT_EQ(fakes.started, Texts{"/new"});
}

TEST_F(ChangedActivation, WhatRunsWithTheRouterNowIsStartedUnlessItRuns) {
    const auto program = bus.connectProgram(82);
    activation.setConfig({{80, {"/upnpd"}, true}, {81, {"/new"}, true}, {82, {"/there"}, true}});
    EXPECT_EQ(fakes.started, Texts{"/new"}) << "80 ran with the router before, and may have left on purpose";
}

TEST_F(ChangedActivation, WhatRunsGoesOnAndIsNotStartedAgainIfItIsNotThereAnyMore) {
    EXPECT_EQ(activation.start(80).reason(), "");
    activation.setConfig({});
    EXPECT_TRUE(activation.isRunning());
    EXPECT_TRUE(fakes.signals.empty());
    fakes.end(1);
    bus.settle();
    EXPECT_FALSE(activation.isRunning());
    bus.advance(Restart::mostTicks);
    EXPECT_EQ(fakes.started, Texts{"/upnpd"});
}

TEST_F(ChangedActivation, ARestartThatIsDueIsGivenUp) {
    EXPECT_EQ(activation.start(80).reason(), "");
    fakes.end(1);
    bus.settle();
    activation.setConfig({{80, {"/upnpd"}}});
    bus.advance(Restart::mostTicks);
    EXPECT_EQ(fakes.started, Texts{"/upnpd"}) << "it runs when it is asked from now on";
}

TEST_F(ActivationTest, WhatCannotBeStartedIsTold) {
    Activation activation({{80, {"/nonexistent/program"}, false}}, bus.hub, processes);
    EXPECT_EQ(activation.start(81).reason(), "nobody at this destination");
    EXPECT_EQ(activation.start(80).reason(), "/nonexistent/program: No such file or directory");
}

}  // namespace
}  // namespace hub
