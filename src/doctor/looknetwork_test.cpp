// What the tools print about ports and bridges, and what router.toml says.

#include <errno.h>

#include <gtest/gtest.h>

#include "doctor/collect.h"

namespace doctor {
namespace {

TEST(Sockets, AreReadWithTheirHolders) {
    const auto sockets = parseSockets(
        "udp UNCONN 0      0      0.0.0.0%lan0:1900 0.0.0.0:* users:((\"upnpd\",pid=7,fd=3))\n"
        "tcp LISTEN 0      128       192.0.2.1:2828 0.0.0.0:* "
        "users:((\"other\",pid=9,fd=4),(\"x\",pid=10,fd=4))\n"
        "tcp LISTEN 0      128               *:2828       *:*\n"
        "tcp LISTEN 0      128           [::1]:2828    [::]:* users:((\"python3\",pid=1049,fd=5))\n"
        "tcp LISTEN 0      128         0.0.0.0:1900 0.0.0.0:*\n");
    EXPECT_EQ(sockets, (std::vector<SocketFact>{{false, "lan0", "0.0.0.0", "upnpd", 7},
                                                {true, "", "192.0.2.1", "other", 9},
                                                {true, "", "*", "", 0}}));
}

TEST(Sockets, LinesOfAnotherFormAreLeftOut) {
    for (const char* text : {"", "\n", "tcp\n", "udp UNCONN 0 0\n", "udp UNCONN 0 0 :1901 *\n"})
        EXPECT_TRUE(parseSockets(text).empty()) << text;
}

TEST(Bridges, AreReadWithTheQueriersBehindTheirPorts) {
    const auto bridges = parseBridges(
        R"([{},{"ifname":"lan0","linkinfo":{"info_kind":"bridge","info_data":{"mcast_snooping":1,"mcast_querier":0}}},)"
        R"({"ifname":"lan1","linkinfo":{"info_kind":"bridge","info_data":{"mcast_snooping":0,"mcast_querier":1}}}])",
        R"([{"mdb":[],"router":{"lan0":[{"port":"p1","timer":"254.1","type":"temp"}]}}])");
    ASSERT_TRUE(bridges.isOk()) << bridges.reason();
    EXPECT_EQ(*bridges, (std::vector<BridgeFact>{{"lan0", true, false, true}, {"lan1", false, true, false}}));
}

TEST(Bridges, APortThatIsAlwaysToldIsNoQuerier) {
    const auto bridges = parseBridges(
        R"([{"ifname":"lan0","linkinfo":{"info_kind":"bridge","info_data":{"mcast_snooping":1}}}])",
        R"([{"mdb":[],"router":{"lan0":[{"port":"p1","type":"permanent"}]}}])");
    ASSERT_TRUE(bridges.isOk()) << bridges.reason();
    EXPECT_FALSE(bridges->at(0).hasOtherQuerier);
}

TEST(Bridges, WhatIsNoListIsRefused) {
    for (const char* text : {"", "5", "nonsense", R"([{"no":"name"}])"})
        EXPECT_FALSE(parseBridges(text, "[]").isOk()) << text;
}

TEST(ConfigFacts, NameTheInterfacesThatProgramsMayTakeDown) {
    const auto config = parseConfig(
        "[[interface]]\nname = \"wan0\"\nterminate = true\n[[interface]]\nname = \"wan1\"\n", "/x");
    ASSERT_TRUE(config.isOk()) << config.reason();
    EXPECT_EQ(*config, (ConfigFacts{"/x", {"wan0"}, "", ""}));
    const auto broken = parseConfig("\n[[interface]\n", "/x");
    EXPECT_TRUE(broken.reason().starts_with("line 2: ")) << broken.reason();
}

TEST(UnseenBy, AdvisesToInstallOnlyWhatIsMissing) {
    EXPECT_EQ(unseenBy(tk::Status::failure("nft is not installed", ENOENT), "rules", "nftables"),
              (Unseen{"rules", "nft is not installed", "apt install nftables"}));
    EXPECT_EQ(unseenBy(tk::Status::failure("nft: Operation not permitted"), "rules", "nftables"),
              (Unseen{"rules", "nft: Operation not permitted", ""}));
}

}  // namespace
}  // namespace doctor
