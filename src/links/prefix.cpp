#include "links/prefix.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <iterator>

namespace router {

namespace {

constexpr std::uint32_t addressBits = 32;

constexpr std::uint32_t maskOf(std::uint32_t length) {
    return length == 0 ? 0 : ~std::uint32_t{0} << (addressBits - length);
}

// No two of them make up a larger network, so that a network is private where it lies in one of them.
constexpr Prefix privateRanges[] = {
    {0x0A000000, maskOf(8)},   // 10.0.0.0
    {0xAC100000, maskOf(12)},  // 172.16.0.0
    {0xC0A80000, maskOf(16)},  // 192.168.0.0
    {0x64400000, maskOf(10)},  // 100.64.0.0, between a provider and its customers
    {0xA9FE0000, maskOf(16)},  // 169.254.0.0, of one link
    {0xC0000200, maskOf(24)},  // 192.0.2.0, documentation
    {0xC6336400, maskOf(24)},  // 198.51.100.0, documentation
    {0xCB007100, maskOf(24)},  // 203.0.113.0, documentation
    {0x7F000000, maskOf(8)},   // 127.0.0.0, loopback
    {0xE0000000, maskOf(4)},   // 224.0.0.0, multicast
    {0xFFFFFFFF, maskOf(32)},  // broadcast
};

}  // namespace

Prefix prefixOf(std::uint32_t hostOrderAddress, std::uint32_t length) {
    const std::uint32_t mask = maskOf(std::min(length, addressBits));
    return {hostOrderAddress & mask, mask};
}

std::uint32_t lengthOf(const Prefix& prefix) {
    return static_cast<std::uint32_t>(std::popcount(prefix.mask));
}

std::string addressText(std::uint32_t address) {
    char text[INET_ADDRSTRLEN];
    return ::inet_ntop(AF_INET, &address, text, sizeof text);
}

std::string prefixText(const Prefix& prefix) {
    return addressText(htonl(prefix.network)) + '/' + std::to_string(lengthOf(prefix));
}

bool isBeyondPrivateRanges(const Prefix& prefix) {
    return std::none_of(std::begin(privateRanges), std::end(privateRanges), [&prefix](const Prefix& range) {
        return range.contains(prefix.network) && prefix.mask >= range.mask;
    });
}

}  // namespace router
