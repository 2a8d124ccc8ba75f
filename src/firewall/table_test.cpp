// The table with the real kernel: what it is made of, and how its elements change.

#include "firewall/table.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "firewall/testing/tabletest.h"

namespace firewall {
namespace {

using testing::element;
using testing::lan;
using testing::TableTest;

TEST_F(TableTest, IsWhatItIsMeantToBe) {
    const std::string text = nft("list table ip tk");
    for (const char* line :
         {"flags owner", "type ipv4_addr . inet_proto . inet_service : ipv4_addr . inet_service",
          "type nat hook prerouting priority dstnat + 10; policy accept;",
          "type ipv4_addr . inet_proto . inet_service . ipv4_addr . inet_service",
          "fib daddr type local ct label set 116 dnat ip to ip daddr . meta l4proto . th dport map @dstnat",
          "type filter hook forward priority filter - 10; policy accept;", "reject with tcp reset",
          "type filter hook input priority filter - 10; policy accept;",
          "type nat hook postrouting priority srcnat; policy accept;",
          "ct status dnat iif . oif @hairpin masquerade"})
        EXPECT_NE(text.find(line), std::string::npos) << line << " is not in\n" << text;
}

TEST_F(TableTest, AddsChangesAndRemovesElements) {
    EXPECT_EQ(commit({}, {element(80)}), "");
    EXPECT_EQ(mapText(), "elements = { 198.51.100.1 . tcp . 80 : 192.0.2.2 . 8080 }");
    EXPECT_EQ(commit({element(80)}, {element(80, "192.0.2.3", 81)}), "");
    EXPECT_EQ(mapText(), "elements = { 198.51.100.1 . tcp . 80 : 192.0.2.3 . 81 }");
    EXPECT_EQ(commit({element(80, "192.0.2.3", 81)}, {}), "");
    EXPECT_EQ(mapText(), "");
}

TEST_F(TableTest, TheKernelDecidesAboutPortZero) {
    EXPECT_EQ(commit({}, {element(0, "192.0.2.2", 0)}), "");
    EXPECT_EQ(mapText(), "elements = { 198.51.100.1 . tcp . 0 : 192.0.2.2 . 0 }");
}

TEST_F(TableTest, ARefusedTransactionChangesNothing) {
    EXPECT_EQ(commit({}, {element(80)}), "");
    EXPECT_EQ(commit({}, {element(81), element(80)}), "File exists");
    EXPECT_EQ(commit({element(99)}, {element(82)}), "No such file or directory");
    EXPECT_EQ(mapText(), "elements = { 198.51.100.1 . tcp . 80 : 192.0.2.2 . 8080 }");
    EXPECT_EQ(commit({}, {element(81)}), "");
}

TEST_F(TableTest, NobodyElseCanChangeIt) {
    EXPECT_EQ(commit({}, {element(80)}), "");
    bool failed = false;
    tk::testing::run("nft flush ruleset", failed);
    tk::testing::run("nft delete table ip tk 2>/dev/null", failed);
    EXPECT_TRUE(failed);
    EXPECT_EQ(mapText(), "elements = { 198.51.100.1 . tcp . 80 : 192.0.2.2 . 8080 }");
    Table second;
    EXPECT_EQ(second.open().reason(),
              "nf_tables: no permission, or another process owns the table \"ip tk\"");
}

TEST_F(TableTest, GoesWithItsOwner) {
    EXPECT_EQ(commit({}, {element(80)}), "");
    table.reset();
    EXPECT_EQ(nft("list tables"), "");
}

TEST_F(TableTest, ReplacesATableThatWasLeftBehind) {
    table.reset();
    EXPECT_EQ(nft("add table ip tk; nft add chain ip tk old"), "");
    table = std::make_unique<Table>();
    ASSERT_EQ(table->open().reason(), "");
    EXPECT_EQ(nft("list table ip tk").find("old"), std::string::npos);
}

TEST_F(TableTest, TakesAWholeTableOutInOneTransaction) {
    Elements all;
    for (std::uint32_t port = 0; port < 60000; ++port)
        all.push_back(element(static_cast<std::uint16_t>(port)));
    EXPECT_EQ(commit({}, all), "");
    EXPECT_EQ(commit({}, {element(60001)}), "");
    EXPECT_EQ(commit(all, {}), "");
    EXPECT_EQ(mapText(), "elements = { 198.51.100.1 . tcp . 60001 : 192.0.2.2 . 8080 }");
}

TEST_F(TableTest, HairpinsFollowTheInsideInterfaces) {
    table->insideChanged({{1}, {}});
    EXPECT_NE(nft("list set ip tk hairpin").find("\"lo\" . \"lo\""), std::string::npos);
    table->insideChanged({});
    EXPECT_EQ(nft("list set ip tk hairpin").find("elements"), std::string::npos);
}

TEST_F(TableTest, InsideAddressesAreAnIntervalSet) {
    const auto elements = [] {
        const std::string text = nft("list set ip tk inside");
        const std::size_t start = text.find("elements");
        return start == std::string::npos ? "" : text.substr(start, text.find('}', start) + 1 - start);
    };
    std::string ranges = "10.0.0.0-10.0.0.4, 192.0.2.0/24,\n\t\t\t     255.255.255.0/24";
    table->insideChanged({{}, {{0x0A000000, 0x0A000004}, lan, {0xFFFFFF00, 0xFFFFFFFF}}});
    EXPECT_EQ(elements(), "elements = { " + ranges + " }");
    table->insideChanged({{}, {{0x0A000000, 0x0A000FFF}, {0xFFFFFF01, 0xFFFFFFFF}}});
    EXPECT_EQ(elements(), "elements = { 10.0.0.0/20, 255.255.255.1-255.255.255.255 }");
    table->insideChanged({{}, {{0, 0xFFFFFFFF}}});
    EXPECT_EQ(elements(), "elements = { 0.0.0.0/0 }");
    table->insideChanged({});
    EXPECT_EQ(elements(), "");
}

TEST_F(TableTest, ThousandsOfInsideNetworksAreThereAndGoAgain) {
    links::Inside many;
    for (std::uint32_t i = 0; i < 5000; ++i) {
        many.interfaces.insert(i + 1);
        many.addresses.push_back({0x0A000000 + i * 512, 0x0A000000 + i * 512 + 255});
    }
    table->insideChanged(many);
    const std::string text = nft("list set ip tk inside");
    EXPECT_EQ(std::count(text.begin(), text.end(), '/'), 5000);
    table->insideChanged({});
    EXPECT_EQ(nft("list set ip tk inside").find("elements"), std::string::npos);
    EXPECT_EQ(nft("list set ip tk hairpin").find("elements"), std::string::npos);
}

}  // namespace
}  // namespace firewall
