#include "upnp/event.h"

#include <fcntl.h>
#include <netinet/tcp.h>

#include <cstring>

#include <gtest/gtest.h>

#include "upnp/testing/notification.h"

namespace gateway {

namespace {

TEST_F(Notification, FirstOneCarriesAllEventedVariablesThatHaveValues) {
    addVariable("C", true, "3");
    addVariable("A", true, "");
    addVariable("B", false, "2");
    addVariable("D", true, nullptr);
    EXPECT_EQ(start(""), "");
    const tk::Fd connection = subscriber.accept();
    EXPECT_EQ(turn(), "notify: A = ''\nnotify: C = '3'\n");
    EXPECT_EQ(received(connection), notify("0", propertySet({{"A", ""}, {"C", "3"}})));
}

TEST_F(Notification, WithoutEventedVariablesTheSetIsEmpty) {
    start("");
    const tk::Fd connection = subscriber.accept();
    EXPECT_EQ(turn(), "");
    EXPECT_EQ(received(connection), notify("0", propertySet({})));
}

TEST_F(Notification, LaterOneCarriesTheOneVariableAndTheNextNumber) {
    addVariable("A", true, "1");
    addVariable("B", true, "2");
    start("");
    const tk::Fd first = subscriber.accept();
    turn();
    start("B");
    const tk::Fd second = subscriber.accept();
    EXPECT_EQ(turn(), "notify: B = '2'\n");
    EXPECT_EQ(received(second), notify("1", propertySet({{"B", "2"}})));
    EXPECT_EQ(subscription().seq, 2U);
}

TEST_F(Notification, NumberZeroIsNotUsedAgain) {
    addVariable("A", true, "1");
    subscription().seq = 0xFFFFFFFF;
    start("A");
    const tk::Fd first = subscriber.accept();
    turn();
    start("A");
    const tk::Fd second = subscriber.accept();
    turn();
    EXPECT_EQ(received(first), notify("4294967295", propertySet({{"A", "1"}})));
    EXPECT_EQ(received(second), notify("1", propertySet({{"A", "1"}})));
}

TEST_F(Notification, IsBuiltOnceConnected) {
    addVariable("A", true, "old");
    start("A");
    addVariable("A", true, "new");
    const tk::Fd connection = subscriber.accept();
    EXPECT_EQ(turn(), "notify: A = 'new'\n");
}

TEST_F(Notification, ChangeOfAVariableReachesTheSubscriber) {
    addVariable("A", true, "1");
    service.setVar("A", "2");
    const tk::Fd connection = subscriber.accept();
    turn();
    EXPECT_EQ(received(connection), notify("0", propertySet({{"A", "2"}})));
}

TEST_F(Notification, IsOverWithAGoodReply) {
    start("");
    const tk::Fd connection = subscriber.accept();
    turn();
    EXPECT_EQ(service.events.size(), 1U);
    send(connection, "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(turn(), "");
    EXPECT_TRUE(isOver());
    EXPECT_EQ(service.subscriptions.size(), 1U);
}

TEST_F(Notification, BadReplyIsLoggedAndTheSubscriptionStays) {
    start("");
    const tk::Fd connection = subscriber.accept();
    turn();
    send(connection, "HTTP/1.1 412 Precondition Failed\r\n\r\n");
    EXPECT_EQ(turn(), "bad notify reply: HTTP/1.1 412 Precondition Failed\n");
    EXPECT_TRUE(isOver());
    EXPECT_EQ(service.subscriptions.size(), 1U);
}

TEST_F(Notification, ReplyWithoutAStartLineIsBad) {
    for (const char* reply : {"x", "HTTP/1.1 200 OK", "200\r\n"}) {
        start("");
        const tk::Fd connection = subscriber.accept();
        turn();
        send(connection, reply);
        const HTTPMessage parsed{std::string(reply)};
        EXPECT_EQ(turn(), "bad notify reply: " + parsed.title + "\n");
        EXPECT_TRUE(isOver());
    }
}

TEST_F(Notification, OnlyTheThreeBytesOfTheStatusCount) {
    start("");
    const tk::Fd connection = subscriber.accept();
    turn();
    send(connection, "ANYTHING/200 fine\r\n");
    EXPECT_EQ(turn(), "");
    EXPECT_TRUE(isOver());
}

TEST_F(Notification, WithoutAReplyItTimesOutAfterThirtySeconds) {
    start("");
    const tk::Fd connection = subscriber.accept();
    turn();
    EXPECT_EQ(advance(2999), "");
    EXPECT_EQ(advance(1), "notify timeout\n");
    EXPECT_TRUE(isOver());
    EXPECT_EQ(service.subscriptions.size(), 1U);
}

TEST_F(Notification, ThirtySecondsRunFromItsStartWhateverHappensMeanwhile) {
    start("");
    EXPECT_EQ(advance(1000), "");
    tk::Fd connection = subscriber.accept();
    turn();
    EXPECT_EQ(advance(1000), "");
    connection.reset();
    EXPECT_EQ(turn(), "notify reply read failed\n");
    EXPECT_EQ(advance(999), "");
    EXPECT_EQ(advance(1), "notify timeout\n");
    EXPECT_TRUE(isOver());
}

TEST_F(Notification, ConnectionThatEndsWithoutAReplyWaitsForTheTimer) {
    start("");
    subscriber.accept().reset();
    turn();
    EXPECT_EQ(turn(), "notify reply read failed\n");
    EXPECT_EQ(service.events.size(), 1U);
    EXPECT_EQ(watched(), idleWatches);  // else the loop would be called for ever
    EXPECT_EQ(advance(2999), "");
    EXPECT_EQ(advance(1), "notify timeout\n");
    EXPECT_TRUE(isOver());
}

TEST_F(Notification, SubscriberThatNeverAcceptsCausesOneLineAfterThirtySeconds) {
    Subscriber busy(0);
    tk::Fd waiting[4];  // they fill the queue; the next one gets no answer
    for (tk::Fd& socket : waiting) {
        socket.reset(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        const sockaddr_in target = Subscriber::loopback(busy.port);
        (void)::connect(socket.get(), reinterpret_cast<const sockaddr*>(&target),
                        sizeof target);  // in progress
    }
    subscribeAt(busy.port);
    EXPECT_EQ(start(""), "");
    EXPECT_EQ(turn(0), "");
    EXPECT_EQ(advance(2999), "");
    EXPECT_EQ(advance(1), "notify timeout\n");
    EXPECT_TRUE(isOver());
    EXPECT_EQ(service.subscriptions.size(), 1U);
    EXPECT_EQ(subscription().seq, 0U);  // an event that never connected took no number
}

TEST_F(Notification, RefusedConnectionTakesItsNumberAndFailsToWrite) {
    addVariable("A", true, "1");
    subscriber.close();
    EXPECT_EQ(start("A"), "");
    EXPECT_EQ(turn(), "notify: A = '1'\nwrite failed\nnotify timeout\n");
    EXPECT_TRUE(isOver());
    EXPECT_EQ(subscription().seq, 1U);
    EXPECT_EQ(service.subscriptions.size(), 1U);
}

TEST_F(Notification, ConnectionThatFailsAtOnceLeavesNothing) {
    constexpr std::uint32_t broadcast = 0xFFFFFFFF;
    subscribeAt(80, broadcast);
    EXPECT_EQ(start(""), std::string("tcp connect: ") + strerror(ENETUNREACH) + "\n");
    EXPECT_TRUE(isOver());
    EXPECT_EQ(subscription().seq, 0U);
}

TEST_F(Notification, IsDroppedWhenItsSubscriptionIsGone) {
    addVariable("A", true, "1");
    start("A");
    service.subscriptions.clear();
    const tk::Fd connection = subscriber.accept();
    EXPECT_EQ(turn(), "notify timeout\n");
    EXPECT_EQ(received(connection), "");
    EXPECT_TRUE(isOver());
}

TEST_F(Notification, UnknownVariableIsNotSent) {
    start("A");
    EXPECT_EQ(turn(), "unknown variable\nnotify timeout\n");
    EXPECT_TRUE(isOver());
    EXPECT_EQ(subscription().seq, 0U);
}

TEST_F(Notification, VariableWithoutAValueIsNotSent) {
    addVariable("A", true, nullptr);
    start("A");
    EXPECT_EQ(turn(), "variable has no value\nnotify timeout\n");
    EXPECT_TRUE(isOver());
}

TEST_F(Notification, SocketConnectsWithoutBlockingAndBlocksAgainWhenTheMessageIsSent) {
    start("");
    ASSERT_EQ(service.events.size(), 1U);
    const int socket = service.events.begin()->first;
    EXPECT_NE(fcntl(socket, F_GETFL) & O_NONBLOCK, 0);
    const tk::Fd connection = subscriber.accept();
    turn();
    ASSERT_EQ(service.events.count(socket), 1U);
    EXPECT_EQ(fcntl(socket, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Notification, KernelKeepsAMessageThatNobodyTakesFor30Seconds) {
    start("");
    const tk::Fd connection = subscriber.accept();
    turn();
    ASSERT_EQ(service.events.size(), 1U);
    unsigned milliseconds = 0;
    socklen_t size = sizeof milliseconds;
    ASSERT_EQ(getsockopt(service.events.begin()->first, IPPROTO_TCP, TCP_USER_TIMEOUT, &milliseconds, &size),
              0);
    EXPECT_EQ(milliseconds, 30000U);
}

TEST_F(Notification, SocketIsNotInherited) {
    start("");
    ASSERT_EQ(service.events.size(), 1U);
    EXPECT_NE(fcntl(service.events.begin()->first, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(Notification, EndOfTheServiceDropsItWithoutALine) {
    const tk::testing::CapturedOutput output;
    {
        Service other("urn:y");
        const Subscription target(other, "uuid:t", htonl(INADDR_LOOPBACK), subscriber.port, "/");
        other.sendEvent(target, "");
        EXPECT_EQ(tk::getRunner()->timerCount(), 1U);
        EXPECT_EQ(watched(), idleWatches + 1);
    }
    EXPECT_EQ(tk::getRunner()->timerCount(), 0U);
    EXPECT_EQ(watched(), idleWatches);
    EXPECT_EQ(output.text(), "");
}

}  // namespace

}  // namespace gateway
