#include "upnp/callbackurl.h"

#include <gtest/gtest.h>

#include "net/convert.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/testloop.h"

namespace {

const tk::Path resolver = {14};

class CallbackUrl : public testing::Test {
protected:
    bool parse(const std::string& url) {
        const tk::testing::CapturedOutput output;
        const bool parsed = parseCallbackUrl(url, address, port, path);
        log = output.text();
        return parsed;
    }
    void expectUntouched() {
        EXPECT_EQ(address, 1U);
        EXPECT_EQ(port, 2U);
        EXPECT_EQ(path, "old");
    }

    tk::testing::TestLoop loop;
    std::uint32_t address = 1;
    std::uint16_t port = 2;
    std::string path = "old";
    std::string log;
};

TEST_F(CallbackUrl, AddressPortAndPathAreTakenApart) {
    EXPECT_TRUE(parse("http://192.0.2.9:5000/notify"));
    EXPECT_EQ(address, toAddress("192.0.2.9"));
    EXPECT_EQ(port, 5000);
    EXPECT_EQ(path, "/notify");
    EXPECT_TRUE(loop.bus.requests.empty());
}

TEST_F(CallbackUrl, PortIsEightyWhereNoneIsGiven) {
    EXPECT_TRUE(parse("http://192.0.2.9/"));
    EXPECT_EQ(port, 80);
    EXPECT_EQ(path, "/");
}

TEST_F(CallbackUrl, PathRunsToTheEnd) {
    EXPECT_TRUE(parse("http://192.0.2.9/a/b?c=d:e#f"));
    EXPECT_EQ(path, "/a/b?c=d:e#f");
    EXPECT_EQ(port, 80);
}

TEST_F(CallbackUrl, PortIsKeptInSixteenBitsUnchecked) {
    EXPECT_TRUE(parse("http://192.0.2.9:65616/"));
    EXPECT_EQ(port, 80);
    EXPECT_TRUE(parse("http://192.0.2.9:/"));
    EXPECT_EQ(port, 0);
    EXPECT_TRUE(parse("http://192.0.2.9:-1/"));
    EXPECT_EQ(port, 65535);
    EXPECT_TRUE(parse("http://192.0.2.9:81:82/"));
    EXPECT_EQ(port, 81);
}

TEST_F(CallbackUrl, OtherFormsAreRefused) {
    for (const char* url : {"", "http:/", "http://", "HTTP://192.0.2.9/", "https://192.0.2.9/", "192.0.2.9/",
                            "http://192.0.2.9", "http://192.0.2.9:80", " http://192.0.2.9/"}) {
        EXPECT_FALSE(parse(url)) << url;
        expectUntouched();
    }
    EXPECT_TRUE(loop.bus.requests.empty());
}

TEST_F(CallbackUrl, ControlCharactersAreRefusedWhereverTheyStand) {
    for (const char byte : {'\n', '\r', '\0', '\x7f', '\x01', '\t', '\x1f'}) {
        const std::string control(1, byte);
        EXPECT_FALSE(parse("http://192.0.2.9/a" + control + "b")) << int{byte};
        EXPECT_FALSE(parse("http://192.0.2.9:80" + control + "/")) << int{byte};
        EXPECT_FALSE(parse("http://host" + control + ".example/")) << int{byte};
        EXPECT_FALSE(parse("http://192.0.2.9/" + control)) << int{byte};
        expectUntouched();
    }
    EXPECT_TRUE(loop.bus.requests.empty());
}

TEST_F(CallbackUrl, OtherBytesOfThePathStayAsTheyAre) {
    EXPECT_TRUE(parse("http://192.0.2.9/ ~\x80\xff"));
    EXPECT_EQ(path, "/ ~\x80\xff");
}

TEST_F(CallbackUrl, NameIsAskedOfTheResolver) {
    tk::message reply;
    reply.insert_be32(4, toAddress("192.0.2.7"));
    loop.bus.answer(resolver, 3, reply);
    EXPECT_TRUE(parse("http://host.example:81/x"));
    EXPECT_EQ(address, toAddress("192.0.2.7"));
    EXPECT_EQ(port, 81);

    ASSERT_EQ(loop.bus.requestsTo(resolver, 3).size(), 1U);
    tk::message expected;
    expected.insert_u32_array(0xFF0001, {14});
    expected.insert_string(3, "host.example");
    EXPECT_EQ(loop.bus.requests[0].content, expected);
    EXPECT_EQ(loop.bus.requests[0].timeout, 6000U);
    EXPECT_EQ(log, "");
}

TEST_F(CallbackUrl, BroadcastAddressReadsLikeAName) {
    EXPECT_FALSE(parse("http://255.255.255.255/"));
    EXPECT_EQ(loop.bus.requests.size(), 1U);
    expectUntouched();
}

TEST_F(CallbackUrl, ReplyWithoutAnAddressIsAFailure) {
    EXPECT_FALSE(parse("http://host.example/"));
    expectUntouched();
    EXPECT_EQ(log, "");
}

TEST_F(CallbackUrl, ErrorOfTheResolverIsLogged) {
    loop.bus.answer(resolver, 3, tk::errorMsg(1, "no such host"));
    EXPECT_FALSE(parse("http://host.example/"));
    EXPECT_EQ(log, "resolving failed: no such host\n");
}

TEST_F(CallbackUrl, AddressIsReadEvenFromAnErrorReply) {
    tk::message reply = tk::errorMsg(1, "stale");
    reply.insert_be32(4, toAddress("192.0.2.7"));
    loop.bus.answer(resolver, 3, reply);
    EXPECT_TRUE(parse("http://host.example/"));
    EXPECT_EQ(address, toAddress("192.0.2.7"));
    EXPECT_EQ(log, "resolving failed: stale\n");
}

}  // namespace
