#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "tk/pacer.h"
#include "tk/store.h"

namespace links {

/// The ids of interfaces, by name. Others refer to interfaces by id, so a name keeps its id over restarts,
/// even while there is no such interface, and no id is ever given to another name. When there are more names
/// than the limit, absent ones are forgotten; one that comes again gets a new id. When the store is lost, all
/// names get ids that none had before: an old id then refers to no interface, rather than to a wrong one.
/// New names are stored together, shortly after they came. Ids are reserved in the store before they are
/// given, many with one write: if a crash keeps a name from being stored, its id is never given again.
class InterfaceIds {
public:
    /// How many names are remembered.
    static constexpr std::size_t usualLimit = 4096;
    /// How many ids are reserved at once.
    static constexpr std::uint32_t reservedAtOnce = 256;
    /// How long names wait to be stored.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t storeTicks = 100;

    /// Lifetime: a loop exists as long as the object.
    explicit InterfaceIds(const std::string& storePath, std::size_t limit = usualLimit);
    InterfaceIds(const InterfaceIds&) = delete;
    InterfaceIds& operator=(const InterfaceIds&) = delete;
    /// Stores what is not stored yet.
    ~InterfaceIds();

    /// The id of `name`; a new name gets the next one. When that cannot be reserved, this is logged and the
    /// id is a random one, as another name would get the next one after a restart. If nothing was ever
    /// stored, it is the next one all the same.
    std::uint32_t idOf(const std::string& name);
    /// Stores new names now.
    void storeWhatIsNew();
    /// Forgets names beyond the limit: those of absent interfaces, the lowest ids first.
    void forgetSurplus(const std::function<bool(std::uint32_t id)>& isPresent);

private:
    void remember(const std::string& name, std::uint32_t id);
    std::uint32_t freshId() const;
    tk::Status reserve(std::uint32_t id);
    tk::Status save(std::uint32_t lastReserved);
    void storeNow();

    tk::Store store;
    const std::size_t limit;
    std::map<std::string, std::uint32_t> ids;
    std::map<std::uint32_t, std::string> names;
    std::uint32_t highest = 0;   // id given
    std::uint32_t reserved = 0;  // the highest id reserved in the store
    // Due while not everything is stored.
    tk::Pacer<InterfaceIds, &InterfaceIds::storeNow> storing{*this};
};

}  // namespace links
