#include "machine/network.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

namespace machine {
namespace {

std::uint32_t ip(const char* text) {
    return parseIPv4(text).value();
}

Network net(const char* text) {
    return parseNetwork(text).value();
}

TEST(Network, IsReadAndWrittenAsText) {
    EXPECT_EQ(net("192.0.2.0/24").text(), "192.0.2.0/24");
    EXPECT_EQ(net("192.0.2.7/24"), net("192.0.2.0/24")) << "the bits after the prefix do not count";
    EXPECT_EQ(net("192.0.2.7").text(), "192.0.2.7/32");
    EXPECT_EQ(net("default").text(), "0.0.0.0/0");
}

TEST(Network, AnythingElseIsNone) {
    for (const char* text :
         {"", "192.0.2", "192.0.2.0/", "192.0.2.0/33", "192.0.2.0/2x", "/24", "2001:db8::/32"})
        EXPECT_EQ(parseNetwork(text), std::nullopt) << text;
}

TEST(Address, IsFourDecimalNumbers) {
    EXPECT_EQ(parseIPv4("192.0.2.1"), htonl(0xC0000201));
    for (const char* text : {"", "192.0.2", "192.0.2.256", "192.0.2.1 ", "3221225985", "lan"})
        EXPECT_EQ(parseIPv4(text), std::nullopt) << text;
    EXPECT_EQ(parseIPv4(std::string("192.0.2.1\0x", 11)), std::nullopt);
}

TEST(Network, ContainsItsAddressesAndSmallerNetworks) {
    EXPECT_TRUE(net("192.0.2.0/24").contains(ip("192.0.2.255")));
    EXPECT_FALSE(net("192.0.2.0/24").contains(ip("192.0.3.0")));
    EXPECT_TRUE(net("default").contains(ip("255.255.255.255")));
    EXPECT_TRUE(net("10.0.0.0/8").contains(net("10.1.0.0/16")));
    EXPECT_FALSE(net("10.1.0.0/16").contains(net("10.0.0.0/8")));
}

TEST(Reach, IsThatOfTheRange) {
    EXPECT_EQ(reachOf(ip("8.8.8.8")), Reach::everywhere);
    EXPECT_EQ(reachOf(ip("172.31.255.255")), Reach::site);
    EXPECT_EQ(reachOf(ip("172.32.0.0")), Reach::everywhere);
    EXPECT_EQ(reachOf(ip("100.64.0.1")), Reach::shared);
    EXPECT_EQ(reachOf(ip("169.254.9.9")), Reach::link);
    EXPECT_EQ(reachOf(ip("198.51.100.1")), Reach::reserved);
    EXPECT_EQ(reachOf(ip("239.255.255.250")), Reach::reserved);
}

TEST(Reach, HasAWordWhereTheInternetDoesNotLead) {
    EXPECT_STREQ(reachWord(Reach::site), "private");
    EXPECT_STREQ(reachWord(Reach::shared), "shared");
    EXPECT_STREQ(reachWord(Reach::link), "link-local");
    EXPECT_EQ(reachWord(Reach::everywhere), nullptr);
    EXPECT_EQ(reachWord(Reach::reserved), nullptr);
}

TEST(Reach, AnUplinkIsBehindAnotherRouterWhenAllItsAddressesAreInner) {
    const std::uint32_t site = ip("192.168.1.2"), shared = ip("100.64.0.9");
    EXPECT_EQ(innerAddressOf({shared, site}), shared);
    EXPECT_EQ(innerAddressOf({site, ip("8.8.8.8")}), std::nullopt);
    EXPECT_EQ(innerAddressOf({site, ip("198.51.100.1")}), std::nullopt);
    EXPECT_EQ(innerAddressOf({}), std::nullopt);
}

TEST(Reach, ANetworkIsPrivateWhenAllOfItIs) {
    EXPECT_TRUE(isPrivate(net("192.168.7.0/24")));
    EXPECT_TRUE(isPrivate(net("100.64.0.0/10")));
    EXPECT_FALSE(isPrivate(net("172.0.0.0/8")));
    EXPECT_FALSE(isPrivate(net("default")));
}

}  // namespace
}  // namespace machine
