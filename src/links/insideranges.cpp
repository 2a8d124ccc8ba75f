#include "links/insideranges.h"

#include <algorithm>
#include <tuple>

namespace router {

namespace {

/// Walks networks that lie beside or within each other, by rising address and from the larger to the smaller.
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
            const std::uint64_t behind = std::uint64_t{open.back().prefix.last()} + 1;
            give(behind);
            at = behind;
            open.pop_back();
        }
    }
    /// What lies from here up to `limit` is the innermost network's.
    void give(std::uint64_t limit) {
        if (!open.back().isInside || at >= limit) return;
        const auto first = static_cast<std::uint32_t>(at);
        const auto last = static_cast<std::uint32_t>(limit - 1);
        if (!ranges.empty() && std::uint64_t{ranges.back().last} + 1 == at)
            ranges.back().last = last;
        else
            ranges.push_back({first, last});
    }

    std::vector<SidedNetwork> open;  // each one within the former
    std::uint64_t at = 0;
    std::vector<AddressRange> ranges;
};

}  // namespace

std::vector<AddressRange> insideRanges(std::vector<SidedNetwork> networks) {
    std::sort(networks.begin(), networks.end(), [](const SidedNetwork& left, const SidedNetwork& right) {
        // Of two of one size the outside one is the last, and so the innermost.
        return std::tuple(left.prefix.network, left.prefix.mask, !left.isInside) <
               std::tuple(right.prefix.network, right.prefix.mask, !right.isInside);
    });
    Sweep sweep;
    for (const SidedNetwork& network : networks) sweep.enter(network);
    return sweep.end();
}

bool contains(const std::vector<AddressRange>& ranges, std::uint32_t hostOrderAddress) {
    const auto behind = std::upper_bound(
        ranges.begin(), ranges.end(), hostOrderAddress,
        [](std::uint32_t address, const AddressRange& range) { return address < range.first; });
    return behind != ranges.begin() && std::prev(behind)->last >= hostOrderAddress;
}

}  // namespace router
