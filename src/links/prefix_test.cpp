#include "links/prefix.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

namespace links {
namespace {

Prefix prefix(const char* address, std::uint32_t length) {
    return prefixOf(ntohl(::inet_addr(address)), length);
}

TEST(Prefix, IsWhatAllItsAddressesShare) {
    EXPECT_EQ(prefixText(prefix("192.0.2.77", 24)), "192.0.2.0/24");
    EXPECT_EQ(prefixText(prefix("192.0.2.77", 0)), "0.0.0.0/0");
    EXPECT_EQ(prefixText(prefix("192.0.2.77", 32)), "192.0.2.77/32");
    EXPECT_EQ(prefix("192.0.2.77", 24).last(), ntohl(::inet_addr("192.0.2.255")));
    EXPECT_EQ(prefix("192.0.2.77", 0).last(), 0xFFFFFFFF);
}

struct Case {
    const char* name;
    const char* address;
    std::uint32_t length;
    bool isBeyond;
};

constexpr Case cases[] = {
    {"Everything", "0.0.0.0", 0, true},
    {"LowerHalf", "0.0.0.0", 1, true},
    {"UpperHalf", "128.0.0.0", 1, true},
    {"AroundTheTenNet", "8.0.0.0", 7, true},
    {"AroundThe172Nets", "172.0.0.0", 8, true},
    {"AroundThe192Nets", "192.168.0.0", 15, true},
    {"OneHost", "1.1.1.1", 32, true},
    {"TenNet", "10.0.0.0", 8, false},
    {"WithinTheTenNet", "10.255.255.255", 32, false},
    {"BelowTheTenNet", "9.255.255.255", 32, true},
    {"Wide172", "172.16.0.0", 12, false},
    {"TooWide172", "172.0.0.0", 11, true},
    {"After172", "172.32.0.0", 16, true},
    {"Home", "192.168.1.0", 24, false},
    {"AfterHome", "192.169.0.0", 16, true},
    {"Provider", "100.64.0.0", 10, false},
    {"AfterTheProvider", "100.128.0.0", 10, true},
    {"Link", "169.254.0.0", 16, false},
    {"Documentation1", "192.0.2.0", 24, false},
    {"Documentation2", "198.51.100.128", 25, false},
    {"Documentation3", "203.0.113.7", 32, false},
    {"AroundDocumentation", "203.0.112.0", 23, true},
    {"Loopback", "127.0.0.0", 8, false},
    {"Multicast", "224.0.0.0", 4, false},
    {"AroundMulticast", "224.0.0.0", 3, true},
    {"Broadcast", "255.255.255.255", 32, false},
};

class PrivateRangesTest : public ::testing::TestWithParam<Case> {};

TEST_P(PrivateRangesTest, AnswersAsTabled) {
    EXPECT_EQ(isBeyondPrivateRanges(prefix(GetParam().address, GetParam().length)), GetParam().isBeyond);
}

INSTANTIATE_TEST_SUITE_P(Networks, PrivateRangesTest, ::testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace links
