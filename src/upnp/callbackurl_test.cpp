#include "upnp/callbackurl.h"

#include <gtest/gtest.h>

#include "net/convert.h"

namespace gateway {

namespace {

class CallbackUrl : public testing::Test {
protected:
    bool parse(const std::string& url) { return parseCallbackUrl(url, callback); }
    void expectUntouched() {
        EXPECT_EQ(callback.host, "old.example");
        EXPECT_EQ(callback.address, 1U);
        EXPECT_EQ(callback.port, 2U);
        EXPECT_EQ(callback.path, "old");
    }

    Callback callback{"old.example", 1, 2, "old"};
};

TEST_F(CallbackUrl, AddressPortAndPathAreTakenApart) {
    EXPECT_TRUE(parse("http://192.0.2.9:5000/notify"));
    EXPECT_EQ(callback.address, toAddress("192.0.2.9"));
    EXPECT_EQ(callback.port, 5000);
    EXPECT_EQ(callback.path, "/notify");
}

TEST_F(CallbackUrl, PortIsEightyWhenNoneIsGiven) {
    EXPECT_TRUE(parse("http://192.0.2.9/"));
    EXPECT_EQ(callback.port, 80);
    EXPECT_EQ(callback.path, "/");
}

TEST_F(CallbackUrl, PathRunsToTheEnd) {
    EXPECT_TRUE(parse("http://192.0.2.9/a/b?c=d:e#f"));
    EXPECT_EQ(callback.path, "/a/b?c=d:e#f");
    EXPECT_EQ(callback.port, 80);
}

TEST_F(CallbackUrl, PortIsKeptInSixteenBitsUnchecked) {
    EXPECT_TRUE(parse("http://192.0.2.9:65616/"));
    EXPECT_EQ(callback.port, 80);
    EXPECT_TRUE(parse("http://192.0.2.9:/"));
    EXPECT_EQ(callback.port, 0);
    EXPECT_TRUE(parse("http://192.0.2.9:-1/"));
    EXPECT_EQ(callback.port, 65535);
    EXPECT_TRUE(parse("http://192.0.2.9:81:82/"));
    EXPECT_EQ(callback.port, 81);
}

TEST_F(CallbackUrl, OtherFormsAreRefused) {
    for (const char* url : {"", "http:/", "http://", "HTTP://192.0.2.9/", "https://192.0.2.9/", "192.0.2.9/",
                            "http://192.0.2.9", "http://192.0.2.9:80", " http://192.0.2.9/"}) {
        EXPECT_FALSE(parse(url)) << url;
        expectUntouched();
    }
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
}

TEST_F(CallbackUrl, OtherBytesOfThePathStayAsTheyAre) {
    EXPECT_TRUE(parse("http://192.0.2.9/ ~\x80\xff"));
    EXPECT_EQ(callback.path, "/ ~\x80\xff");
}

TEST_F(CallbackUrl, HostThatIsNotAnAddressIsAName) {
    EXPECT_TRUE(parse("http://host.example:81/x"));
    EXPECT_EQ(callback.host, "host.example");
    EXPECT_EQ(callback.address, std::nullopt);
    EXPECT_EQ(callback.port, 81);
    EXPECT_EQ(callback.path, "/x");
}

TEST_F(CallbackUrl, BroadcastAddressReadsLikeAName) {
    EXPECT_TRUE(parse("http://255.255.255.255/"));
    EXPECT_EQ(callback.address, std::nullopt);
}

TEST_F(CallbackUrl, AddressOfZerosIsAnAddress) {
    EXPECT_TRUE(parse("http://0.0.0.0/"));
    EXPECT_EQ(callback.address, 0U);
}

}  // namespace

}  // namespace gateway
