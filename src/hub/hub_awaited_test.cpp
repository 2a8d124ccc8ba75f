// The requests that wait for a program that is being started.

#include "hub/hub.h"

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "hub/testing/testhub.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace hub {
namespace {

constexpr std::uint32_t command = 77;

/// Starts nothing, but says that it does.
class FakeStarter final : public Starter {
public:
    tk::Status start(std::uint32_t program) override {
        if (program != 80 && program != 82) return tk::Status::failure(Hub::nobodyThere);
        ++starts;
        return fault.empty() ? tk::Status() : tk::Status::failure(fault);
    }
    void registered(std::uint32_t program) override { registrations.push_back(program); }

    int starts = 0;
    std::string fault;
    std::vector<std::uint32_t> registrations;
};

class AwaitedProgramTest : public ::testing::Test {
protected:
    AwaitedProgramTest() { bus.hub.setStarter(&starter); }
    ~AwaitedProgramTest() override { bus.hub.close(); }

    FakeStarter starter;
    testing::TestHub bus;
};

TEST_F(AwaitedProgramTest, RequestsWaitUntilTheProgramRegisters) {
    const auto client = bus.connect();
    client->request({80}, command);
    client->request({80}, command + 1);
    bus.settle();
    EXPECT_TRUE(client->take().empty());
    EXPECT_EQ(starter.starts, 2);
    const auto program = bus.connect();
    tk::message content;
    content.insert_u32(1, 80);
    program->request({0}, tk::command::hubRegister, content);
    bus.settle();
    const auto arrived = program->take();
    ASSERT_EQ(arrived.size(), 3U);  // its own reply comes first
    EXPECT_EQ(tk::kindOf(arrived[0]), tk::Kind::reply);
    EXPECT_EQ(arrived[1].get_u32(tk::field::command), command);
    EXPECT_EQ(arrived[2].get_u32(tk::field::command), command + 1);
    EXPECT_EQ(starter.registrations, (std::vector<std::uint32_t>{80}));
    program->answer(arrived[1], {});
    bus.settle();
    EXPECT_EQ(client->take().size(), 1U);
}

TEST_F(AwaitedProgramTest, TheWaitIsBounded) {
    const auto client = bus.connect();
    client->request({80}, command);
    bus.settle();
    bus.advance(Hub::expiryTicks);
    EXPECT_TRUE(client->take().empty()) << "a minute is always granted";
    bus.advance(Hub::expiryTicks);
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(testing::codeOf(ends[0]), tk::error::unreachable);
    EXPECT_EQ(tk::getError(ends[0]), "the program was started, but did not come to the bus in time");
    EXPECT_FALSE(bus.hub.awaits(80));
}

TEST_F(AwaitedProgramTest, TheWaitIsThatOfEachRequest) {
    const auto early = bus.connect();
    early->request({80}, command);
    bus.settle();
    bus.advance(Hub::expiryTicks);
    const auto late = bus.connect();
    late->request({80}, command);
    bus.settle();
    bus.advance(Hub::expiryTicks);
    EXPECT_EQ(early->take().size(), 1U);
    EXPECT_TRUE(late->take().empty()) << "its own time has not ended";
    EXPECT_TRUE(bus.hub.awaits(80));
    const auto program = bus.connect();
    tk::message content;
    content.insert_u32(1, 80);
    program->request({0}, tk::command::hubRegister, content);
    bus.settle();
    EXPECT_EQ(program->take().size(), 2U) << "the reply, and the request";
}

TEST_F(AwaitedProgramTest, NoRequestOfSixtySecondsIsEndedBeforeItsRequesterGivesUp) {
    constexpr std::uint32_t sixtySeconds = 6000;
    for (const std::uint32_t before :
         {0U, 1U, Hub::expiryTicks / 2, Hub::expiryTicks - 1, Hub::expiryTicks}) {
        const auto first = bus.connect();  // starts the count, or finds it under way
        first->request({80}, command);
        bus.settle();
        bus.advance(before);
        const auto client = bus.connect();
        client->request({80}, command);
        bus.settle();
        bus.advance(sixtySeconds);
        EXPECT_TRUE(client->take().empty()) << before << " ticks after another one";
    }
}

TEST_F(AwaitedProgramTest, AFailedStartEndsTheRequestWithItsReason) {
    starter.fault = "no such file";
    const auto client = bus.connect();
    EXPECT_EQ(tk::getError(bus.ask(*client, {80}, command)), "no such file");
    EXPECT_EQ(tk::getError(bus.ask(*client, {81}, command)), "nobody at this destination");
}

TEST_F(AwaitedProgramTest, AProgramThatEndsEarlyEndsTheRequests) {
    const auto client = bus.connect();
    client->request({80}, command);
    bus.settle();
    EXPECT_TRUE(bus.hub.awaits(80));
    bus.hub.programFailed(80, "it ended");
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(tk::getError(ends[0]), "it ended");
    EXPECT_FALSE(bus.hub.awaits(80));
}

/// Lets requests wait until one more is refused. Returns how many bytes wait then.
std::size_t fill(testing::TestHub& bus, const std::vector<testing::TestClient*>& clients) {
    const tk::message large = testing::text(std::string(200000, 'x'));
    for (std::size_t count = 0; count < 1000; ++count) {
        testing::TestClient& client = *clients[count % clients.size()];
        client.request({count % 2 ? 80U : 82U}, tk::command::get, large);
        bus.settle();
        if (client.take().empty()) continue;
        return count * 200000;
    }
    return 0;
}

TEST_F(AwaitedProgramTest, WhatAConnectionOfRootLetsWaitForAllProgramsIsBoundedInBytes) {
    const auto client = bus.connect();
    const auto other = bus.connect();
    const std::size_t waiting = fill(bus, {client.get()});
    EXPECT_LE(waiting, Budgets::rootLimit);
    EXPECT_GT(waiting, Budgets::rootLimit - 500000);
    EXPECT_EQ(testing::codeOf(bus.ask(*client, {80}, command, testing::text(std::string(200000, 'x')))),
              tk::error::busy);
    other->request({80}, command, testing::text(std::string(200000, 'x')));
    bus.settle();
    EXPECT_TRUE(other->take().empty()) << "it has a bound of its own";
    bus.hub.programFailed(82, "it ended");
    EXPECT_FALSE(client->take().empty());
    client->request({80}, command, testing::text(std::string(200000, 'x')));
    bus.settle();
    EXPECT_TRUE(client->take().empty()) << "there is room again";
}

TEST_F(AwaitedProgramTest, WhatAllConnectionsOfOneUserLetWaitIsBoundedInBytesTogether) {
    constexpr uid_t user = 1000;
    bus.hub.setAccess(Access({{.uid = user, .writes = {{80}, {82}}}, {.uid = user + 1, .writes = {{80}}}}));
    const auto first = bus.connect(user);
    const auto second = bus.connect(user);
    const auto other = bus.connect(user + 1);
    const auto root = bus.connect();
    const std::size_t waiting = fill(bus, {first.get(), second.get()});
    EXPECT_LE(waiting, Budgets::userLimit);
    EXPECT_GT(waiting, Budgets::userLimit - 500000);
    const tk::message large = testing::text(std::string(200000, 'x'));
    EXPECT_EQ(testing::codeOf(bus.ask(*first, {80}, command, large)), tk::error::busy);
    EXPECT_EQ(testing::codeOf(bus.ask(*second, {82}, command, large)), tk::error::busy);
    for (testing::TestClient* each : {other.get(), root.get()}) {
        each->request({80}, command, large);
        bus.settle();
        EXPECT_TRUE(each->take().empty()) << "others have bounds of their own";
    }
}

TEST_F(AwaitedProgramTest, ManySmallRequestsOfOneUserKeepNobodyElseFromWaiting) {
    constexpr uid_t user = 1000;
    const auto client = bus.connect(user);
    const auto other = bus.connect();
    for (int i = 0; i < 1000; ++i) {
        client->request({80}, tk::command::get);
        if (i % 50 == 0) bus.settle();
    }
    other->request({80}, tk::command::get);
    bus.settle();
    EXPECT_TRUE(other->take().empty());
}

TEST_F(AwaitedProgramTest, ARefusedRequestLeavesNothingThatIsAwaited) {
    const auto client = bus.connect(1000);
    const tk::Charge full(bus.hub.budgetOf(1000, 0), Budgets::userLimit - 1000);
    EXPECT_EQ(testing::codeOf(bus.ask(*client, {80}, tk::command::get)), tk::error::busy);
    EXPECT_FALSE(bus.hub.awaits(80));
}

TEST_F(AwaitedProgramTest, WhatWaitedIsChargedOnceWhereItWaitsNext) {
    const auto client = bus.connect(1000);
    for (int i = 0; i < 60; ++i) {
        client->request({80}, tk::command::get, testing::text(std::string(200000, 'x')));
        bus.settle();
    }
    const std::size_t waiting = bus.hub.budgetOf(1000, 0).usedBytes();
    const auto program = bus.connect();
    tk::message number;
    number.insert_u32(1, 80);
    program->request({0}, tk::command::hubRegister, number);
    bus.settle();
    EXPECT_LT(bus.hub.budgetOf(1000, 0).usedBytes(), waiting + 60UL * 2000);
    EXPECT_TRUE(client->take().empty()) << "all are with the program";
}

TEST_F(AwaitedProgramTest, ARequestArrivesAsItWasSentHoweverLongItWaited) {
    const auto client = bus.connect();
    tk::message content = testing::text("one");
    content.insert_message_array(2, {testing::text("two"), {}, testing::text("three")});
    client->request({80, 7}, command, content);
    bus.settle();
    bus.advance(Hub::expiryTicks);
    const auto program = bus.connect();
    tk::message number;
    number.insert_u32(1, 80);
    program->request({0}, tk::command::hubRegister, number);
    bus.settle();
    const auto arrived = program->take();
    ASSERT_EQ(arrived.size(), 2U);
    EXPECT_EQ(tk::withoutRouting(arrived[1]), content);
    EXPECT_EQ(arrived[1].get_u32_array(tk::field::destination), (tk::Path{80, 7}));
    program->answer(arrived[1], {});
    bus.settle();
    EXPECT_EQ(client->take().size(), 1U) << "the answer finds its way back";
}

TEST_F(AwaitedProgramTest, AClientThatLeftIsForgotten) {
    auto client = bus.connect();
    client->request({80}, command);
    bus.settle();
    client->close();
    bus.settle();
    EXPECT_FALSE(bus.hub.awaits(80));
    const auto program = bus.connectProgram(80);
    bus.settle();
    EXPECT_TRUE(program->take().empty());
}

}  // namespace
}  // namespace hub
