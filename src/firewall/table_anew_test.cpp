// Answers of the kernel that are lost, changes that it refused, and tables that are made anew.

#include "firewall/table.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "firewall/testing/tabletest.h"

namespace firewall {
namespace {

using testing::element;
using testing::lan;
using testing::TableTest;

TEST_F(TableTest, AChangeWhoseAnswerIsLostIsMadeOnce) {
    EXPECT_EQ(commit({}, {element(80)}), "");
    const std::string before = identity();
    fillSocket();
    EXPECT_EQ(commit({element(80)}, {element(81)}), "");
    EXPECT_NE(identity(), before);
    EXPECT_NE(nft("list table ip tk").find("flags owner"), std::string::npos);
    EXPECT_EQ(mapText(), "elements = { 198.51.100.1 . tcp . 81 : 192.0.2.2 . 8080 }");
    EXPECT_EQ(commit({element(81)}, {}), "");
    EXPECT_EQ(mapText(), "");
}

TEST_F(TableTest, AChangeRefusedForWantOfAnAnswerIsUndoneASecondLater) {
    table->insideChanged({manyIndexes(), {}});
    limitSending(1);  // the least that there is, too little to make the table anew at once
    fillSocket();
    EXPECT_EQ(commit({}, {element(80)}), "Message too long");
    limitSending(1024 * 1024);
    loop.advance(99);
    EXPECT_NE(mapText().find(". 80 :"), std::string::npos);  // the kernel had done it
    loop.advance(1);
    EXPECT_EQ(mapText(), "");
    EXPECT_EQ(commit({}, {element(80)}), "");
}

TEST_F(TableTest, ARefusalWhoseAnswerIsLostIsStillARefusal) {
    EXPECT_EQ(commit({}, {element(80)}), "");
    fillSocket();
    EXPECT_EQ(commit({}, {element(81), element(80)}), "File exists");
    EXPECT_EQ(mapText(), "elements = { 198.51.100.1 . tcp . 80 : 192.0.2.2 . 8080 }");
}

TEST_F(TableTest, AChangeOfTheInsideWhoseAnswerIsLostIsMadeOnce) {
    table->insideChanged({{1}, {lan}});
    fillSocket();
    table->insideChanged({});
    EXPECT_EQ(nft("list set ip tk inside").find("elements"), std::string::npos);
    table->insideChanged({{1}, {lan}});
    EXPECT_NE(nft("list set ip tk inside").find("elements = { 192.0.2.0/24 }"), std::string::npos);
}

TEST_F(TableTest, RefusedInsideAddressesAndUsersAreSetASecondLater) {
    limitSending(1);
    table->insideChanged({manyIndexes(), {lan}});
    table->guardUser(64001);
    limitSending(1024 * 1024);
    EXPECT_EQ(nft("list set ip tk inside").find("elements"), std::string::npos);
    loop.advance(100);
    EXPECT_NE(nft("list set ip tk inside").find("elements = { 192.0.2.0/24 }"), std::string::npos);
    EXPECT_NE(nft("list set ip tk hairpin").find("\"lo\" . \"lo\""), std::string::npos);
    EXPECT_NE(nft("list set ip tk guarded").find("elements = { 64001 }"), std::string::npos);
    EXPECT_NE(nft("list set ip6 tk guarded").find("elements = { 64001 }"), std::string::npos);
    table->insideChanged({{1}, {}});
    EXPECT_EQ(nft("list set ip tk inside").find("elements"), std::string::npos);
}

TEST_F(TableTest, IsMadeAnewInPartsWhereItDoesNotFitOneTransaction) {
    Elements many;
    for (std::uint16_t port = 1000; port < 4000; ++port) many.push_back(element(port));
    EXPECT_EQ(commit({}, many), "");
    table->insideChanged({manyIndexes(), {lan}});
    endFlows();
    const std::string before = identity();
    limitSending(16384);
    fillSocket();
    EXPECT_EQ(commit({}, {element(80)}), "");
    EXPECT_NE(identity(), before);
    EXPECT_EQ(count(mapText(), " : "), 3001);
    EXPECT_EQ(count(liveText(), " . tcp . "), 3001);
    EXPECT_NE(nft("list set ip tk hairpin").find("1000 . 1000 }"), std::string::npos);
    EXPECT_NE(nft("list chain ip tk forward").find("goto ended"), std::string::npos);
    EXPECT_EQ(commit({many.front(), many.back()}, {}), "");
}

TEST_F(TableTest, ThousandsOfInterfacesFitAnySocket) {
    links::Inside many;
    for (std::uint32_t index = 1; index <= 5000; ++index) many.interfaces.insert(index);
    table->insideChanged(many);
    limitSending(16384);
    fillSocket();
    EXPECT_EQ(commit({}, {element(80)}), "");
    EXPECT_EQ(count(nft("list set ip tk hairpin"), " . "), 5000 + 1);  // and the type
}

TEST_F(TableTest, TheGuardIsMadeAnewToo) {
    table->guardUser(64001);
    table->insideChanged({{1}, {lan}});
    fillSocket();
    EXPECT_EQ(commit({}, {element(80)}), "");
    EXPECT_NE(nft("list set ip tk guarded").find("elements = { 64001 }"), std::string::npos);
    EXPECT_NE(nft("list set ip6 tk guarded").find("elements = { 64001 }"), std::string::npos);
    EXPECT_NE(nft("list set ip tk inside").find("elements = { 192.0.2.0/24 }"), std::string::npos);
}

}  // namespace
}  // namespace firewall
