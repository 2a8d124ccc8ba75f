#include "links/prefix.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <iterator>
#include <tuple>

namespace links {

namespace {

constexpr std::uint32_t maskOf(std::uint32_t length) {
    return length == 0 ? 0 : ~std::uint32_t{0} << (addressBits - length);
}

// No two of them make up a larger network, so a network is private only if it lies in one of them.
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

/// Walks networks that lie side by side or within each other, by rising address, larger ones first.
class Sweep {
public:
    void enter(const SidedNetwork& network) {
        leaveBefore(network.prefix.network);
        if (!open.empty()) give(network.prefix.network);
        at = network.prefix.network;
        open.push_back(network);
    }
    std::vector<AddressRange> end() {
        leaveBefore(beyondAll);
        return std::move(ranges);
    }

private:
    static constexpr std::uint64_t beyondAll = std::uint64_t{1} << 32;

    void leaveBefore(std::uint64_t limit) {
        while (!open.empty() && open.back().prefix.last() < limit) {
            const std::uint64_t next = std::uint64_t{open.back().prefix.last()} + 1;
            give(next);
            at = next;
            open.pop_back();
        }
    }
    /// The addresses from here up to `limit` belong to the innermost network.
    void give(std::uint64_t limit) {
        if (!open.back().isInside || at >= limit) return;
        const auto first = static_cast<std::uint32_t>(at);
        const auto last = static_cast<std::uint32_t>(limit - 1);
        if (!ranges.empty() && std::uint64_t{ranges.back().last} + 1 == at)
            ranges.back().last = last;
        else
            ranges.push_back({first, last});
    }

    std::vector<SidedNetwork> open;  // each within the one before
    std::uint64_t at = 0;
    std::vector<AddressRange> ranges;
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

std::vector<AddressRange> insideRanges(std::vector<SidedNetwork> networks) {
    std::sort(networks.begin(), networks.end(), [](const SidedNetwork& left, const SidedNetwork& right) {
        // Of two of the same size the outside one comes last, and so is the innermost.
        return std::tuple(left.prefix.network, left.prefix.mask, !left.isInside) <
               std::tuple(right.prefix.network, right.prefix.mask, !right.isInside);
    });
    Sweep sweep;
    for (const SidedNetwork& network : networks) sweep.enter(network);
    return sweep.end();
}

bool contains(const std::vector<AddressRange>& ranges, std::uint32_t hostOrderAddress) {
    const auto next = std::upper_bound(
        ranges.begin(), ranges.end(), hostOrderAddress,
        [](std::uint32_t address, const AddressRange& range) { return address < range.first; });
    return next != ranges.begin() && std::prev(next)->last >= hostOrderAddress;
}

}  // namespace links
