// The pass over the real kernel's table, in a network namespace of the test's own.

#include "router/flowflush.h"

#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include <gtest/gtest.h>

#include "router/nfttable.h"
#include "router/testing/commands.h"
#include "router/testing/fakekernel.h"
#include "tk/clock.h"
#include "tk/looper.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/scriptedbus.h"

namespace router {
namespace {

using testing::address;

constexpr std::uint8_t udp = 17;

NatElement element(std::uint16_t port, std::uint16_t targetPort) {
    return {address("127.0.0.1"), udp, port, address("127.0.0.1"), targetPort};
}

class FlowFlushTest : public ::testing::Test {
protected:
    using Elements = std::vector<NatElement>;

    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        std::string reason;
        ASSERT_TRUE(table.open(reason)) << reason;
        ASSERT_TRUE(flush.open(reason)) << reason;
        ASSERT_TRUE(reader.open(NETLINK_NETFILTER));
    }
    void commit(const Elements& removed, const Elements& added) {
        std::string reason;
        ASSERT_TRUE(flush.commit(removed, added, reason)) << reason;
    }
    /// A datagram to a port of the loopback, which makes the kernel track a flow.
    void touch(std::uint16_t port) {
        const tk::Fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = address("127.0.0.1");
        ASSERT_EQ(::sendto(socket.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to), 1);
    }
    /// How many flows the kernel tracks, of those that the selection has where it honours it.
    std::size_t count(std::uint16_t port, const FlowSelection& selection = {}) {
        return count(port, port, selection);
    }
    std::size_t count(std::uint16_t first, std::uint16_t last, const FlowSelection& selection) {
        std::array<char, flowRequestBytes> buffer;
        std::size_t flows = 0;
        const NetlinkResult result = reader.dump(
            *putFlowDump(buffer.data(), selection), [&flows] { flows = 0; },
            [&](const nlmsghdr& message) {
                const auto flow = parseFlow(message);
                if (flow && flow->port >= first && flow->port <= last) ++flows;
            });
        EXPECT_TRUE(result.ok()) << result.text;
        return flows;
    }
    /// Turns the loop until `port` has no flow, for at most two seconds.
    bool isFlushed(std::uint16_t port) {
        const std::uint64_t limit = clock.now() + 2000;
        while (count(port) != 0 && clock.now() < limit) looper.turn(5);
        return count(port) == 0;
    }

    tk::SystemClock clock;
    tk::testing::ScriptedBus bus;
    tk::Looper looper{clock, bus, tk::program::network};
    NftTable table;
    FlowFlush flush{table};
    NetlinkSocket reader;
};

TEST_F(FlowFlushTest, AFlowThatBeganBeforeTheRuleIsForgottenAndOthersAreKept) {
    touch(5301);
    touch(5302);
    ASSERT_EQ(count(5301), 1U);
    commit({}, {element(5301, 5399)});
    EXPECT_EQ(count(5301), 1U) << "the change itself waits for nothing";
    EXPECT_TRUE(isFlushed(5301));
    EXPECT_EQ(count(5302), 1U);
}

TEST_F(FlowFlushTest, OnePassServesManyChanges) {
    Elements all;
    for (std::uint16_t port = 6000; port < 6400; ++port) {
        touch(port);
        all.push_back(element(port, 5399));
    }
    for (const NatElement& each : all) commit({}, {each});
    EXPECT_TRUE(isFlushed(6399));
    EXPECT_EQ(count(6000, 6399, {}), 0U);
}

TEST_F(FlowFlushTest, ChangesDuringAPassAreServedByTheNext) {
    touch(5303);
    touch(5304);
    commit({}, {element(5303, 5399)});
    EXPECT_TRUE(isFlushed(5303));
    commit({}, {element(5304, 5399)});
    EXPECT_TRUE(isFlushed(5304));
}

TEST_F(FlowFlushTest, TheKernelSelectsByWhatIsAskedFor) {
    touch(5305);
    touch(5306);
    EXPECT_EQ(count(5300, 5399, {address("127.0.0.1"), udp, 5305}), 1U);
    EXPECT_EQ(count(5300, 5399, {address("192.0.2.99"), 0, 0}), 0U);
}

}  // namespace
}  // namespace router
