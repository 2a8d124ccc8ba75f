#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "tk/pacer.h"
#include "tk/store.h"

namespace links {

/// The ids of interfaces by their names. A name keeps its id over restarts and whatever became of the
/// interface, for others name interfaces by id; and no id is ever given to another name. Of more names than
/// the limit those that have been absent are forgotten: should one come again, it gets a new id. When the
/// store is lost, all names get ids that none had before: what named an interface then names none, rather
/// than a wrong one.
///
/// New names are stored together, a short time after they came. Ids are reserved in the store before they are
/// given, many with one write: those of names that a crash kept from being stored are never given again.
class InterfaceIds {
public:
    /// How many names are remembered.
    static constexpr std::size_t usualLimit = 4096;
    /// How many ids are reserved at once, and how long names wait to be stored.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t reservedAtOnce = 256;
    static constexpr std::uint32_t storeTicks = 100;

    /// Lifetime: there is a loop as long as the object.
    explicit InterfaceIds(const std::string& storePath, std::size_t limit = usualLimit);
    InterfaceIds(const InterfaceIds&) = delete;
    InterfaceIds& operator=(const InterfaceIds&) = delete;
    /// Stores what is not stored yet.
    ~InterfaceIds();

    /// The id of `name`; a new name gets the next one. Where that cannot be reserved, that is logged, and the
    /// id is one at random, unless there was never a store: the next in line will be another name's after a
    /// restart.
    std::uint32_t idOf(const std::string& name);
    /// Stores new names now.
    void storeWhatIsNew();
    /// Forgets names beyond the limit, by rising id, of interfaces that are not present.
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
    std::uint32_t highest = 0;   // that was given
    std::uint32_t reserved = 0;  // up to here, in the store
    // Due while not everything is stored.
    tk::Pacer<InterfaceIds, &InterfaceIds::storeNow> storing{*this};
};

}  // namespace links
