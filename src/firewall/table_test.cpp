// The table with the real kernel, in a network namespace of the test's own, looked at with nft(8).

#include "firewall/table.h"

#include <errno.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "firewall/sets.h"
#include "links/testing/fakekernel.h"
#include "netlink/socket.h"
#include "tk/testing/commands.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"

namespace firewall {
namespace {

using links::testing::address;

Element element(std::uint16_t port, const char* target = "192.0.2.2", std::uint16_t targetPort = 8080) {
    return {{address("198.51.100.1"), 6, port}, {address(target), targetPort}};
}

constexpr links::AddressRange lan{0xC0000200, 0xC00002FF};  // 192.0.2.0/24

/// The rules that were committed.
class Rules final : public ElementOwner {
public:
    void change(std::span<const Element> removed, std::span<const Element> added) {
        for (const Element& element : removed) targets.erase(element.key);
        for (const Element& element : added) targets[element.key] = element.target;
    }
    std::vector<Element> elements() const override {
        std::vector<Element> all;
        for (const auto& [key, target] : targets) all.push_back({key, target});
        return all;
    }

private:
    std::map<NatKey, NatTarget> targets;
};

class TableTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        descriptor = ::dup(STDOUT_FILENO);  // the lowest that is free, as the table's socket will be
        ::close(descriptor);
        table->setOwner(rules);
        ASSERT_EQ(table->open().reason(), "");
    }
    using Elements = std::vector<Element>;
    std::string commit(const Elements& removed, const Elements& added) {
        const tk::Status status = table->commit(removed, added);
        if (status.isOk()) rules.change(removed, added);
        return status.reason();
    }
    static std::string nft(const std::string& arguments) {
        bool failed = false;
        return tk::testing::run("nft " + arguments + " 2>&1", failed);
    }
    void endFlows() { EXPECT_EQ(table->endFlows().reason(), ""); }
    /// The lines of the map's elements as nft lists them, and of what is live.
    static std::string mapText() { return elementsOf("map ip tk dstnat"); }
    static std::string liveText() {
        std::string text = elementsOf("set ip tk live");
        const std::string unused = " counter packets 0 bytes 0";
        for (std::size_t at = text.find(unused); at != std::string::npos; at = text.find(unused))
            text.erase(at, unused.size());
        return text;
    }
    static std::string elementsOf(const std::string& name) {
        const std::string text = nft("list " + name);
        const std::size_t start = text.find("elements");
        return start == std::string::npos ? "" : text.substr(start, text.find('}', start) + 1 - start);
    }

    /// Lets the kernel find no room for the answer to the next transaction.
    void fillSocket() const {
        const int size = 4096;
        ASSERT_EQ(::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size), 0);
        const nlmsghdr idle{sizeof idle, NLMSG_NOOP, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
        for (int i = 0; i < 1000; ++i)
            ASSERT_EQ(::send(descriptor, &idle, sizeof idle, 0), static_cast<ssize_t>(sizeof idle));
    }
    /// Bounds what can be sent in one transaction.
    void limitSending(int bytes) const {
        ASSERT_EQ(::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes), 0);
    }
    /// As many interfaces as do not fit one transaction where the least that there is can be sent.
    static std::set<std::uint32_t> manyIndexes() {
        std::set<std::uint32_t> many;
        for (std::uint32_t index = 1; index <= 1000; ++index) many.insert(index);
        return many;
    }
    static int count(const std::string& text, const std::string& wanted) {
        int found = 0;
        for (std::size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1))
            ++found;
        return found;
    }
    /// The table's first line, with its number: that of another table is another.
    static std::string identity() {
        const std::string text = nft("-a list table ip tk");
        return text.substr(0, text.find('\n'));
    }

    tk::testing::TestLoop loop;
    int descriptor = -1;
    Rules rules;
    std::unique_ptr<Table> table = std::make_unique<Table>();
};

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

TEST_F(TableTest, GuardsUsersWhateverTheySend) {
    EXPECT_EQ(nft("list set ip tk guarded").find("elements"), std::string::npos);
    table->guardUser(64001);
    table->guardUser(64001);
    for (const char* family : {"ip", "ip6"})
        EXPECT_NE(nft(std::string("list set ") + family + " tk guarded").find("elements = { 64001 }"),
                  std::string::npos);
    std::string text = nft("list table ip tk");
    for (const char* line : {"meta skuid @guarded jump daemon",
                             "fib daddr type != local oif . oif @hairpin ip daddr @inside accept",
                             "ip daddr 239.255.255.250 udp dport 1900 oif . oif @hairpin accept",
                             "reject with tcp reset", "reject with icmp admin-prohibited"})
        EXPECT_NE(text.find(line), std::string::npos) << line << " is not in\n" << text;
    text = nft("list table ip6 tk");
    for (const char* line : {"flags owner", "meta skuid @guarded reject with tcp reset",
                             "meta skuid @guarded reject with icmpv6 admin-prohibited"})
        EXPECT_NE(text.find(line), std::string::npos) << line << " is not in\n" << text;
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

TEST_F(TableTest, TheGuardChangesInPlace) {
    table->guardUser(64001);
    EXPECT_EQ(commit({}, {element(80)}), "");
    table->insideChanged({{1}, {lan}});
    endFlows();
    const std::string before = identity();
    EXPECT_EQ(table->setGuard({true, 0, 30, 50}).reason(), "");
    EXPECT_EQ(identity(), before) << "it is the same table";
    const std::string text = nft("list table ip tk");
    for (const char* line : {"meta skuid @guarded jump daemon", "ip saddr != @inside drop",
                             "limit rate over 30/second burst 30 packets } reject with tcp reset",
                             "ct count over 50 } reject with tcp reset", "goto ended"})
        EXPECT_NE(text.find(line), std::string::npos) << line << " is not in\n" << text;
    EXPECT_EQ(text.find("searches"), std::string::npos);
    EXPECT_NE(nft("list set ip tk guarded").find("elements = { 64001 }"), std::string::npos);
    EXPECT_EQ(count(mapText(), " : "), 1);
    EXPECT_EQ(commit({element(80)}, {}), "");
    EXPECT_EQ(table->setGuard({}).reason(), "");
    EXPECT_EQ(count(nft("list chain ip tk input"), "\n\t\t"), 3) << "the type, and two rules as at first";
}

TEST_F(TableTest, ALimitThatStaysRemembersItsSources) {
    bool failed = false;
    tk::testing::run("ip link set lo up && bash -c 'echo search >/dev/udp/127.0.0.1/1900'", failed);
    ASSERT_FALSE(failed);
    const auto remembered = [] {
        return nft("list set ip tk searches").find("127.0.0.1") != std::string::npos;
    };
    ASSERT_TRUE(remembered());
    EXPECT_EQ(table->setGuard({true, 200, 0, 50}).reason(), "");
    EXPECT_TRUE(remembered());
    EXPECT_EQ(table->setGuard({true, 100, 0, 50}).reason(), "");
    EXPECT_FALSE(remembered()) << "it remembered them with their former limit";
}

TEST_F(TableTest, AGuardThatComesLaterKnowsTheUsers) {
    EXPECT_EQ(table->setGuard(noGuard).reason(), "");
    EXPECT_EQ(nft("list tables"), "table ip tk\n");
    for (const char* chain : {"output", "daemon", "input"})
        EXPECT_EQ(nft("list table ip tk").find(std::string("chain ") + chain), std::string::npos) << chain;
    table->guardUser(64001);
    table->insideChanged({{1}, {lan}});
    EXPECT_EQ(table->setGuard({}).reason(), "");
    for (const char* family : {"ip", "ip6"})
        EXPECT_NE(nft(std::string("list set ") + family + " tk guarded").find("elements = { 64001 }"),
                  std::string::npos);
    EXPECT_NE(nft("list chain ip tk output").find("@guarded jump daemon"), std::string::npos);
    EXPECT_EQ(table->setGuard(noGuard).reason(), "");
    EXPECT_EQ(nft("list tables"), "table ip tk\n");
}

TEST_F(TableTest, AGuardWhoseChangeTheKernelDoesNotTellOfIsMadeNonetheless) {
    for (const GuardConfig& wanted : {noGuard, GuardConfig(), GuardConfig{false, 0, 7, 0}, GuardConfig()}) {
        fillSocket();
        EXPECT_EQ(table->setGuard(wanted).reason(), "");
        const bool limits = wanted.limitsConnections;
        EXPECT_EQ(nft("list tables"), limits ? "table ip tk\ntable ip6 tk\n" : "table ip tk\n");
        EXPECT_EQ(nft("list table ip tk").find("skuid") != std::string::npos, limits);
    }
}

TEST_F(TableTest, AGuardThatIsRefusedLeavesTheFormerOne) {
    EXPECT_EQ(table->setGuard(noGuard).reason(), "");
    limitSending(1);  // the kernel has a least of its own
    EXPECT_EQ(table->setGuard({true, 1, 2, 3}).reason(), "guard: nf_tables: Message too long");
    EXPECT_EQ(nft("list table ip tk").find("chain input"), std::string::npos);
    limitSending(1000000);
    EXPECT_EQ(table->setGuard({true, 1, 2, 3}).reason(), "");
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

/// Lets a thread find no IPv6 in the kernel while it does something.
void withoutIp6(const std::function<void()>& task) {
    std::thread([&task] {
        sock_filter filter[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
                                BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
                                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_INET6, 0, 1),
                                BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
                                BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
        const sock_fprog program{std::size(filter), filter};
        ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
        ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
        task();
    }).join();
}

TEST_F(TableTest, TheGuardOfIp6FollowsWhatTheKernelKnows) {
    table->guardUser(64001);
    withoutIp6([this] { EXPECT_EQ(table->setGuard({true, 20, 30, 50}).reason(), ""); });
    EXPECT_EQ(nft("list tables"), "table ip tk\n");
    table->guardUser(64002);
    EXPECT_EQ(table->setGuard({true, 20, 30, 60}).reason(), "");
    EXPECT_NE(nft("list set ip6 tk guarded").find("elements = { 64001, 64002 }"), std::string::npos);
    EXPECT_EQ(table->setGuard({true, 20, 30, 70}).reason(), "");
    EXPECT_NE(nft("list chain ip6 tk output").find("@guarded"), std::string::npos);
}

TEST(TableLimits, AreRulesOfTheInputChain) {
    if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
    Table table({false, 20, 30, 50});
    ASSERT_EQ(table.open().reason(), "");
    bool failed = false;
    const std::string text = tk::testing::run("nft list table ip tk", failed);
    for (const char* line : {"limit rate over 20/second burst 20 packets } drop",
                             "limit rate over 30/second burst 30 packets } reject with tcp reset",
                             "ct count over 50 } reject with tcp reset"})
        EXPECT_NE(text.find(line), std::string::npos) << line << " is not in\n" << text;
    EXPECT_EQ(text.find("skuid"), std::string::npos);
    EXPECT_EQ(text.find("chain daemon"), std::string::npos);
    table.insideChanged({{1}, {lan}});
    EXPECT_NE(tk::testing::run("nft list set ip tk hairpin", failed).find("\"lo\" . \"lo\""),
              std::string::npos);
    EXPECT_EQ(tk::testing::run("nft list tables", failed), "table ip tk\n");
}

}  // namespace
}  // namespace firewall
