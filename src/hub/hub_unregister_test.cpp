// Programs that give their number up while they are still there.

#include "hub/hub.h"

#include <gtest/gtest.h>

#include "hub/testing/testhub.h"
#include "tk/bus.h"
#include "tk/handler.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"

namespace hub {
namespace {

using testing::codeOf;
using testing::subscription;
using testing::TestClient;
using testing::text;

constexpr std::uint32_t command = 77;

/// Starts nothing, but says that it does.
class FakeStarter final : public Starter {
public:
    tk::Status start(std::uint32_t program) override {
        started.push_back(program);
        return {};
    }
    void registered(std::uint32_t) override {}

    std::vector<std::uint32_t> started;
};

tk::message number(std::uint32_t program) {
    tk::message content;
    content.insert_u32(1, program);
    return content;
}

class HubUnregisterTest : public ::testing::Test {
protected:
    HubUnregisterTest() { bus.hub.setStarter(&starter); }
    ~HubUnregisterTest() override { bus.hub.close(); }

    tk::message unregister(TestClient& program) {
        return bus.ask(program, {0}, tk::command::hubUnregister, number(80));
    }

    FakeStarter starter;
    testing::TestHub bus;
    std::unique_ptr<TestClient> program = bus.connectProgram(80);
    std::unique_ptr<TestClient> client = bus.connect();
};

TEST_F(HubUnregisterTest, WhatWasAskedBeforePrecedesTheReplyAndIsAnsweredInTheProgramsName) {
    const std::uint32_t asked = client->request({80, 3}, command, text("question"));
    bus.settle();
    program->request({0}, tk::command::hubUnregister, number(80), {80, 0});
    const auto arrived = bus.arrivedAt(*program);
    ASSERT_EQ(arrived.size(), 2U);
    EXPECT_EQ(arrived[0].get_u32(tk::field::command), command);
    EXPECT_EQ(tk::kindOf(arrived[1]), tk::Kind::reply);
    program->answer(arrived[0], text("answer"));
    const auto ends = bus.arrivedAt(*client);
    ASSERT_EQ(ends.size(), 1U);
    tk::message expected = text("answer");
    expected.insert_u32_array(tk::field::destination, {1001});
    tk::stamp(expected, {80, 3}, asked, tk::Kind::reply, command);
    EXPECT_EQ(ends[0], expected);
    EXPECT_TRUE(starter.started.empty());
}

TEST_F(HubUnregisterTest, WhatIsAskedAfterwardsWaitsForTheNextStart) {
    EXPECT_EQ(tk::withoutRouting(unregister(*program)), tk::message());
    client->request({80}, command);
    EXPECT_TRUE(bus.arrivedAt(*program).empty());
    EXPECT_TRUE(client->take().empty());
    EXPECT_EQ(starter.started, (std::vector<std::uint32_t>{80}));
    const auto next = bus.connect();
    next->request({0}, tk::command::hubRegister, number(80));
    const auto arrived = bus.arrivedAt(*next);
    ASSERT_EQ(arrived.size(), 2U);
    EXPECT_EQ(arrived[1].get_u32(tk::field::command), command);
    program->close();
    EXPECT_TRUE(bus.arrivedAt(*client).empty());
    next->answer(arrived[1], {});
    EXPECT_EQ(bus.arrivedAt(*client).size(), 1U);
    client->request({80}, command);
    EXPECT_EQ(bus.arrivedAt(*next).size(), 1U) << "the end of the former one changes nothing";
}

TEST_F(HubUnregisterTest, WhatTheProgramLeavesUnansweredEndsWithItsConnection) {
    client->request({80}, command);
    bus.settle();
    program->request({0}, tk::command::hubUnregister, number(80));
    bus.settle();
    program->close();
    const auto ends = bus.arrivedAt(*client);
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(codeOf(ends[0]), tk::error::disconnected);
}

TEST_F(HubUnregisterTest, NobodyElseGivesTheNumberUp) {
    EXPECT_EQ(codeOf(unregister(*client)), tk::error::invalid);
    EXPECT_EQ(codeOf(bus.ask(*program, {0}, tk::command::hubUnregister, number(14))), tk::error::invalid);
    EXPECT_EQ(codeOf(bus.ask(*program, {0}, tk::command::hubUnregister)), tk::error::invalid);
    EXPECT_EQ(codeOf(bus.ask(*client, {0}, tk::command::hubUnregister)), tk::error::invalid);
    client->request({80}, command);
    EXPECT_EQ(bus.arrivedAt(*program).size(), 1U);
}

TEST_F(HubUnregisterTest, AProgramKeepsItsNumberWhileItWaitsForEnds) {
    const auto other = bus.connectProgram(81);
    program->request({81}, command);
    const auto requests = bus.arrivedAt(*other);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(codeOf(unregister(*program)), tk::error::busy);
    other->answer(requests[0], {});
    EXPECT_EQ(bus.arrivedAt(*program).size(), 1U);
    program->request({82}, command);  // a program to be started
    bus.settle();
    EXPECT_EQ(codeOf(unregister(*program)), tk::error::busy);
    bus.hub.programFailed(82, "it ended");
    EXPECT_EQ(bus.arrivedAt(*program).size(), 1U);
    EXPECT_FALSE(tk::isError(unregister(*program)));
}

TEST_F(HubUnregisterTest, IsForGoodAndMayBeAskedAgain) {
    EXPECT_FALSE(tk::isError(unregister(*program)));
    EXPECT_FALSE(tk::isError(unregister(*program)));
    for (const std::uint32_t again : {80U, 81U})
        EXPECT_EQ(codeOf(bus.ask(*program, {0}, tk::command::hubRegister, number(again))), tk::error::exists);
    const auto next = bus.connectProgram(80);
    EXPECT_FALSE(tk::isError(unregister(*program)));
    client->request({80}, command);
    EXPECT_EQ(bus.arrivedAt(*next).size(), 1U);
}

TEST_F(HubUnregisterTest, AFormerProgramAsksAndTellsAsAClient) {
    const auto other = bus.connectProgram(81);
    EXPECT_FALSE(tk::isError(unregister(*program)));
    program->request({81}, command, {}, {80, 4});
    const auto requests = bus.arrivedAt(*other);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].get_u32_array(tk::field::sender), tk::Path{1000});
    other->answer(requests[0], {});
    EXPECT_EQ(bus.arrivedAt(*program).size(), 1U);
    tk::message path = subscription({80, 4}, command);
    EXPECT_FALSE(tk::isError(bus.ask(*client, {0}, tk::command::hubSubscribe, path)));
    program->notify({80, 4}, command);
    EXPECT_TRUE(bus.arrivedAt(*client).empty());
}

TEST_F(HubUnregisterTest, WhatTheProgramMadeGoesWithItsNumber) {
    class Services final : public tk::Handler {
    public:
        tk::message cmdDisconnected(const tk::Path& path) override {
            gone.push_back(path);
            return {};
        }
        std::vector<tk::Path> gone;
    } handler;
    bus.hub.addService(handler, {20, 0});
    EXPECT_FALSE(tk::isError(unregister(*program)));
    EXPECT_EQ(handler.gone, (std::vector<tk::Path>{{80}}));
    const auto next = bus.connectProgram(80);
    program->close();
    bus.settle();
    EXPECT_EQ(handler.gone, (std::vector<tk::Path>{{80}, {1000}})) << "nothing of its successor's";
    bus.hub.close();
}

TEST_F(HubUnregisterTest, TheLogTellsOfItOnce) {
    std::string lines;
    {
        const tk::testing::CapturedOutput output;
        (void)unregister(*program);
        (void)unregister(*program);
        program->close();
        bus.settle();
        lines = output.text();
    }
    EXPECT_EQ(lines, "bus: 80 left: it has given its number up\n");
}

}  // namespace
}  // namespace hub
