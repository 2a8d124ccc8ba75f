#include "upnp/event.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "tk/testing/capturedoutput.h"
#include "tk/testing/testloop.h"
#include "upnp/testing/subscriber.h"

namespace gateway {

namespace {

constexpr int waitMilliseconds = 5000;  // the longest that a test waits for its own host

void send(const tk::Fd& connection, const std::string& text) {
    EXPECT_EQ(::send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
}

class Notification : public testing::Test {
protected:
    Notification() { subscribeAt(subscriber.port); }

    void subscribeAt(std::uint16_t port, std::uint32_t address = htonl(INADDR_LOOPBACK)) {
        service.subscriptions["uuid:s"] =
            std::make_unique<Subscription>(service, "uuid:s", address, port, "/notify");
    }
    Subscription& subscription() { return *service.subscriptions.at("uuid:s"); }
    void addVariable(const std::string& name, bool evented, const char* value) {
        Variable& variable =
            service.addVar(name, std::make_unique<Variable>(std::list<std::string>{}, evented).release());
        if (value) variable.setValue(value);
    }
    /// Starts one event, and returns the logged lines.
    std::string start(const std::string& varName) {
        const tk::testing::CapturedOutput output;
        service.sendEvent(subscription(), varName);
        return output.text();
    }
    /// Lets the loop wait for its next event, and returns the logged lines.
    std::string turn(int limit = waitMilliseconds) {
        const tk::testing::CapturedOutput output;
        loop.looper.turn(limit);
        return output.text();
    }
    std::string advance(std::uint32_t ticks) {
        const tk::testing::CapturedOutput output;
        loop.advance(ticks);
        return output.text();
    }
    std::string notify(const std::string& seq, const std::string& properties) const {
        const std::string body = "<?xml version=\"1.0\"?>\r\n" + properties;
        return "NOTIFY /notify HTTP/1.1\r\nHOST: 127.0.0.1:" + std::to_string(subscriber.port) +
               "\r\nCONTENT-TYPE: text/xml\r\nCONTENT-LENGTH: " + std::to_string(body.size()) +
               "\r\nNT: upnp:event\r\nNTS: upnp:propchange\r\nSID: uuid:s\r\nSEQ: " + seq + "\r\n\r\n" + body;
    }
    static std::string propertySet(const std::vector<std::pair<std::string, std::string>>& properties) {
        std::string text = "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">";
        if (!properties.empty()) text += "\r\n";
        for (const auto& [name, value] : properties)
            text += "  <e:property>\r\n    <" + name + ">" + value + "</" + name + ">\r\n  </e:property>\r\n";
        return text + "</e:propertyset>\r\n";
    }
    /// True when no event is left and the loop holds nothing of one.
    bool isOver() const {
        return service.events.empty() && tk::getRunner()->timerCount() == 0 && watched() == idleWatches;
    }
    static std::string received(const tk::Fd& connection) { return Subscriber::received(connection); }
    static std::size_t watched() { return tk::getRunner()->socketCount(); }

    tk::testing::TestLoop loop;
    const std::size_t idleWatches = watched();
    Service service{"urn:x"};
    Subscriber subscriber;
};

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

TEST_F(Notification, WithoutADescriptorNothingIsStarted) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    // Once with descriptors: the sanitizers' first look at an object needs some too.
    start("");
    service.events.clear();
    const tk::testing::CapturedOutput output;
    const auto lowestFree = static_cast<rlim_t>(tk::Fd(dup(STDERR_FILENO)).get());
    const rlimit none{lowestFree, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    service.sendEvent(subscription(), "");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(output.text(), std::string("tcp socket: ") + strerror(EMFILE) + "\n");
    EXPECT_TRUE(isOver());
}

/// Raises the limit on descriptors, which the limits on deliveries need.
class CrowdedNotification : public Notification {
protected:
    void SetUp() override {
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        const rlimit enough{std::max<rlim_t>(before.rlim_cur, 4096), before.rlim_max};
        if (setrlimit(RLIMIT_NOFILE, &enough) != 0) GTEST_SKIP() << "needs 4096 descriptors";
    }
    void TearDown() override {
        service.events.clear();
        (void)setrlimit(RLIMIT_NOFILE, &before);
    }
    const Subscription& subscribe(const std::string& sid) {
        auto& entry = service.subscriptions[sid];
        entry = std::make_unique<Subscription>(service, sid, htonl(INADDR_LOOPBACK), subscriber.port, "/");
        return *entry;
    }
    std::size_t startMany(const Subscription& target, int count) {
        const tk::testing::CapturedOutput output;
        const std::size_t before = service.events.size();
        for (int i = 0; i < count; ++i) service.sendEvent(target, "");
        return service.events.size() - before;
    }
    rlimit before{};
};

TEST_F(CrowdedNotification, OneSubscriberHasNoMoreThan64OnTheirWay) {
    EXPECT_EQ(startMany(subscription(), 70), 64U);
    EXPECT_EQ(start(""), "notify dropped: too many are on their way to 127.0.0.1\n");
}

TEST_F(CrowdedNotification, OneThatIsOverMakesRoomForAnother) {
    startMany(subscription(), 64);
    service.events.erase(service.events.begin());
    EXPECT_EQ(startMany(subscription(), 2), 1U);
    service.events.clear();
    EXPECT_EQ(startMany(subscription(), 70), 64U);
}

TEST_F(CrowdedNotification, SubscriptionsThatCameAndWentDoNotAddUp) {
    for (int i = 0; i < 1500; ++i) {
        const std::string sid = "uuid:gone" + std::to_string(i);
        startMany(subscribe(sid), 1);
        service.subscriptions.erase(sid);
        ASSERT_LE(service.events.size(), 1000U);
    }
    EXPECT_EQ(startMany(subscribe("uuid:alive"), 1), 1U);
}

TEST_F(CrowdedNotification, DeadSubscribersThatFillTheServiceLeaveEveryOtherAShareOf10) {
    for (int i = 0; i < 20; ++i) startMany(subscribe("uuid:dead" + std::to_string(i)), 64);
    // 15 have 64, one has the rest of 1000, and the last four have their share.
    EXPECT_EQ(service.events.size(), 1000U + 4 * 10U);
    EXPECT_EQ(startMany(subscribe("uuid:alive"), 20), 10U);
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

/// A long line as the log shows it.
std::string asLogged(const std::string& line) {
    constexpr std::size_t most = 4095;
    const std::string mark = " [cut]";
    return line.substr(0, most - mark.size()) + mark + "\n";
}

TEST_F(Notification, LongOneGoesOutThoughTheSubscriberReadsNothing) {
    const std::string value(100000, 'x');
    addVariable("A", true, value.c_str());
    start("A");
    const int small = 4096;  // the default differs between kernels
    ASSERT_EQ(setsockopt(service.events.begin()->first, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    const tk::Fd connection = subscriber.accept();
    const std::string lines = turn();
    EXPECT_EQ(lines, asLogged("notify: A = '" + value + "'"));
    EXPECT_EQ(service.events.size(), 1U);
}

TEST_F(Notification, OneThatFitsNoBufferFailsInsteadOfBlocking) {
    const std::string value(200000, 'x');
    std::string lines;
    for (char first = 'A'; first <= 'P'; ++first) {
        for (char second = 'A'; second <= 'J'; ++second) {
            const std::string name{first, second};
            addVariable(name, true, value.c_str());
            lines += asLogged("notify: " + name + " = '" + value + "'");
        }
    }
    start("");
    const tk::Fd connection = subscriber.accept();
    EXPECT_EQ(turn(), lines + "write failed\nnotify timeout\n");
    EXPECT_TRUE(isOver());
    EXPECT_EQ(subscription().seq, 1U);  // its number is taken
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

TEST_F(Notification, SocketIsNotInherited) {
    start("");
    ASSERT_EQ(service.events.size(), 1U);
    EXPECT_NE(fcntl(service.events.begin()->first, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(Notification, SeveralMayBeOnTheirWay) {
    addVariable("A", true, "1");
    for (int i = 0; i < 3; ++i) start("A");
    EXPECT_EQ(service.events.size(), 3U);
    tk::Fd connections[3];
    for (tk::Fd& connection : connections) connection = subscriber.accept();
    for (int i = 0; i < 10 && subscription().seq < 3; ++i) turn();
    EXPECT_EQ(subscription().seq, 3U);
    for (tk::Fd& connection : connections) send(connection, "HTTP/1.1 200 OK\r\n\r\n");
    for (int i = 0; i < 10 && !service.events.empty(); ++i) turn();
    EXPECT_TRUE(isOver());
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
