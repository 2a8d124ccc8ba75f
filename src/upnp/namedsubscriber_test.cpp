#include "upnp/namedsubscriber.h"

#include <gtest/gtest.h>

#include "net/convert.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/testloop.h"
#include "upnp/event.h"
#include "upnp/gena.h"
#include "upnp/testing/fakeclient.h"

namespace gateway {

namespace {

const tk::Path resolver = {14};
constexpr std::uint32_t resolve = 3;
const std::string bare412 = "HTTP/1.1 412 Precondition Failed\r\n\r\n";

class NamedSubscribers : public testing::Test {
protected:
    NamedSubscribers() { loop.bus.keepSilent(resolver, resolve); }

    /// Subscribes with a callback URL, which may hold a host name.
    void subscribeFor(FakeClient& subscriber, const std::string& url, const std::string& timeout = "") {
        HTTPMessage request;
        request.add("CALLBACK", "<" + url + ">");
        request.add("NT", "upnp:event");
        request.add("TIMEOUT", timeout);
        subscriber.take(service.subscribe(request, subscriber));
    }
    /// Lets the resolver answer the request of this number with an address, and returns what is logged.
    std::string answer(std::uint32_t number, const std::string& address) {
        tk::message reply;
        reply.insert_be32(4, toAddress(address));
        return end(number, reply);
    }
    std::string end(std::uint32_t number, const tk::message& how) {
        const tk::testing::CapturedOutput output;
        loop.end(number, how);
        return output.text();
    }
    static std::string titleOf(const FakeClient& subscriber) {
        return subscriber.answered ? subscriber.answered->title : "no answer";
    }

    const tk::testing::CapturedOutput quiet;
    tk::testing::TestLoop loop;
    Service service{"urn:x"};
    FakeClient client;
};

TEST_F(NamedSubscribers, AskTheResolverForTheirHost) {
    subscribeFor(client, "http://host.example:81/x");
    tk::message expected;
    expected.insert_u32_array(0xFF0001, {14});
    expected.insert_string(3, "host.example");
    ASSERT_EQ(loop.bus.requests.size(), 1U);
    EXPECT_EQ(loop.bus.requests[0].content, expected);
    EXPECT_EQ(loop.bus.requests[0].command, 3U);
    EXPECT_EQ(loop.bus.requests[0].from, (tk::Path{80, 0}));
}

TEST_F(NamedSubscribers, AreSubscribedWhenTheAddressComesAndNotBefore) {
    subscribeFor(client, "http://host.example:81/x", "Second-3600");
    EXPECT_FALSE(client.answered);
    EXPECT_TRUE(service.subscriptions.empty());
    EXPECT_EQ(answer(1, "127.9.9.9"), "callback addr: 127.9.9.9, port: 81, path: /x\nsubscribe: urn:x\n");
    EXPECT_EQ(titleOf(client), "HTTP/1.1 200 OK");
    EXPECT_EQ(client.answered->get("TIMEOUT"), "Second-3600");
    ASSERT_EQ(service.subscriptions.size(), 1U);
    EXPECT_EQ(service.subscriptions.begin()->second->address, toAddress("127.9.9.9"));
    EXPECT_EQ(service.events.size(), 1U);
    EXPECT_EQ(client.wait, nullptr);
}

TEST_F(NamedSubscribers, DoNotKeepOthersWaiting) {
    subscribeFor(client, "http://slow.example/");
    FakeClient other, named;
    subscribeFor(other, "http://127.1.1.1/");
    EXPECT_EQ(titleOf(other), "HTTP/1.1 200 OK");
    subscribeFor(named, "http://quick.example/");
    (void)answer(2, "127.1.1.2");
    EXPECT_EQ(titleOf(named), "HTTP/1.1 200 OK");
    EXPECT_FALSE(client.answered);
}

TEST_F(NamedSubscribers, WithoutAnAddressAreRefused) {
    subscribeFor(client, "http://host.example/");
    EXPECT_EQ(end(1, {}), "");
    EXPECT_EQ(client.answered.value_or(HTTPMessage()).toString(), bare412);
    EXPECT_TRUE(service.subscriptions.empty());
}

TEST_F(NamedSubscribers, OfAnUnknownHostAreRefusedWithALogLine) {
    subscribeFor(client, "http://host.example/");
    EXPECT_EQ(end(1, tk::errorMsg(1, "no such host")), "resolving failed: no such host\n");
    EXPECT_EQ(client.answered.value_or(HTTPMessage()).toString(), bare412);
}

TEST_F(NamedSubscribers, TakeAnAddressEvenFromAnErrorReply) {
    subscribeFor(client, "http://host.example/");
    tk::message reply = tk::errorMsg(1, "stale");
    reply.insert_be32(4, toAddress("127.9.9.9"));
    EXPECT_EQ(end(1, reply),
              "resolving failed: stale\ncallback addr: 127.9.9.9, port: 80, path: /\nsubscribe: urn:x\n");
}

TEST_F(NamedSubscribers, GiveUpAfterSixSeconds) {
    subscribeFor(client, "http://host.example/");
    loop.advance(599);
    EXPECT_FALSE(client.answered);
    const tk::testing::CapturedOutput output;
    loop.advance(1);
    EXPECT_EQ(output.text(), "resolving failed: timed out\n");
    EXPECT_EQ(titleOf(client), "HTTP/1.1 412 Precondition Failed");
}

TEST_F(NamedSubscribers, AreRefusedWhenTheirAddressWasSubscribedMeanwhile) {
    subscribeFor(client, "http://host.example/");
    FakeClient other;
    subscribeFor(other, "http://127.9.9.9:81/other");
    (void)answer(1, "127.9.9.9");
    EXPECT_EQ(titleOf(client), "HTTP/1.1 412 Precondition Failed");
    EXPECT_EQ(service.subscriptions.size(), 1U);
}

TEST_F(NamedSubscribers, AreRefusedWhenAHundredCameMeanwhile) {
    subscribeFor(client, "http://host.example/");
    for (int i = 0; i < 100; ++i) {
        FakeClient other;
        subscribeFor(other, "http://127.1.2." + std::to_string(i) + "/");
    }
    (void)answer(1, "127.9.9.9");
    EXPECT_EQ(titleOf(client), "HTTP/1.1 500 Internal Server Error");
    EXPECT_EQ(service.subscriptions.size(), 100U);
}

TEST_F(NamedSubscribers, LeaveNothingBehindWhenTheirConnectionEnds) {
    subscribeFor(client, "http://host.example/");
    client.wait.reset();
    EXPECT_EQ(loop.bus.forgotten, loop.bus.asked);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
    EXPECT_EQ(answer(1, "127.9.9.9"), "");
    EXPECT_TRUE(service.subscriptions.empty());
}

TEST_F(NamedSubscribers, BeyondTheirHostsShareAreRefusedAndNotAsked) {
    client.mayBeKept = false;
    const tk::testing::CapturedOutput output;
    subscribeFor(client, "http://host.example/");
    EXPECT_EQ(output.text(), "resolving failed: too many requests wait for names\n");
    EXPECT_EQ(titleOf(client), "HTTP/1.1 412 Precondition Failed");
    EXPECT_TRUE(loop.bus.requests.empty());
}

TEST_F(NamedSubscribers, WaitOnlyForTheirService) {
    subscribeFor(client, "http://host.example/");
    const Service another{"urn:y"};
    ASSERT_TRUE(client.wait);
    EXPECT_TRUE(client.wait->isFor(service));
    EXPECT_FALSE(client.wait->isFor(another));
}

}  // namespace

}  // namespace gateway
