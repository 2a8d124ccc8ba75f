#include "firewall/flowlog.h"

#include <linux/netlink.h>

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "links/testing/fakekernel.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"

namespace firewall {
namespace {

using links::testing::address;
using Packet = std::vector<char>;

/// An IPv4 packet from 198.51.100.2 to 198.51.100.1, up to the ports 4660 and 53.
Packet packet(char protocol, bool hasOptions = false) {
    Packet out{hasOptions ? '\x46' : '\x45', 0, 0, 28, 0, 0, 0, 0, 64, protocol, 0, 0};
    for (const int byte : {198, 51, 100, 2, 198, 51, 100, 1}) out.push_back(static_cast<char>(byte));
    if (hasOptions) out.insert(out.end(), 4, 1);
    for (const int byte : {0x12, 0x34, 0, 53}) out.push_back(static_cast<char>(byte));
    return out;
}

TEST(ParseFlow, ReadsTheEndsOfAPacket) {
    for (const bool hasOptions : {false, true})
        for (const char protocol : {'\x06', '\x11'}) {
            const auto flow = parseFlow(packet(protocol, hasOptions));
            ASSERT_TRUE(flow);
            const auto number = static_cast<std::uint8_t>(protocol);
            EXPECT_EQ(*flow,
                      (FlowTuple{{address("198.51.100.1"), number, 53}, address("198.51.100.2"), 4660}));
        }
}

TEST(ParseFlow, TakesNothingThatIsCutOffOrOfAnotherKind) {
    for (const bool hasOptions : {false, true}) {
        const Packet whole = packet(17, hasOptions);
        for (std::size_t cut = 0; cut < whole.size(); ++cut)
            EXPECT_FALSE(parseFlow(std::span(whole).first(cut))) << "cut at byte " << cut;
    }
    EXPECT_FALSE(parseFlow(packet(1)));
    Packet other = packet(17);
    other.front() = '\x65';
    EXPECT_FALSE(parseFlow(other)) << "version 6";
    other.front() = '\x44';
    EXPECT_FALSE(parseFlow(other)) << "a header shorter than there is";
}

TEST(FlowLog, OnlyOneProcessCanListen) {
    if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
    const tk::testing::TestLoop loop;
    auto first = std::make_unique<FlowLog>();
    ASSERT_EQ(first->open().reason(), "");
    FlowLog second;
    EXPECT_EQ(second.open().reason(),
              "nfnetlink_log: no permission, or another process listens to group 29803");
    first.reset();
    EXPECT_EQ(second.open().reason(), "");
}

}  // namespace
}  // namespace firewall
