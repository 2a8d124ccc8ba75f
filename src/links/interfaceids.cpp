#include "links/interfaceids.h"

#include <sys/random.h>

#include <algorithm>
#include <utility>

#include "tk/log.h"

namespace links {

namespace {

constexpr std::uint32_t storeRevision = 1;
constexpr std::uint32_t nameField = 1;  // string, in the entry of an id
// No interface's id: the entry for the ids that may already have been given.
constexpr std::uint32_t reservation = 0;
constexpr std::uint32_t reservedField = 2;  // u32, in that entry: the highest one
constexpr std::uint32_t retryTicks = 6000;  // 1 min
constexpr std::uint32_t firstFresh = 1U << 24;
constexpr std::uint32_t freshIds = 1U << 31;

}  // namespace

InterfaceIds::InterfaceIds(const std::string& storePath, std::size_t limit)
    : store(storePath, storeRevision), limit(limit) {
    for (const auto& [id, entry] : store.all()) {
        if (id != reservation) remember(entry.get_string(nameField), id);
        highest = std::max({highest, id, entry.get_u32(reservedField)});
    }
    if (store.hasLostContent()) highest = freshId();
    reserved = highest;
}

InterfaceIds::~InterfaceIds() {
    const bool isLetGo = reserved != highest;
    reserved = highest;  // the next process goes on from there
    if (isLetGo || storing.isDue()) storeNow();
}

void InterfaceIds::remember(const std::string& name, std::uint32_t id) {
    ids[name] = id;
    names[id] = name;
}

/// An id that nobody has heard of: a random one of so many that in practice it was never given before.
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
    const tk::Status stored = reserve(id);
    if (!stored.isOk()) tk::log("interface ", name, ": its id is not stored: ", stored.reason());
    if (stored.isOk() || store.all().empty())
        highest = id;
    else
        id = freshId();
    remember(name, id);
    storing.call(storeTicks);
    return id;
}

/// Makes sure that an id is never given again, even if this process crashes.
tk::Status InterfaceIds::reserve(std::uint32_t id) {
    if (id <= reserved) return {};
    tk::Status stored = save(id + reservedAtOnce - 1);
    if (stored.isOk()) reserved = id + reservedAtOnce - 1;
    return stored;
}

/// Writes everything.
tk::Status InterfaceIds::save(std::uint32_t lastReserved) {
    std::map<std::uint32_t, tk::message> entries;
    entries[reservation].insert_u32(reservedField, lastReserved);
    for (const auto& [id, name] : names) entries[id].insert_string(nameField, name);
    return store.replace(std::move(entries));
}

void InterfaceIds::storeNow() {
    storing.withdraw();
    const tk::Status saved = save(reserved);
    if (saved.isOk()) return;
    tk::log("the ids of new interfaces are not stored: ", saved.reason());
    storing.call(retryTicks);
}

void InterfaceIds::storeWhatIsNew() {
    if (storing.isDue()) storeNow();
}

void InterfaceIds::forgetSurplus(const std::function<bool(std::uint32_t id)>& isPresent) {
    for (auto next = names.begin(); next != names.end() && names.size() > limit;) {
        const auto name = next++;
        if (isPresent(name->first)) continue;
        ids.erase(name->second);
        names.erase(name);
        storing.call(storeTicks);
    }
}

}  // namespace links
