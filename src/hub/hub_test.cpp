#include "hub/hub.h"

#include <gtest/gtest.h>

#include "hub/testing/testhub.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace hub {
namespace {

using testing::codeOf;
using testing::subscription;
using testing::TestClient;
using testing::text;

constexpr std::uint32_t command = 77;

class HubTest : public ::testing::Test {
protected:
    void subscribe(TestClient& client, const tk::Path& path, std::uint32_t wanted) {
        tk::message content = subscription(path, wanted);
        content.insert_message_array(3, {tk::message()});
        EXPECT_FALSE(tk::isError(bus.ask(client, {0}, tk::command::hubSubscribe, content)));
    }

    testing::TestHub bus;
};

TEST_F(HubTest, RequestToAnAbsentProgramEndsAtOnce) {
    const auto client = bus.connect();
    EXPECT_EQ(codeOf(bus.ask(*client, {33}, command)), tk::error::unreachable);
}

TEST_F(HubTest, RequestWithoutDestinationIsRefused) {
    const auto client = bus.connect();
    EXPECT_EQ(codeOf(bus.ask(*client, {}, command)), tk::error::invalid);
}

TEST_F(HubTest, CarriesARequestAndItsReplyWhole) {
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    const std::uint32_t number = client->request({80, 3}, command, text("question"));
    const auto requests = bus.arrivedAt(*program);
    ASSERT_EQ(requests.size(), 1U);
    tk::message expected = text("question");
    expected.insert_u32_array(tk::field::destination, {80, 3});
    tk::stamp(expected, {1001}, number, tk::Kind::request, command);
    EXPECT_EQ(requests[0], expected);

    program->answer(requests[0], text("answer"));
    const auto ends = bus.arrivedAt(*client);
    ASSERT_EQ(ends.size(), 1U);
    tk::message reply = text("answer");
    reply.insert_u32_array(tk::field::destination, {1001});
    tk::stamp(reply, {80, 3}, number, tk::Kind::reply, command);
    EXPECT_EQ(ends[0], reply);
}

TEST_F(HubTest, AnEndForAnotherPathThanTheOneThatAskedIsDiscarded) {
    const auto program = bus.connectProgram(80);
    const auto asker = bus.connectProgram(14);
    asker->request({80}, command, {}, {14, 3});
    const tk::message request = bus.arrivedAt(*program).at(0);
    tk::message elsewhere = request;
    elsewhere.insert_u32_array(tk::field::sender, {14, 4});
    program->answer(elsewhere, text("astray"));
    EXPECT_TRUE(bus.arrivedAt(*asker).empty());
    program->answer(request, text("here"));
    EXPECT_EQ(bus.arrivedAt(*asker).at(0).get_string(1), "here");
}

TEST_F(HubTest, AnEndThatComesTwiceOrUnaskedIsDiscarded) {
    const auto program = bus.connectProgram(80);
    const auto other = bus.connectProgram(81);
    const auto client = bus.connect();
    client->request({80}, command);
    const auto requests = bus.arrivedAt(*program);
    ASSERT_EQ(requests.size(), 1U);
    other->answer(requests[0], text("forged"));
    EXPECT_TRUE(bus.arrivedAt(*client).empty());
    program->answer(requests[0], text("first"));
    program->answer(requests[0], text("second"));
    const auto ends = bus.arrivedAt(*client);
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(ends[0].get_string(1), "first");
}

TEST_F(HubTest, SenderCannotBeForged) {
    const auto program = bus.connectProgram(80);
    const auto other = bus.connectProgram(14);
    const auto client = bus.connect();
    client->request({80}, command, {}, {65, 9});
    other->request({80}, command, {}, {65, 9});
    const auto requests = bus.arrivedAt(*program);
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[0].get_u32_array(tk::field::sender), (tk::Path{1002}));
    EXPECT_EQ(requests[1].get_u32_array(tk::field::sender), (tk::Path{14, 9}));
}

TEST_F(HubTest, SenderIsAppendedWhereItIsAbsent) {
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    tk::message bare;
    bare.insert_u32_array(tk::field::destination, {80});
    bare.insert_u32(tk::field::number, 4);
    client->send(bare);
    const auto requests = bus.arrivedAt(*program);
    ASSERT_EQ(requests.size(), 1U);
    ASSERT_EQ(requests[0].fields().size(), 3U);
    EXPECT_EQ(requests[0].fields().back().id, tk::field::sender);
}

TEST_F(HubTest, CalleesEndEndsItsRequests) {
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    client->request({80}, command);
    client->request({80}, command);
    ASSERT_EQ(bus.arrivedAt(*program).size(), 2U);
    program->close();
    const auto ends = bus.arrivedAt(*client);
    ASSERT_EQ(ends.size(), 2U);
    for (const tk::message& end : ends) EXPECT_EQ(codeOf(end), tk::error::disconnected);
    EXPECT_EQ(codeOf(bus.ask(*client, {80}, command)), tk::error::unreachable);
}

TEST_F(HubTest, RequestersEndLosesTheReplyOnly) {
    const auto program = bus.connectProgram(80);
    auto client = bus.connect();
    client->request({80}, command);
    const auto requests = bus.arrivedAt(*program);
    ASSERT_EQ(requests.size(), 1U);
    client->close();
    program->answer(requests[0], {});
    bus.settle();
    EXPECT_FALSE(program->isClosed());
    EXPECT_EQ(bus.hub.peerCount(), 1U);
}

TEST_F(HubTest, AProgramMayAskWhileItServes) {
    const auto gateway = bus.connectProgram(80);
    const auto resolver = bus.connectProgram(14);
    const auto client = bus.connect();
    client->request({80}, command);
    const auto outer = bus.arrivedAt(*gateway);
    ASSERT_EQ(outer.size(), 1U);
    gateway->request({14}, command, {}, {80, 0});
    const auto inner = bus.arrivedAt(*resolver);
    ASSERT_EQ(inner.size(), 1U);
    resolver->answer(inner[0], text("inner"));
    ASSERT_EQ(bus.arrivedAt(*gateway).size(), 1U);
    gateway->answer(outer[0], text("outer"));
    const auto ends = bus.arrivedAt(*client);
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(ends[0].get_string(1), "outer");
}

TEST_F(HubTest, ATakenProgramNumberIsRefused) {
    const auto holder = bus.connectProgram(80);
    const auto client = bus.connect();
    tk::message content;
    content.insert_u32(1, 80);
    EXPECT_EQ(codeOf(bus.ask(*client, {0}, tk::command::hubRegister, content)), tk::error::exists);
    holder->close();
    bus.settle();
    EXPECT_FALSE(tk::isError(bus.ask(*client, {0}, tk::command::hubRegister, content)));
}

TEST_F(HubTest, ANumberIsFreeOnceItsHoldersEndIsInTheSocket) {
    const auto client = bus.connect();  // served first: its connection is older
    const auto holder = bus.connectProgram(80);
    tk::message content;
    content.insert_u32(1, 80);
    client->request({0}, tk::command::hubRegister, content);
    holder->close();
    const auto ends = bus.arrivedAt(*client);
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_FALSE(tk::isError(ends[0]));
}

TEST_F(HubTest, NumbersOfTheHubAndOfClientsCannotBeRegistered) {
    const auto client = bus.connect();
    for (const std::uint32_t number : {0U, 1000U, 0xFFFFFFFFU}) {
        tk::message content;
        content.insert_u32(1, number);
        EXPECT_EQ(codeOf(bus.ask(*client, {0}, tk::command::hubRegister, content)), tk::error::invalid);
    }
}

TEST_F(HubTest, NotificationReachesExactlyItsSubscribersOnce) {
    const auto source = bus.connectProgram(80);
    const auto subscriber = bus.connect();
    const auto otherPath = bus.connect();
    const auto otherCommand = bus.connect();
    subscribe(*subscriber, {80, 0}, command);
    subscribe(*subscriber, {80, 0}, command);
    subscribe(*otherPath, {80}, command);
    subscribe(*otherCommand, {80, 0}, command + 1);
    source->notify({80, 0}, command, text("news"));
    const auto news = bus.arrivedAt(*subscriber);
    ASSERT_EQ(news.size(), 1U);
    EXPECT_EQ(news[0].get_string(1), "news");
    EXPECT_EQ(tk::kindOf(news[0]), tk::Kind::notification);
    EXPECT_TRUE(otherPath->take().empty());
    EXPECT_TRUE(otherCommand->take().empty());
}

TEST_F(HubTest, UnsubscribedMeansSilence) {
    const auto source = bus.connectProgram(80);
    const auto subscriber = bus.connect();
    subscribe(*subscriber, {80, 0}, command);
    tk::message content = subscription({80, 0}, command);
    EXPECT_FALSE(tk::isError(bus.ask(*subscriber, {0}, tk::command::hubUnsubscribe, content)));
    source->notify({80, 0}, command);
    EXPECT_TRUE(bus.arrivedAt(*subscriber).empty());
}

TEST_F(HubTest, AFilterIsRefused) {
    const auto client = bus.connect();
    tk::message content = subscription({80, 0}, command);
    content.insert_message_array(3, {text("filter")});
    EXPECT_EQ(codeOf(bus.ask(*client, {0}, tk::command::hubSubscribe, content)), tk::error::refused);
}

TEST_F(HubTest, ASubscriptionToAPathOfMoreThan16ElementsIsRefused) {
    const auto client = bus.connect();
    tk::message content = subscription(tk::Path(17, 80), command);
    EXPECT_EQ(codeOf(bus.ask(*client, {0}, tk::command::hubSubscribe, content)), tk::error::invalid);
}

TEST_F(HubTest, AMalformedFrameDropsThePeerAlone) {
    const auto bad = bus.connect();
    const auto good = bus.connect();
    bad->sendBytes(std::string("\x05\x00\x00\x00\x01\x00\x00\x00\x63", 9));
    bus.settle();
    EXPECT_TRUE(bad->isClosed());
    EXPECT_EQ(codeOf(bus.ask(*good, {33}, command)), tk::error::unreachable);
}

TEST_F(HubTest, APeerThatDoesNotReadIsDroppedAndTheOthersGoOn) {
    const auto source = bus.connectProgram(80);
    const auto sleeper = bus.connect();
    const auto reader = bus.connect();
    subscribe(*sleeper, {80, 0}, command);
    subscribe(*reader, {80, 0}, command);
    const tk::message large = text(std::string(60000, 'x'));
    const std::size_t enough = Budgets::rootLimit / 60000 + 100;
    std::size_t seen = 0;
    for (std::size_t i = 0; i < enough; ++i) {
        source->notify({80, 0}, command, large);
        seen += bus.arrivedAt(*reader).size();
    }
    EXPECT_EQ(seen, enough);
    EXPECT_EQ(bus.hub.peerCount(), 2U);
}

TEST_F(HubTest, PendingRequestsOfOnePeerAreBounded) {
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    for (std::size_t i = 0; i < PendingRequests::limitPerPeer; ++i) {
        client->request({80}, command);
        if (i % 64 == 0) bus.settle();
    }
    EXPECT_TRUE(bus.arrivedAt(*client).empty());
    EXPECT_EQ(codeOf(bus.ask(*client, {80}, command)), tk::error::busy);
}

TEST_F(HubTest, OnlyTheRoutingOfPendingRequestsIsKept) {
    tk::message request = text("large");
    request.insert_u32_array(tk::field::destination, {80});
    request.insert_string(0xFF0004, "a field that looks like routing");
    tk::stamp(request, {1001}, 7, tk::Kind::request, command);
    tk::Budget budget(10000);
    PendingRequests pending;
    EXPECT_EQ(pending.add(1001, 1000, request, budget), PendingRequests::Added::yes);
    tk::message routing;
    routing.insert_u32_array(tk::field::destination, {80});
    tk::stamp(routing, {1001}, 7, tk::Kind::request, command);
    EXPECT_EQ(pending.takeOfCallee(1000), std::vector<tk::message>{routing});
}

TEST_F(HubTest, ARequestWithAPathOfMoreThan256ElementsIsRefused) {
    const auto program = bus.connectProgram(80);
    const auto other = bus.connectProgram(14);
    other->request(tk::Path(257, 80), command, text("lost"), tk::Path(300, 14));
    const tk::message end = bus.arrivedAt(*other).at(0);
    EXPECT_EQ(codeOf(end), tk::error::invalid);
    EXPECT_EQ(end.get_u32_array(tk::field::sender), tk::Path(256, 80));
    EXPECT_EQ(end.get_u32_array(tk::field::destination), tk::Path(256, 14));
    other->request({80}, command, {}, tk::Path(257, 14));
    EXPECT_EQ(codeOf(bus.arrivedAt(*other).at(0)), tk::error::invalid);
    EXPECT_TRUE(bus.arrivedAt(*program).empty());
    other->request(tk::Path(256, 80), command, {}, tk::Path(256, 14));
    EXPECT_EQ(bus.arrivedAt(*program).size(), 1U);
}

TEST_F(HubTest, AnAnswerWithoutRoomInAFrameBecomesAnError) {
    class Verbose final : public tk::Handler {
        tk::message cmdUnknown(const tk::message&, std::uint32_t) override {
            return text(std::string(tk::frameLimit, 'x'));
        }
    } handler;
    bus.hub.addService(handler, {20, 0});
    const auto client = bus.connect();
    EXPECT_EQ(codeOf(bus.ask(*client, {20, 0}, command)), tk::error::failed);
    bus.hub.close();
}

TEST_F(HubTest, AMessageOfTooManyFieldsDropsItsSender) {
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    tk::message full;
    full.insert_u32_array(tk::field::destination, {80});
    for (std::uint32_t id = 1; full.fields().size() < 1024; ++id) full.insert_bool(id, true);
    client->send(full);
    bus.settle();
    EXPECT_TRUE(client->isClosed());
    EXPECT_TRUE(program->take().empty());
    EXPECT_FALSE(program->isClosed());
}

TEST_F(HubTest, ARequestThatIsNeverAnsweredEndsAndItsLateReplyIsDiscarded) {
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    const std::uint32_t number = client->request({80}, command);
    const tk::message request = bus.arrivedAt(*program).at(0);
    bus.advance(Hub::expiryTicks);
    EXPECT_TRUE(client->take().empty()) << "a minute is always granted";
    bus.advance(Hub::expiryTicks);
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(codeOf(ends.front()), tk::error::timedOut);
    EXPECT_EQ(ends.front().get_u32(tk::field::number), number);
    program->answer(request, {});
    EXPECT_TRUE(bus.arrivedAt(*client).empty());
    EXPECT_EQ(bus.hub.peerCount(), 2U);
}

TEST_F(HubTest, TwoHundredConnectionsAreServedAtOnce) {
    const auto program = bus.connectProgram(80);
    std::vector<std::unique_ptr<TestClient>> clients;
    for (int i = 0; i < 200; ++i) clients.push_back(bus.connect());
    for (const auto& client : clients) client->request({80}, command);
    for (const tk::message& request : bus.arrivedAt(*program)) program->answer(request, text("served"));
    bus.settle();
    for (const auto& client : clients) EXPECT_EQ(client->take().size(), 1U);
}

}  // namespace
}  // namespace hub
