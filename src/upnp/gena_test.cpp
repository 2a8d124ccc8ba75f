#include "upnp/gena.h"

#include <gtest/gtest.h>

#include "net/convert.h"
#include "net/sockets.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/testloop.h"
#include "upnp/event.h"
#include "upnp/testing/fakeclient.h"

namespace gateway {

namespace {

// Nobody listens there; other tests cover the deliveries.
const std::string callbackUrl = "http://127.9.9.9:9/notify";
const std::string bare412 = "HTTP/1.1 412 Precondition Failed\r\n\r\n";

class Gena : public testing::Test {
protected:
    HTTPMessage subscribeTo(const std::string& callback, const std::string& timeout = "") {
        HTTPMessage request;
        request.add("CALLBACK", callback);
        request.add("NT", "upnp:event");
        if (!timeout.empty()) request.add("TIMEOUT", timeout);
        return send(request);
    }
    HTTPMessage renew(const std::string& sid, const std::string& timeout = "") {
        HTTPMessage request;
        request.add("SID", sid);
        if (!timeout.empty()) request.add("TIMEOUT", timeout);
        return send(request);
    }
    HTTPMessage send(const HTTPMessage& request) {
        const tk::testing::CapturedOutput output;
        FakeClient client;
        client.take(service.subscribe(request, client));
        if (client.wait) loop.settle();  // a name is being looked up
        HTTPMessage response = client.answered.value_or(HTTPMessage());
        log = output.text();
        started = service.events.size();
        service.events.clear();
        return response;
    }
    HTTPMessage unsubscribe(const std::string& sid) {
        HTTPMessage request;
        request.add("SID", sid);
        const tk::testing::CapturedOutput output;
        HTTPMessage response = gateway::unsubscribe(service, request);
        log = output.text();
        return response;
    }
    std::string advance(std::uint32_t ticks) {
        const tk::testing::CapturedOutput output;
        loop.advance(ticks);
        return output.text();
    }
    /// The answer that a subscriber got, without its date.
    static std::string granted(const HTTPMessage& response, const std::string& seconds) {
        return "HTTP/1.1 200 OK\r\nDATE: " + response.get("DATE") + "\r\nSERVER: " + serverString +
               "\r\nSID: " + response.get("SID") + "\r\nTIMEOUT: Second-" + seconds + "\r\n\r\n";
    }

    tk::testing::TestLoop loop;
    Service service{"urn:x"};
    std::string log;
    std::size_t started = 0;  // events started by the last request
};

TEST_F(Gena, SubscriptionIsAnsweredWithItsIdAndDuration) {
    const HTTPMessage response = subscribeTo("<" + callbackUrl + ">");
    EXPECT_EQ(response.toString(), granted(response, "1800"));
    ASSERT_EQ(service.subscriptions.size(), 1U);
    const Subscription& subscription = *service.subscriptions.at(response.get("SID"));
    EXPECT_EQ(subscription.sid, response.get("SID"));
    EXPECT_EQ(subscription.sid.size(), 41U);
    EXPECT_EQ(subscription.sid.substr(0, 5), "uuid:");
    EXPECT_EQ(subscription.address, toAddress("127.9.9.9"));
    EXPECT_EQ(subscription.port, 9);
    EXPECT_EQ(subscription.path, "/notify");
    EXPECT_EQ(subscription.seq, 0U);
}

TEST_F(Gena, SubscriptionIsLoggedAndItsFirstEventStarted) {
    subscribeTo("<" + callbackUrl + ">");
    EXPECT_EQ(log, "callback addr: 127.9.9.9, port: 9, path: /notify\nsubscribe: urn:x\n");
    EXPECT_EQ(started, 1U);
}

TEST_F(Gena, TwoSubscriptionsHaveDifferentIds) {
    const std::string first = subscribeTo("<http://127.1.1.1/>").get("SID");
    const std::string second = subscribeTo("<http://127.1.1.2/>").get("SID");
    EXPECT_NE(first, second);
    EXPECT_EQ(service.subscriptions.size(), 2U);
}

TEST_F(Gena, DurationIsGrantedWithinItsBounds) {
    struct Case {
        const char* timeout;
        const char* granted;
    };
    constexpr Case cases[] = {
        {"", "1800"},
        {"Second-60", "1800"},
        {"Second-1800", "1800"},
        {"Second-1801", "1801"},
        {"Second-3600", "3600"},
        {"Second-3600 or so", "3600"},
        {"Second-86400", "86400"},
        {"Second-100000", "86400"},
        {"Second-infinite", "86400"},
        {"Second--5", "86400"},
        {"Second-99999999999", "86400"},
        {"Second-Infinite", "1800"},
        {"Second-", "1800"},
        {"Second", "1800"},
        {"second-3600", "1800"},
        {"3600", "1800"},
        {"infinite", "1800"},
        {" Second-3600", "1800"},
    };
    const std::string sid = subscribeTo("<" + callbackUrl + ">").get("SID");
    for (const Case& row : cases)
        EXPECT_EQ(renew(sid, row.timeout).get("TIMEOUT"), std::string("Second-") + row.granted);
}

TEST_F(Gena, ForeignNotificationTypeIsRefused) {
    for (const char* type : {"", "upnp:rootdevice", "UPNP:EVENT", "upnp:event "}) {
        HTTPMessage request;
        request.add("NT", type);
        request.add("CALLBACK", "<" + callbackUrl + ">");
        EXPECT_EQ(send(request).toString(), bare412) << type;
    }
    EXPECT_TRUE(service.subscriptions.empty());
}

TEST_F(Gena, MalformedCallbackIsRefused) {
    for (const std::string callback :
         {"", "<", ">", "<>", "http://127.1.1.1/", "<http://127.1.1.1/", "http://127.1.1.1/>",
          "<http://127.1.1.1>", "<https://127.1.1.1/>", "<http://host.example/>", " <http://127.1.1.1/>"}) {
        EXPECT_EQ(subscribeTo(callback).toString(), bare412) << callback;
        EXPECT_EQ(log, "") << callback;
    }
    EXPECT_TRUE(service.subscriptions.empty());
    EXPECT_EQ(tk::getRunner()->timerCount(), 0U);
}

TEST_F(Gena, CallbackThatWouldForgeLinesOfTheNotificationIsRefused) {
    EXPECT_EQ(subscribeTo("<http://127.1.1.1/ HTTP/1.1\nX: y>").toString(), bare412);
    EXPECT_EQ(log, "");
    EXPECT_EQ(started, 0U);
    EXPECT_TRUE(service.subscriptions.empty());
}

TEST_F(Gena, OnlyTheFirstUrlOfAListIsUsed) {
    const std::string sid = subscribeTo("<http://127.1.1.1:81/a><http://127.1.1.2:82/b>").get("SID");
    ASSERT_EQ(service.subscriptions.count(sid), 1U);
    EXPECT_EQ(service.subscriptions.at(sid)->port, 81);
    EXPECT_EQ(service.subscriptions.at(sid)->path, "/a");
}

TEST_F(Gena, SecondSubscriptionFromOneAddressIsRefused) {
    const std::string sid = subscribeTo("<http://127.1.1.1:81/a>").get("SID");
    EXPECT_EQ(subscribeTo("<http://127.1.1.1:82/b>").toString(), bare412);
    EXPECT_EQ(log, "callback addr: 127.1.1.1, port: 82, path: /b\n");
    EXPECT_EQ(service.subscriptions.size(), 1U);
    unsubscribe(sid);
    EXPECT_EQ(subscribeTo("<http://127.1.1.1:82/b>").title, "HTTP/1.1 200 OK");
}

TEST_F(Gena, HundredAndFirstSubscriptionIsRefused) {
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(subscribeTo("<http://127.1.2." + std::to_string(i) + "/>").title, "HTTP/1.1 200 OK");
    EXPECT_EQ(subscribeTo("<http://127.1.1.1/>").toString(), "HTTP/1.1 500 Internal Server Error\r\n\r\n");
    // The number is checked before the address.
    EXPECT_EQ(subscribeTo("<http://127.1.2.7/>").toString(), "HTTP/1.1 500 Internal Server Error\r\n\r\n");
    EXPECT_EQ(service.subscriptions.size(), 100U);
}

TEST_F(Gena, LongPathsAreRefusedBeyondTheirRoomAndUsualOnesAreNot) {
    const std::string bare500 = "HTTP/1.1 500 Internal Server Error\r\n\r\n";
    const std::string longPath = "/" + std::string(std::size_t{120} * 1024, 'x') + ">";
    const HTTPMessage first = subscribeTo("<http://127.1.1.1" + longPath);
    EXPECT_EQ(first.toString(), granted(first, "1800"));
    const HTTPMessage second = subscribeTo("<http://127.1.1.2" + longPath);
    EXPECT_EQ(second.toString(), granted(second, "1800"));
    EXPECT_EQ(subscribeTo("<http://127.1.1.3" + longPath).toString(), bare500);
    const HTTPMessage usual = subscribeTo("<http://127.1.1.4/" + std::string(1023, 'x') + ">");
    EXPECT_EQ(usual.toString(), granted(usual, "1800"));
    EXPECT_EQ(service.subscriptions.size(), 3U);
    EXPECT_EQ(unsubscribe(first.get("SID")).toString(), "HTTP/1.1 200 OK\r\n\r\n");
    const HTTPMessage third = subscribeTo("<http://127.1.1.3" + longPath);
    EXPECT_EQ(third.toString(), granted(third, "1800"));
}

TEST_F(Gena, RenewalKeepsTheIdAndSendsNothing) {
    const std::string sid = subscribeTo("<" + callbackUrl + ">").get("SID");
    const HTTPMessage response = renew(sid, "Second-3600");
    EXPECT_EQ(response.toString(), granted(response, "3600"));
    EXPECT_EQ(response.get("SID"), sid);
    EXPECT_EQ(log, "resubscribe: urn:x\n");
    EXPECT_EQ(started, 0U);
}

TEST_F(Gena, RenewalOfAnUnknownIdIsRefused) {
    const std::string sid = subscribeTo("<" + callbackUrl + ">").get("SID");
    for (const std::string& unknown : {std::string(), std::string("uuid:x"), sid.substr(5), sid + " "})
        EXPECT_EQ(renew(unknown).toString(), bare412);
    EXPECT_EQ(send(HTTPMessage()).toString(), bare412);
}

TEST_F(Gena, EmptyNotificationTypeIsNoRenewal) {
    HTTPMessage request;
    request.add("NT", "");
    request.add("SID", subscribeTo("<" + callbackUrl + ">").get("SID"));
    EXPECT_EQ(send(request).toString(), bare412);
}

TEST_F(Gena, SubscriptionEndsWhenItsTimeIsUp) {
    const std::string sid = subscribeTo("<" + callbackUrl + ">", "Second-2000").get("SID");
    EXPECT_EQ(advance(199999), "");
    EXPECT_EQ(service.subscriptions.size(), 1U);
    EXPECT_EQ(advance(1), "subscription timeout: " + sid + "\n");
    EXPECT_TRUE(service.subscriptions.empty());
}

TEST_F(Gena, RenewalRestartsTheTime) {
    const std::string sid = subscribeTo("<" + callbackUrl + ">", "Second-86400").get("SID");
    advance(100000);
    renew(sid, "Second-1800");
    EXPECT_EQ(advance(179999), "");
    EXPECT_EQ(advance(1), "subscription timeout: " + sid + "\n");
}

TEST_F(Gena, UnsubscribingEndsTheSubscriptionAndItsTimer) {
    const std::string sid = subscribeTo("<" + callbackUrl + ">").get("SID");
    EXPECT_EQ(unsubscribe(sid).toString(), "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(log, "unsubscribe\n");
    EXPECT_TRUE(service.subscriptions.empty());
    EXPECT_EQ(tk::getRunner()->timerCount(), 0U);
}

TEST_F(Gena, UnsubscribingAnUnknownIdIsRefused) {
    EXPECT_EQ(unsubscribe("uuid:x").toString(), bare412);
    EXPECT_EQ(log, "");
    EXPECT_EQ(gateway::unsubscribe(service, HTTPMessage()).toString(), bare412);
}

}  // namespace

}  // namespace gateway
