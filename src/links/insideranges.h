#pragma once

#include <cstdint>
#include <vector>

#include "links/prefix.h"

namespace router {

/// IPv4 addresses from the first to the last. Byte order: host. A value.
struct AddressRange {
    std::uint32_t first = 0;
    std::uint32_t last = 0;

    auto operator<=>(const AddressRange&) const = default;
};

/// A network that is known to be inside or outside. A value.
struct SidedNetwork {
    Prefix prefix;
    bool isInside = false;
};

/// The addresses that are inside, as ascending ranges that neither overlap nor touch. For each address the
/// smallest network decides, and outside where two of one size differ; what lies in none is outside.
[[nodiscard]] std::vector<AddressRange> insideRanges(std::vector<SidedNetwork> networks);

/// True when an address lies in one of such ranges. Byte order: host.
[[nodiscard]] bool contains(const std::vector<AddressRange>& ranges, std::uint32_t hostOrderAddress);

}  // namespace router
