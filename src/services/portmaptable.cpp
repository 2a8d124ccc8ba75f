#include "services/portmaptable.h"

#include <cassert>
#include <iterator>
#include <utility>

namespace gateway {

PortMap* PortMapTable::find(const Id& id) {
    const auto entry = maps.find(id);
    return entry == maps.end() ? nullptr : &entry->second;
}

void PortMapTable::add(const Id& id, PortMap&& map) {
    const bool isNew = maps.try_emplace(id, std::move(map)).second;
    assert(isNew);
    if (isNew) ++counts[id.port / portsOfGroup];
}

void PortMapTable::erase(const Id& id) {
    if (maps.erase(id) > 0) --counts[id.port / portsOfGroup];
}

void PortMapTable::clear() {
    maps.clear();
    counts.fill(0);
}

const PortMapTable::Entries::value_type& PortMapTable::at(std::size_t index) const {
    assert(index < size());
    std::size_t group = 0;
    while (index >= counts[group]) index -= counts[group++];
    const auto first = maps.lower_bound({static_cast<std::uint16_t>(group * portsOfGroup), 0});
    return *std::next(first, static_cast<std::ptrdiff_t>(index));
}

}  // namespace gateway
