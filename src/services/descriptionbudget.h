#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "services/portmap.h"
#include "tk/status.h"

namespace gateway {

/// How much memory the descriptions of mappings take: of those that one host asked for, and of all. So one
/// host that fills its share leaves the others theirs.
/// Units: bytes.
class DescriptionBudget {
public:
    /// For one host, and for all.
    static constexpr std::size_t hostLimit = std::size_t{1} * 1024 * 1024;
    static constexpr std::size_t limit = std::size_t{16} * 1024 * 1024;
    /// What a host gets even where others, or one with many addresses, have taken all.
    static constexpr std::size_t hostFloor = std::size_t{16} * 1024;
    /// For all, with what goes to those below their floor.
    static constexpr std::size_t limitWithFloors = 2 * limit;

    /// Ok when there is room for a mapping, in the place of `replaced` where that is not null.
    tk::Status roomFor(const PortMap& added, const PortMap* replaced) const;
    /// Counts the description of a mapping to the host that asked for it.
    void take(const PortMap& map);
    /// Gives that back.
    void giveBack(const PortMap& map);

private:
    std::map<std::uint32_t, std::size_t> shares;  // by the host's address; none for those without bytes
    std::size_t total = 0;
};

}  // namespace gateway
