#include "router/interfaceids.h"

#include <algorithm>

#include "tk/log.h"

namespace router {

namespace {

constexpr std::uint32_t storeRevision = 1;
constexpr std::uint32_t nameField = 1;  // string, in the entry of an id

}  // namespace

InterfaceIds::InterfaceIds(const std::string& storePath) : store(storePath, storeRevision) {
    for (const auto& [id, entry] : store.all()) {
        ids.emplace(entry.get_string(nameField), id);
        highest = std::max(highest, id);
    }
}

std::uint32_t InterfaceIds::idOf(const std::string& name) {
    if (const auto known = ids.find(name); known != ids.end()) return known->second;
    const std::uint32_t id = ++highest;
    ids.emplace(name, id);
    tk::message entry;
    entry.insert_string(nameField, name);
    if (!store.set(id, entry)) tk::log("interface ", name, ": its id is not stored: ", store.error());
    return id;
}

}  // namespace router
