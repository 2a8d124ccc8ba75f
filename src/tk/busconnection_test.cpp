#include "tk/busconnection.h"

#include <functional>
#include <numeric>
#include <thread>

#include <gtest/gtest.h>

#include "tk/testing/fakehub.h"
#include "tk/testing/testloop.h"

namespace tk {
namespace {

constexpr std::uint32_t statusChanged = 0xFE000B;
constexpr std::uint32_t patience = 60000;  // milliseconds: for an end that time does not decide

message numbered(std::uint32_t value) {
    message content;
    content.insert_u32(1, value);
    return content;
}

/// A connection to a fake hub. The hub's ends are written before the exchange that reads them: the first
/// request of a connection is number 1, the next one 2.
class BusConnectionTest : public ::testing::Test, public BusConnection::Receiver {
protected:
    void SetUp() override {
        auto opened = BusConnection::open(hub.path(), loop.looper.runner(), this);
        ASSERT_TRUE(opened.isOk()) << opened.reason();
        connection = opened.take();
        hub.accept();
    }
    void busReceived(const message& arrived) override {
        received.push_back(withoutRouting(arrived).get_u32(1));
        if (onReceived) onReceived();
    }
    void busLost(const std::string& reason) override { lost = reason; }

    message exchange(std::uint32_t timeout = exchangeTimeout) {
        message request;
        request.insert_u32_array(field::destination, {20, 0});
        request.insert_u32(1, 5);
        return connection->exchange(request, {80, 0}, command::getAll, timeout);
    }
    std::uint32_t errorOf(const message& end) {
        std::uint32_t code = 0;
        return isError(end, &code) ? code : 0;
    }

    tk::testing::TestLoop loop;
    tk::testing::FakeHub hub;
    std::unique_ptr<BusConnection> connection;
    std::vector<std::uint32_t> received;
    std::string lost;
    std::function<void()> onReceived;
};

TEST_F(BusConnectionTest, OpeningFailsWithAReasonWhereNobodyListens) {
    Runner& runner = loop.looper.runner();
    EXPECT_EQ(BusConnection::open(hub.path() + "none", runner, this).reason(), "No such file or directory");
    EXPECT_EQ(BusConnection::open("/" + std::string(200, 'x'), runner, this).reason(), "File name too long");
}

TEST_F(BusConnectionTest, WithoutAReceiverItDropsWhatEndsNoExchange) {
    tk::testing::FakeHub another;
    Runner own(loop.clock);
    auto opened = BusConnection::open(another.path(), own, nullptr);
    ASSERT_TRUE(opened.isOk()) << opened.reason();
    another.accept();
    another.sendNotification({20, 0}, statusChanged, numbered(1));
    another.sendEnd(1, numbered(2));
    message request;
    request.insert_u32_array(field::destination, {20, 0});
    EXPECT_EQ((*opened)->exchange(request, {}, command::getAll, exchangeTimeout).get_u32(1), 2U);
    another.close();
    for (int turns = 0; turns < 5; ++turns) own.turn(0);
    EXPECT_FALSE((*opened)->isOpen());
}

TEST_F(BusConnectionTest, RequestGoesOutWithItsRoutingFieldsInOrder) {
    hub.sendEnd(1, {});
    (void)exchange();
    message expected;
    expected.insert_u32_array(0xFF0001, {20, 0});
    expected.insert_u32(1, 5);
    expected.insert_u32_array(0xFF0002, {80, 0});
    expected.insert_u32(0xFF0003, 1);
    expected.insert_u32(0xFF0005, 1);
    expected.insert_u32(0xFF0007, 0xFE0004);
    message sent;
    ASSERT_TRUE(hub.read(sent));
    EXPECT_EQ(sent, expected);
}

TEST_F(BusConnectionTest, ExchangeEndsWithTheReplyOfItsNumber) {
    hub.sendEnd(7, numbered(70));
    hub.sendEnd(1, numbered(10));
    hub.sendEnd(2, numbered(20));
    EXPECT_EQ(withoutRouting(exchange()), numbered(10));
    EXPECT_EQ(withoutRouting(exchange()), numbered(20));
}

TEST_F(BusConnectionTest, ExchangeEndsWithTheErrorOfItsNumber) {
    hub.sendEnd(1, errorMsg(error::refused, "not today"));
    const message end = exchange();
    EXPECT_EQ(errorOf(end), error::refused);
    EXPECT_EQ(getError(end), "not today");
}

TEST_F(BusConnectionTest, ReplyMayComeInPieces) {
    message reply = numbered(10);
    reply.insert_string(2, std::string(100000, 'x'));
    hub.sendEnd(1, reply);
    EXPECT_EQ(withoutRouting(exchange()), reply);
}

TEST_F(BusConnectionTest, WhatArrivesDuringAnExchangeIsHandedOnFromTheLoopInOrder) {
    hub.sendNotification({20, 0}, statusChanged, numbered(1));
    hub.sendRequest({80, 0}, 44, command::get, numbered(2));
    hub.sendNotification({20, 1}, statusChanged, numbered(3));
    hub.sendEnd(1, numbered(10));
    hub.sendNotification({20, 0}, statusChanged, numbered(4));
    EXPECT_EQ(withoutRouting(exchange()), numbered(10));
    EXPECT_TRUE(received.empty());
    hub.sendNotification({20, 0}, statusChanged, numbered(5));
    loop.settle();
    EXPECT_EQ(received, (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
}

TEST_F(BusConnectionTest, WhatArrivesDuringTheExchangeOfAHandlerKeepsItsOrder) {
    onReceived = [this] {
        if (received.size() > 2) return;
        const auto number = static_cast<std::uint32_t>(received.size());
        hub.sendNotification({20, 0}, statusChanged, numbered(number + 2));
        hub.sendEnd(number, numbered(number * 10));
        EXPECT_EQ(withoutRouting(exchange()), numbered(number * 10));
    };
    hub.sendNotification({20, 0}, statusChanged, numbered(1));
    hub.sendNotification({20, 0}, statusChanged, numbered(2));
    loop.settle();
    EXPECT_EQ(received, (std::vector<std::uint32_t>{1, 2, 3, 4}));
}

TEST_F(BusConnectionTest, ExchangeTimesOutAndItsLateReplyIsDiscarded) {
    const SystemClock clock;
    const std::uint64_t start = clock.now();
    EXPECT_EQ(errorOf(exchange(30)), error::timedOut);
    EXPECT_GE(clock.now() - start, 30U);
    hub.sendEnd(1, numbered(10));
    loop.settle();
    EXPECT_TRUE(received.empty());
    hub.sendEnd(1, numbered(10));
    hub.sendEnd(2, numbered(20));
    EXPECT_EQ(withoutRouting(exchange()), numbered(20));
}

TEST_F(BusConnectionTest, WorksBeforeTheLoopRunsAndAfterIt) {
    hub.sendEnd(1, numbered(10));
    EXPECT_EQ(withoutRouting(exchange()), numbered(10));
    loop.looper.leave();
    loop.looper.run();
    hub.sendEnd(2, numbered(20));
    EXPECT_EQ(withoutRouting(exchange()), numbered(20));
}

TEST_F(BusConnectionTest, ExchangeThatIsUnderWayFailsWhenTheBusGoes) {
    hub.sendNotification({20, 0}, statusChanged, numbered(1));
    hub.close();
    EXPECT_EQ(errorOf(exchange()), error::disconnected);
    loop.settle();
    EXPECT_EQ(received, std::vector<std::uint32_t>{1});
}

TEST_F(BusConnectionTest, AnEndThatNobodyWaitsForIsDiscardedWhenTheBusGoes) {
    hub.sendEnd(7, numbered(70));
    hub.close();
    EXPECT_EQ(errorOf(exchange()), error::disconnected);
    loop.settle();
    EXPECT_TRUE(received.empty());
}

TEST_F(BusConnectionTest, HundredExchangesWithoutABusDoNotWait) {
    hub.close();
    const SystemClock clock;
    const std::uint64_t start = clock.now();
    for (int i = 0; i < 100; ++i) ASSERT_EQ(errorOf(exchange()), error::disconnected);
    EXPECT_LT(clock.now() - start, exchangeTimeout);  // not even one of them waited
    EXPECT_FALSE(connection->isOpen());
}

TEST_F(BusConnectionTest, LossIsToldOnlyFromTheLoop) {
    hub.close();
    (void)exchange();
    EXPECT_EQ(lost, "");
    loop.settle();
    EXPECT_NE(lost, "");
    EXPECT_EQ(errorOf(exchange()), error::disconnected);
}

/// A hub that turns a program away says why and closes at once.
class TurnedAwayTest : public BusConnectionTest {
protected:
    void turnAway() { hub.sendEnd(0, errorMsg(error::busy, "too many connections")); }
    void expectRefusal(const message& end) {
        EXPECT_EQ(errorOf(end), error::busy);
        EXPECT_EQ(getError(end), "too many connections");
    }
};

TEST_F(TurnedAwayTest, ExchangesFailWithTheHubsReasonWhenItClosedBefore) {
    turnAway();
    hub.close();
    expectRefusal(exchange());
    expectRefusal(exchange());
    loop.settle();
    EXPECT_EQ(lost, "too many connections");
}

TEST_F(TurnedAwayTest, ExchangesFailWithTheHubsReasonWhenItClosesLater) {
    turnAway();
    expectRefusal(exchange());
    expectRefusal(exchange());
    hub.close();
    loop.settle();
    EXPECT_EQ(lost, "too many connections");
}

TEST_F(TurnedAwayTest, LossIsToldWithTheHubsReason) {
    turnAway();
    hub.close();
    loop.settle();
    EXPECT_EQ(lost, "too many connections");
    expectRefusal(exchange());
    EXPECT_TRUE(received.empty());
}

TEST_F(TurnedAwayTest, LaterErrorsForNothingAskedAreDiscarded) {
    hub.sendNotification({20, 0}, statusChanged, numbered(1));
    turnAway();
    hub.sendEnd(1, numbered(10));
    EXPECT_EQ(withoutRouting(exchange()), numbered(10));
    loop.settle();
    EXPECT_EQ(received, std::vector<std::uint32_t>{1});
    EXPECT_EQ(lost, "");
}

TEST_F(TurnedAwayTest, AHubWithoutATextEndsTheConnectionAllTheSame) {
    hub.sendEnd(0, errorMsg(error::busy, ""));
    EXPECT_EQ(errorOf(exchange()), error::busy);
    loop.settle();
    EXPECT_EQ(lost, "the hub does not take the connection");
}

TEST_F(BusConnectionTest, MalformedFrameOfTheHubEndsTheConnection) {
    hub.sendBytes(std::string("\x01\0\0\0\x01", 5));
    EXPECT_EQ(errorOf(exchange()), error::disconnected);
    loop.settle();
    EXPECT_EQ(lost, "it sent a malformed frame");
}

TEST_F(BusConnectionTest, RequestThatIsTooLargeIsRefusedAndTheConnectionStays) {
    message request;
    request.insert_string(1, std::string(frameLimit, 'x'));
    EXPECT_EQ(errorOf(connection->exchange(request, {80, 0}, 1, exchangeTimeout)), error::invalid);
    hub.sendEnd(2, numbered(20));
    EXPECT_EQ(withoutRouting(exchange()), numbered(20));
}

/// A message of nearly one mebibyte.
message large(std::uint32_t value) {
    message content = numbered(value);
    content.insert_string(2, std::string(1000000, 'x'));
    return content;
}

TEST_F(BusConnectionTest, RequestsWithoutRoomDuringAnExchangeAreRefusedAndTheConnectionStays) {
    std::thread sender([this] {  // the socket does not hold it all
        for (std::uint32_t number = 1; number <= 20; ++number)
            hub.sendRequest({80, 0}, number, command::get, large(number));
        hub.sendEnd(1, numbered(10));
    });
    EXPECT_EQ(withoutRouting(exchange()), numbered(10));
    sender.join();
    message sent;
    ASSERT_TRUE(hub.read(sent));  // the request of the exchange
    ASSERT_TRUE(hub.read(sent));
    EXPECT_EQ(errorOf(sent), error::busy);
    EXPECT_EQ(sent.get_u32(field::number), 9U);
    loop.settle();
    std::vector<std::uint32_t> expected(8);
    std::iota(expected.begin(), expected.end(), 1);
    EXPECT_EQ(received, expected);
    EXPECT_EQ(lost, "");
}

TEST_F(BusConnectionTest, RequestsLeaveNotificationsTheirRoom) {
    std::thread sender([this] {
        for (std::uint32_t number = 1; number <= 20; ++number)
            hub.sendRequest({80, 0}, number, command::get, large(number));
        hub.sendNotification({20, 0}, statusChanged, large(100));
        hub.sendEnd(1, numbered(10));
    });
    EXPECT_EQ(withoutRouting(exchange()), numbered(10));
    sender.join();
    loop.settle();
    EXPECT_EQ(received.back(), 100U);
    EXPECT_EQ(lost, "");
}

TEST_F(BusConnectionTest, NotificationsWithoutRoomDuringAnExchangeEndTheConnection) {
    std::thread sender([this] {
        for (std::uint32_t number = 1; number <= 20; ++number)
            hub.sendNotification({20, 0}, statusChanged, large(number));
    });
    EXPECT_EQ(errorOf(exchange(patience)), error::disconnected);
    connection.reset();
    sender.join();
}

TEST_F(BusConnectionTest, ManySmallMessagesDuringAnExchangeTakeRoomToo) {
    std::thread sender([this] {
        for (std::uint32_t number = 1; number <= 200000; ++number)
            hub.sendNotification({20, 0}, statusChanged, numbered(number));
    });
    EXPECT_EQ(errorOf(exchange(patience)), error::disconnected);
    connection.reset();
    sender.join();
}

TEST_F(BusConnectionTest, PostedMessagesGoOutAsTheyAre) {
    message notification = numbered(1);
    stamp(notification, {80, 0}, 0, Kind::notification, statusChanged);
    connection->post(notification);
    message sent;
    ASSERT_TRUE(hub.read(sent));
    EXPECT_EQ(sent, notification);
}

}  // namespace
}  // namespace tk
