// The flows of a router that is gone with the real kernel, in a network namespace of the test's own.

#include "router/leftoverflows.h"

#include <arpa/inet.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <set>

#include <gtest/gtest.h>

#include "router/testing/commands.h"
#include "router/testing/fakekernel.h"
#include "tk/fd.h"
#include "tk/testing/privatenetwork.h"

namespace router {
namespace {

using Ports = std::set<std::uint16_t>;

class LeftoverFlowsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        // The translation of sources keeps the kernel translating when the other table is gone.
        shell("nft add table ip theirs");
        shell("nft 'add chain ip theirs out { type nat hook postrouting priority 100; }'");
        shell("nft add table ip former");
        shell("nft 'add chain ip former out { type nat hook output priority -100; }'");
        shell("nft add rule ip former out udp dport 5401-5403 dnat to 127.0.0.1:5499");
        shell("nft 'add chain ip former zones { type filter hook output priority -300; }'");
        shell("nft add rule ip former zones udp dport 5402 ct zone set 5");
        shell("nft add rule ip former zones udp dport 5403 ct original zone set 6");
        for (std::uint16_t port = 5401; port <= 5404; ++port) touch(port);
        shell("nft delete table ip former");
    }
    void TearDown() override {
        bool failed = false;
        testing::run("nft delete table ip theirs 2>&1; nft delete table ip former 2>&1", failed);
    }
    static void shell(const std::string& command) {
        bool failed = false;
        const std::string output = testing::run(command + " 2>&1", failed);
        ASSERT_FALSE(failed) << command << ": " << output;
    }
    /// A datagram to a port of the loopback, which makes the kernel track a flow.
    static void touch(std::uint16_t port) {
        const tk::Fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = testing::address("127.0.0.1");
        ASSERT_EQ(::sendto(socket.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to), 1);
    }
    /// The ports of the flows that the kernel tracks, of those above.
    static Ports tracked() {
        NetlinkSocket reader;
        EXPECT_TRUE(reader.open(NETLINK_NETFILTER));
        std::array<char, flowRequestBytes> buffer;
        Ports ports;
        const NetlinkResult result = reader.dump(
            *putFlowDump(buffer.data(), {}), [&ports] { ports.clear(); },
            [&ports](const nlmsghdr& message) {
                const auto flow = parseFlow(message);
                if (flow && flow->port >= 5401 && flow->port <= 5404) ports.insert(flow->port);
            });
        EXPECT_TRUE(result.ok()) << result.text;
        return ports;
    }
};

TEST_F(LeftoverFlowsTest, EndUnlessTheyAreOfAZoneOrWereNeverTranslated) {
    ASSERT_EQ(tracked(), (Ports{5401, 5402, 5403, 5404}));
    const OtherDnat others;
    LeftoverFlows().end([](const NatElement&) { return false; }, others);
    EXPECT_EQ(tracked(), (Ports{5402, 5403, 5404}));
}

TEST_F(LeftoverFlowsTest, GoOnWhenAPresentRuleLeadsThere) {
    const NatElement present{testing::address("127.0.0.1"), 17, 5401, testing::address("127.0.0.1"), 5499};
    const OtherDnat others;
    LeftoverFlows().end([&](const NatElement& element) { return element == present; }, others);
    EXPECT_EQ(tracked(), (Ports{5401, 5402, 5403, 5404}));
}

}  // namespace
}  // namespace router
