// A plain table among others that change it, with the real kernel, in a network namespace of the test's own.

#include "router/nftwatch.h"

#include <algorithm>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "router/nfttable.h"
#include "router/testing/commands.h"
#include "router/testing/fakekernel.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"

namespace router {
namespace {

using testing::address;

constexpr const char* madeAnew = "nat: the table is made anew: somebody else changed it\n";

NatElement element(std::uint16_t port) {
    return {address("198.51.100.1"), 6, port, address("192.0.2.2"), 8080};
}

class NftWatchTest : public ::testing::Test {
protected:
    using Elements = std::vector<NatElement>;

    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        open(*table);
        table->interfaceAdded(1, 7);
        table->guardUser(64001);
        table->setUplinks({1});
        EXPECT_EQ(commit({}, {element(80), element(81)}), "");
        loop.settle();
        whole = text();
    }
    static void open(NftTable& opened) {
        std::string reason;
        ASSERT_TRUE(opened.open(reason, NftTable::Kind::plain)) << reason;
    }
    std::string commit(const Elements& removed, const Elements& added) {
        std::string reason;
        return table->commit(removed, added, reason) ? "" : reason;
    }
    static std::string nft(const std::string& arguments) {
        bool failed = false;
        return testing::run("nft '" + arguments + "' 2>&1", failed);
    }
    static std::string text() { return nft("list table ip tk"); }
    static bool exists() { return nft("list tables") == "table ip tk\n"; }
    /// The table's first line, with its number: that of another table is another.
    static std::string identity() {
        bool failed = false;
        return testing::run("nft -a list table ip tk | head -1", failed);
    }

    tk::testing::TestLoop loop;
    std::unique_ptr<NftTable> table = std::make_unique<NftTable>();
    std::string whole;  // the table as it is to be
};

struct Disturbance {
    const char* name;
    const char* command;
};

class NftWatchDisturbed : public NftWatchTest, public ::testing::WithParamInterface<Disturbance> {};

TEST_P(NftWatchDisturbed, IsMendedAtOnceAndWithOneLine) {
    EXPECT_EQ(nft(GetParam().command), "");
    EXPECT_NE(text(), whole);
    const tk::testing::CapturedOutput log;
    loop.settle();
    EXPECT_EQ(text(), whole);
    const std::string made = identity();
    loop.advance(1000);
    EXPECT_EQ(identity(), made);
    EXPECT_EQ(log.text(), madeAnew);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Others, NftWatchDisturbed,
    ::testing::Values(Disturbance{"FlushOfTheRuleset", "flush ruleset"},
                      Disturbance{"RemovalOfTheTable", "delete table ip tk"},
                      Disturbance{"FlushOfTheTable", "flush table ip tk"},
                      Disturbance{"FlushOfAChain", "flush chain ip tk prerouting"},
                      Disturbance{"FlushOfTheMap", "flush map ip tk dstnat"},
                      Disturbance{"RemovalOfAnElement",
                                  "delete element ip tk dstnat { 198.51.100.1 . tcp . 81 }"},
                      Disturbance{"RemovalOfAnInterface", "delete element ip tk hairpin { \"lo\" . \"lo\" }"},
                      Disturbance{"AForeignRule", "insert rule ip tk prerouting accept"},
                      Disturbance{"AForeignElement",
                                  "add element ip tk dstnat { 198.51.100.1 . tcp . 90 : 192.0.2.9 . 90 }"},
                      Disturbance{"ASleepingTable", "add table ip tk { flags dormant; }"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(NftWatchTest, ChangesOfItsOwnAreNoReasonToMakeItAnew) {
    const std::string before = identity();
    const tk::testing::CapturedOutput log;
    Elements many;
    for (std::uint32_t port = 1000; port < 61000; ++port)
        many.push_back(element(static_cast<std::uint16_t>(port)));
    EXPECT_EQ(commit({}, many), "");
    loop.settle();
    for (std::uint16_t port = 100; port < 200; ++port) EXPECT_EQ(commit({}, {element(port)}), "");
    EXPECT_EQ(commit(many, {}), "");
    table->interfaceGone(1);
    table->guardUser(64002);
    table->setUplinks({});
    loop.settle();
    loop.advance(1000);
    EXPECT_EQ(identity(), before);
    EXPECT_EQ(log.text(), "");
}

TEST_F(NftWatchTest, OtherTablesAreNotItsConcern) {
    const std::string before = identity();
    EXPECT_EQ(nft("add table inet tk; add chain inet tk c; add rule inet tk c accept; delete table inet tk"),
              "");
    EXPECT_EQ(nft("add table ip tkx; add set ip tkx dstnat { type mark; elements = { 1 }; }"), "");
    EXPECT_EQ(nft("delete table ip tkx"), "");
    loop.settle();
    EXPECT_EQ(identity(), before);
}

TEST_F(NftWatchTest, WhatARequestHasMendedIsNotMadeAgain) {
    EXPECT_EQ(nft("flush ruleset"), "");
    EXPECT_EQ(commit({element(80)}, {}), "");
    const std::string made = identity();
    loop.settle();
    loop.advance(1000);
    EXPECT_EQ(identity(), made);
    EXPECT_EQ(commit({}, {element(80)}), "");
    EXPECT_EQ(text(), whole);
}

TEST_F(NftWatchTest, ARequestMeetsAMendedTableWhateverWasChanged) {
    EXPECT_EQ(nft("delete element ip tk dstnat { 198.51.100.1 . tcp . 81 }"), "");
    EXPECT_EQ(commit({element(80), element(81)}, {}), "");
    EXPECT_EQ(nft("add element ip tk dstnat { 198.51.100.1 . tcp . 80 : 192.0.2.9 . 80 }"), "");
    EXPECT_EQ(commit({}, {element(80), element(81)}), "");
    EXPECT_EQ(text(), whole);
}

TEST_F(NftWatchTest, EachOfItsChangesMendsIt) {
    EXPECT_EQ(nft("flush ruleset"), "");
    table->interfaceGone(1);
    EXPECT_EQ(nft("flush ruleset"), "");
    table->interfaceAdded(1, 7);
    EXPECT_EQ(text(), whole);
    EXPECT_EQ(nft("flush ruleset"), "");
    table->setUplinks({});
    EXPECT_EQ(nft("flush ruleset"), "");
    table->setUplinks({1});
    EXPECT_EQ(text(), whole);
    EXPECT_EQ(nft("flush ruleset"), "");
    table->guardUser(64002);
    EXPECT_NE(nft("list set ip tk guarded").find("elements = { 64001, 64002 }"), std::string::npos);
    EXPECT_NE(nft("list set ip tk uplinks").find("elements = { \"lo\" }"), std::string::npos);
}

TEST_F(NftWatchTest, ARefusalOfThePlainTableIsOneAllTheSame) {
    EXPECT_EQ(commit({}, {element(80)}), "File exists");
    EXPECT_EQ(commit({element(99)}, {}), "No such file or directory");
    loop.settle();
    loop.advance(100);
    EXPECT_EQ(text(), whole);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
}

TEST_F(NftWatchTest, MakingsThatOthersCauseAreAtLeast200MillisecondsApart) {
    EXPECT_EQ(nft("flush ruleset"), "");
    loop.settle();
    EXPECT_TRUE(exists());
    EXPECT_EQ(nft("flush ruleset"), "");
    loop.settle();
    loop.advance(19);
    EXPECT_FALSE(exists());
    loop.advance(1);
    EXPECT_EQ(text(), whole);
}

TEST_F(NftWatchTest, TwoKeepersOfOneTableQuarrelAtADistance) {
    const tk::testing::CapturedOutput log;
    NftTable second;
    open(second);
    const auto makings = [&log] {
        const std::string lines = log.text();
        return std::count(lines.begin(), lines.end(), '\n');
    };
    loop.settle(1000);
    EXPECT_EQ(makings(), 2);  // each made it once, and rests
    for (int i = 0; i < 100; ++i) {
        loop.advance(1);
        loop.settle();
    }
    EXPECT_GT(makings(), 2);
    EXPECT_LE(makings(), 2 + 2 * 5);
}

TEST_F(NftWatchTest, LostNotificationsCountAsAChange) {
    tk::testing::Folder files;
    std::string script = "add table ip other\nadd set ip other s { type mark; }\nadd element ip other s { 0";
    for (int i = 1; i < 60000; ++i) script += ", " + std::to_string(i);
    files.write("script", script + " }\n");
    const std::string before = identity();
    bool failed = false;
    EXPECT_EQ(testing::run("nft -f " + files.file("script") + " 2>&1", failed), "");
    EXPECT_EQ(nft("delete table ip other"), "");
    EXPECT_EQ(nft("delete table ip tk"), "");  // which nobody tells any more
    loop.settle();
    EXPECT_EQ(text(), whole);
    EXPECT_NE(identity(), before);
    const std::string made = identity();
    loop.advance(1000);
    EXPECT_EQ(identity(), made);
}

TEST_F(NftWatchTest, ATableThatCannotBeMadeIsTriedAgainEachSecond) {
    const tk::testing::CapturedOutput log;
    auto other = std::make_unique<NftTable>();
    std::string reason;
    ASSERT_TRUE(other->open(reason)) << reason;  // keeps everybody else off
    loop.settle();
    loop.advance(350);
    EXPECT_EQ(log.text(), "nat: the table cannot be made anew: Operation not permitted\n");
    other.reset();
    loop.advance(100);
    EXPECT_EQ(text(), whole);
    EXPECT_EQ(log.text(),
              "nat: the table cannot be made anew: Operation not permitted\n" + std::string(madeAnew));
}

TEST_F(NftWatchTest, ARequestIsRefusedWhileTheTableIsNotTheRouters) {
    auto other = std::make_unique<NftTable>();
    std::string reason;
    ASSERT_TRUE(other->open(reason)) << reason;
    EXPECT_EQ(commit({}, {element(82)}), "Operation not permitted");
    loop.settle();
    EXPECT_EQ(commit({}, {element(82)}), "Operation not permitted");
    other.reset();
    EXPECT_EQ(commit({element(81)}, {}), "");
    EXPECT_EQ(commit({}, {element(81)}), "");
    EXPECT_EQ(text(), whole);
}

}  // namespace
}  // namespace router
