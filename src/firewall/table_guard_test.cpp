// The guard: what programs may send, and how much may come in.

#include "firewall/table.h"

#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cstddef>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "firewall/testing/tabletest.h"

namespace firewall {
namespace {

using testing::element;
using testing::lan;
using testing::TableTest;

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
