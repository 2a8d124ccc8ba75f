#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "services/portmap.h"
#include "tk/status.h"

namespace gateway {

/// Limits the memory that the descriptions of mappings take, per requesting host and in all. A host that
/// fills its share leaves the others theirs.
/// Units: bytes.
class DescriptionBudget {
public:
    /// The limits for one host and for all.
    static constexpr std::size_t hostLimit = std::size_t{1} * 1024 * 1024;
    static constexpr std::size_t limit = std::size_t{16} * 1024 * 1024;
    /// What a host gets even when others, or one host with many addresses, have taken everything.
    static constexpr std::size_t hostFloor = std::size_t{16} * 1024;
    /// The limit for all, including hosts below their floor.
    static constexpr std::size_t limitWithFloors = 2 * limit;

    /// Ok when there is room for a mapping; it takes the place of `replaced` unless that is null.
    tk::Status roomFor(const PortMap& added, const PortMap* replaced) const;
    /// Charges a mapping's description to the host that asked for it.
    void take(const PortMap& map);
    /// Reverses take().
    void giveBack(const PortMap& map);

private:
    std::map<std::uint32_t, std::size_t> shares;  // by the host's address; hosts without bytes have no entry
    std::size_t total = 0;
};

}  // namespace gateway
