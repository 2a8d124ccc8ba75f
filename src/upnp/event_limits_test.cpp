// How many events are on their way at once, and how large one may be.

#include "upnp/event.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "upnp/gena.h"
#include "upnp/testing/fakeclient.h"
#include "upnp/testing/notification.h"

namespace gateway {

namespace {

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

TEST_F(Notification, LongPathsThatWereSentTakeTheirRoomAfterTheSubscriptionHasEnded) {
    const auto subscribe = [this] {
        HTTPMessage request;
        request.add("NT", "upnp:event");
        request.add("CALLBACK", "<http://127.0.0.1:" + std::to_string(subscriber.port) + "/" +
                                    std::string(std::size_t{120} * 1024, 'x') + ">");
        FakeClient client;
        client.take(gateway::subscribe(service, request, client));
        return client.answered.value_or(HTTPMessage());
    };
    service.subscriptions.clear();
    const tk::testing::CapturedOutput output;
    std::vector<tk::Fd> connections;  // nobody reads from them
    for (int i = 0; i < 2; ++i) {
        const HTTPMessage answer = subscribe();
        ASSERT_EQ(answer.title, "HTTP/1.1 200 OK");
        connections.push_back(subscriber.accept());
        loop.looper.turn(longestWait);
        HTTPMessage end;
        end.add("SID", answer.get("SID"));
        ASSERT_EQ(gateway::unsubscribe(service, end).title, "HTTP/1.1 200 OK");
    }
    EXPECT_EQ(subscribe().title, "HTTP/1.1 500 Internal Server Error");
    service.events.erase(service.events.begin());
    EXPECT_EQ(subscribe().title, "HTTP/1.1 200 OK");
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

}  // namespace

}  // namespace gateway
