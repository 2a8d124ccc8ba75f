#include "router/interfaceids.h"

#include <sys/random.h>

#include <algorithm>
#include <vector>

#include "tk/log.h"

namespace router {

namespace {

constexpr std::uint32_t storeRevision = 1;
constexpr std::uint32_t nameField = 1;  // string, in the entry of an id
constexpr std::uint32_t firstFresh = 1U << 24;
constexpr std::uint32_t freshIds = 1U << 31;
constexpr std::size_t atOnce = 16;  // names that are forgotten in one call: each is a write of the store

}  // namespace

InterfaceIds::InterfaceIds(const std::string& storePath, std::size_t limit)
    : store(storePath, storeRevision), limit(limit) {
    for (const auto& [id, entry] : store.all()) {
        remember(entry.get_string(nameField), id);
        highest = std::max(highest, id);
    }
    if (store.hasLostContent()) highest = freshId();
}

void InterfaceIds::remember(const std::string& name, std::uint32_t id) {
    ids[name] = id;
    names[id] = name;
}

/// An id of which nobody has heard: at random from so many that it never was given before, for all practice.
std::uint32_t InterfaceIds::freshId() const {
    for (;;) {
        std::uint32_t id = 0;
        while (::getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) {
        }
        id = firstFresh + id % freshIds;
        if (!names.contains(id)) return id;
    }
}

std::uint32_t InterfaceIds::idOf(const std::string& name) {
    if (const auto known = ids.find(name); known != ids.end()) return known->second;
    std::uint32_t id = highest + 1;
    tk::message entry;
    entry.insert_string(nameField, name);
    const bool isStored = store.set(id, entry);
    if (!isStored) tk::log("interface ", name, ": its id is not stored: ", store.error());
    if (isStored || store.all().empty())
        highest = id;
    else
        id = freshId();
    remember(name, id);
    return id;
}

void InterfaceIds::forgetSurplus(const std::function<bool(std::uint32_t id)>& isPresent) {
    if (names.size() <= limit) return;
    const std::size_t surplus = std::min(names.size() - limit, atOnce);
    std::vector<std::uint32_t> absent;
    for (auto name = names.begin(); name != names.end() && absent.size() < surplus; ++name)
        if (name->first != highest && !isPresent(name->first)) absent.push_back(name->first);
    for (const std::uint32_t id : absent)
        if (!forget(id)) return;
}

/// Forgets one name. Errors: false when the store cannot be written; the name stays known then, else it would
/// be back with its old id after a restart.
bool InterfaceIds::forget(std::uint32_t id) {
    const std::string name = names[id];
    if (!store.remove(id)) {
        tk::log("interface ", name, ": its id cannot be forgotten: ", store.error());
        return false;
    }
    names.erase(id);
    ids.erase(name);
    return true;
}

}  // namespace router
