#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>

#include "services/portmap.h"

namespace gateway {

/// The mappings of one external interface, in the order of their keys. A mapping is found by its key and by
/// its place in that order, at about the same cost however many there are.
class PortMapTable {
public:
    using Entries = std::map<Id, PortMap>;

    /// The mapping with this key, or null.
    /// Lifetime: until it is erased.
    PortMap* find(const Id& id);
    /// Adds a mapping. There must be none with its key.
    void add(const Id& id, PortMap&& map);
    /// Erases a mapping that is there.
    void erase(const Id& id);
    void clear();

    std::size_t size() const { return maps.size(); }
    /// All mappings in order.
    const Entries& entries() const { return maps; }
    /// The mapping before which there are `index` others, which must be less than size().
    /// Lifetime: until it is erased.
    const Entries::value_type& at(std::size_t index) const;

private:
    static constexpr unsigned portsOfGroup = 64;
    static constexpr std::size_t groups = 65536 / portsOfGroup;

    Entries maps;
    std::array<std::uint8_t, groups> counts{};  // of the mappings of each group of ports
};

}  // namespace gateway
