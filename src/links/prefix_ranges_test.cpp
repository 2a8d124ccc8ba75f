#include "links/prefix.h"

#include <arpa/inet.h>

#include <random>
#include <string>

#include <gtest/gtest.h>

namespace links {
namespace {

SidedNetwork network(const char* address, std::uint32_t length, bool isInside) {
    return {prefixOf(ntohl(::inet_addr(address)), length), isInside};
}

std::string textOf(const std::vector<AddressRange>& ranges) {
    std::string text;
    for (const AddressRange& range : ranges)
        text += (text.empty() ? "" : " ") + addressText(htonl(range.first)) + "-" +
                addressText(htonl(range.last));
    return text;
}

struct Case {
    const char* name;
    std::vector<SidedNetwork> networks;
    const char* ranges;
};

const Case cases[] = {
    {"Nothing", {}, ""},
    {"OutsideAlone", {network("192.0.2.0", 24, false)}, ""},
    {"One", {network("192.0.2.0", 24, true)}, "192.0.2.0-192.0.2.255"},
    {"Everything", {network("0.0.0.0", 0, true)}, "0.0.0.0-255.255.255.255"},
    {"TouchingOnesAreOne",
     {network("192.0.3.0", 24, true), network("192.0.2.0", 24, true)},
     "192.0.2.0-192.0.3.255"},
    {"ASmallerOneOutsideIsCutOut",
     {network("10.0.0.0", 8, true), network("10.0.1.0", 24, false)},
     "10.0.0.0-10.0.0.255 10.0.2.0-10.255.255.255"},
    {"AtTheStart",
     {network("10.0.0.0", 8, true), network("10.0.0.0", 9, false)},
     "10.128.0.0-10.255.255.255"},
    {"AtTheEnd", {network("10.0.0.0", 8, true), network("10.128.0.0", 9, false)}, "10.0.0.0-10.127.255.255"},
    {"ASmallerOneInsideCounts",
     {network("10.0.0.0", 8, false), network("10.0.1.0", 24, true)},
     "10.0.1.0-10.0.1.255"},
    {"OfTwoOfOneSizeOutsideCounts", {network("10.0.0.0", 8, true), network("10.0.0.0", 8, false)}, ""},
    {"AlsoTheOtherWayRound", {network("10.0.0.0", 8, false), network("10.0.0.0", 8, true)}, ""},
    {"ThreeDeep",
     {network("10.0.0.0", 8, true), network("10.1.0.0", 16, false), network("10.1.1.0", 24, true)},
     "10.0.0.0-10.0.255.255 10.1.1.0-10.1.1.255 10.2.0.0-10.255.255.255"},
    {"OneHostAtTheVeryEnd", {network("255.255.255.255", 32, true)}, "255.255.255.255-255.255.255.255"},
};

class InsideRangesTest : public ::testing::TestWithParam<Case> {};

TEST_P(InsideRangesTest, AreAsTabled) {
    EXPECT_EQ(textOf(insideRanges(GetParam().networks)), GetParam().ranges);
}

INSTANTIATE_TEST_SUITE_P(Networks, InsideRangesTest, ::testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

/// The side of the smallest network; outside if two of the same size differ.
bool isInside(const std::vector<SidedNetwork>& networks, std::uint32_t address) {
    std::int64_t longest = -1;
    bool inside = false;
    for (const SidedNetwork& each : networks) {
        if (!each.prefix.contains(address)) continue;
        const std::int64_t length = lengthOf(each.prefix);
        if (length == longest) inside = inside && each.isInside;
        if (length > longest) inside = each.isInside;
        longest = std::max(longest, length);
    }
    return inside;
}

TEST(InsideRanges, AgreeWithTheSmallestNetworkOfEachAddress) {
    std::mt19937 engine(1);
    const auto random = [&engine](std::uint32_t limit) {
        return static_cast<std::uint32_t>(engine()) % limit;
    };
    for (int round = 0; round < 300; ++round) {
        std::vector<SidedNetwork> networks;
        for (int i = 0; i < 8; ++i)  // all within 10.0.0.0/24, so that they meet
            networks.push_back({prefixOf(0x0A000000 + random(256), 24 + random(9)), random(2) == 0});
        const std::vector<AddressRange> ranges = insideRanges(networks);
        for (std::uint32_t address = 0x09FFFFFF; address <= 0x0A000100; ++address)
            ASSERT_EQ(contains(ranges, address), isInside(networks, address)) << round;
        for (std::size_t i = 1; i < ranges.size(); ++i)
            ASSERT_GT(ranges[i].first, ranges[i - 1].last + 1) << "they touch";
    }
}

}  // namespace
}  // namespace links
