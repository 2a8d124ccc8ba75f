// What of the table is live, the flows that it lets pass, and their traffic.

#include "firewall/table.h"

#include <linux/netlink.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "firewall/sets.h"
#include "firewall/testing/tabletest.h"
#include "netlink/socket.h"

namespace firewall {
namespace {

using testing::element;
using testing::lan;
using testing::TableTest;

TEST_F(TableTest, LetsFlowsPassUntilItIsToldToEndThem) {
    EXPECT_EQ(nft("list chain ip tk forward").find("ended"), std::string::npos);
    endFlows();
    const std::string text = nft("list chain ip tk forward");
    EXPECT_NE(text.find("ct status ! dnat accept\n\t\t"
                        "ct original ip daddr . ct protocol . ct original proto-dst . "
                        "ct reply ip saddr . ct reply proto-src @live accept\n\t\t"
                        "ct label 116 goto ended\n"),
              std::string::npos)
        << text;
}

TEST_F(TableTest, CountsForEachElement) {
    table->insideChanged({{}, {lan}});
    EXPECT_EQ(commit({}, {element(80)}), "");
    EXPECT_NE(nft("list set ip tk live").find(". 8080 counter packets 0 bytes 0"), std::string::npos);
}

TEST_F(TableTest, TellsTheTrafficOfElementsInAnyOrderAndNumber) {
    table->insideChanged({{}, {lan}});
    EXPECT_TRUE(table->traffic({}).empty());
    Elements many;
    for (std::uint16_t port = 1; port <= 1024; ++port) many.push_back(element(port));
    EXPECT_EQ(commit({}, many), "");
    const Elements some = {element(1000), element(5000), element(80), element(1, "10.0.0.2")};
    EXPECT_EQ(table->traffic(some), std::vector<NatTraffic>(4));
    EXPECT_EQ(table->traffic(many), std::vector<NatTraffic>(1024));
    EXPECT_EQ(commit(many, {}), "");  // nothing of the answers is left
}

TEST_F(TableTest, TheTrafficIsZeroWhereTheKernelDoesNotTell) {
    table->insideChanged({{}, {lan}});
    EXPECT_EQ(commit({}, {element(80)}), "");
    fillSocket();
    EXPECT_EQ(table->traffic(Elements{element(80)}), std::vector<NatTraffic>(1));
    EXPECT_EQ(commit({element(80)}, {element(81)}), "");
    table = std::make_unique<Table>();
    EXPECT_EQ(table->traffic(Elements{element(80)}), std::vector<NatTraffic>(1));
}

TEST_F(TableTest, WhatIsLiveIsWhatIsMapped) {
    table->insideChanged({{}, {lan}});
    EXPECT_EQ(commit({}, {element(80)}), "");
    EXPECT_EQ(liveText(), "elements = { 198.51.100.1 . tcp . 80 . 192.0.2.2 . 8080 }");
    EXPECT_EQ(commit({element(80)}, {element(80, "192.0.2.3", 81)}), "");
    EXPECT_EQ(liveText(), "elements = { 198.51.100.1 . tcp . 80 . 192.0.2.3 . 81 }");
    EXPECT_EQ(commit({}, {element(81), element(80)}), "File exists");
    EXPECT_EQ(liveText(), "elements = { 198.51.100.1 . tcp . 80 . 192.0.2.3 . 81 }");
    EXPECT_EQ(commit({element(80, "192.0.2.3", 81)}, {}), "");
    EXPECT_EQ(liveText(), "");
}

TEST_F(TableTest, OnlyWhatLeadsInsideIsLive) {
    const std::string first = "elements = { 198.51.100.1 . tcp . 80 . 192.0.2.2 . 8080 }";
    const std::string second = "elements = { 198.51.100.1 . tcp . 81 . 10.0.0.2 . 8080 }";
    EXPECT_EQ(commit({}, {element(80), element(81, "10.0.0.2")}), "");
    EXPECT_EQ(liveText(), "");
    table->insideChanged({{}, {lan}});
    EXPECT_EQ(liveText(), first);
    table->insideChanged({{}, {{0x0A000000, 0x0A0000FF}}});
    EXPECT_EQ(liveText(), second);
    EXPECT_EQ(commit({element(80)}, {element(80, "10.0.0.3")}), "");
    EXPECT_EQ(count(liveText(), " . tcp . "), 2);
    EXPECT_EQ(commit({element(80, "10.0.0.3")}, {element(80)}), "");
    EXPECT_EQ(liveText(), second);
    fillSocket();
    table->insideChanged({{}, {lan}});
    EXPECT_EQ(liveText(), first);
    table->insideChanged({});
    EXPECT_EQ(liveText(), "");
    EXPECT_EQ(commit({element(80), element(81, "10.0.0.2")}, {}), "");
    EXPECT_EQ(mapText(), "");
}

TEST_F(TableTest, WhatIsLiveFollowsASecondLaterWhereTheKernelRefusedIt) {
    EXPECT_EQ(commit({}, {element(80)}), "");
    limitSending(1);
    table->insideChanged({manyIndexes(), {lan}});
    limitSending(1024 * 1024);
    EXPECT_EQ(liveText(), "");
    loop.advance(100);
    EXPECT_EQ(liveText(), "elements = { 198.51.100.1 . tcp . 80 . 192.0.2.2 . 8080 }");
}

TEST_F(TableTest, EverythingIsLiveWhereTargetsAreNotChecked) {
    table = nullptr;
    table = std::make_unique<Table>(GuardConfig{}, /*checksTargets=*/false);
    table->setOwner(rules);
    ASSERT_EQ(table->open().reason(), "");
    const std::string all = "elements = { 198.51.100.1 . tcp . 80 . 192.0.2.2 . 8080 }";
    EXPECT_EQ(commit({}, {element(80)}), "");
    EXPECT_EQ(liveText(), all);
    table->insideChanged({{}, {lan}});
    table->insideChanged({});
    EXPECT_EQ(liveText(), all);
    EXPECT_EQ(commit({element(80)}, {}), "");
    EXPECT_EQ(liveText(), "");
}

TEST_F(TableTest, TargetsMayBeCheckedLater) {
    const Element outside = element(81, "203.0.113.9");
    table->insideChanged({{1}, {lan}});
    EXPECT_EQ(commit({}, {element(80), outside}), "");
    endFlows();
    const std::string before = identity();
    EXPECT_EQ(count(liveText(), " . tcp . "), 1);
    table->setChecksTargets(false);
    EXPECT_EQ(count(liveText(), " . tcp . "), 2);
    EXPECT_EQ(count(nft("list chain ip tk missed"), "goto ended"), 0);
    table->setChecksTargets(true);
    EXPECT_EQ(count(liveText(), " . tcp . "), 1);
    EXPECT_EQ(count(nft("list chain ip tk missed"), "goto ended"), 1);
    EXPECT_EQ(count(nft("list chain ip tk missed"), "log group"), 1);
    EXPECT_EQ(identity(), before);
    EXPECT_EQ(commit({element(80), outside}, {}), "");
}

TEST(ReadTraffic, GoesOnBehindElementsThatAreNotThere) {
    if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
    bool failed = false;
    tk::testing::run(
        "nft 'add table ip tk; "
        "add set ip tk live { type ipv4_addr . inet_proto . inet_service . ipv4_addr . inet_service; "
        "counter; }; "
        "add element ip tk live { 198.51.100.1 . tcp . 80 . 192.0.2.2 . 8080 counter packets 5 bytes 500, "
        "198.51.100.1 . tcp . 81 . 192.0.2.2 . 8080 counter packets 6 bytes 600 }'",
        failed);
    ASSERT_FALSE(failed);
    netlink::Socket socket;
    ASSERT_TRUE(socket.open(NETLINK_NETFILTER).isOk());
    const NatTraffic none, first{5, 500}, second{6, 600};
    const std::vector<Element> elements = {element(1), element(80), element(2),
                                           element(3), element(81), element(4)};
    EXPECT_EQ(readTraffic(socket, elements),
              (std::vector<NatTraffic>{none, first, none, none, second, none}));
}

}  // namespace
}  // namespace firewall
