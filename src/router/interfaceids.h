#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "tk/store.h"

namespace router {

/// The ids of interfaces by their names. A name keeps its id over restarts and whatever became of the
/// interface, for others name interfaces by id; and no id is ever given to another name. Of more names than
/// the limit those that have been absent are forgotten: should one come again, it gets a new id. When the
/// store is lost, all names get ids that none had before: what named an interface then names none, rather
/// than a wrong one.
class InterfaceIds {
public:
    /// How many names are remembered.
    static constexpr std::size_t usualLimit = 4096;

    explicit InterfaceIds(const std::string& storePath, std::size_t limit = usualLimit);

    /// The id of `name`; a new name gets the next one, and is stored. Where it cannot be stored, that is
    /// logged, and the id lasts as long as the process: one at random, unless there was never a store, for
    /// the next in line will be another name's after a restart.
    std::uint32_t idOf(const std::string& name);
    /// Forgets names beyond the limit, by rising id, of interfaces that are not present. The last id that was
    /// given stays, for the next one goes on from there, also after a restart.
    void forgetSurplus(const std::function<bool(std::uint32_t id)>& isPresent);

private:
    void remember(const std::string& name, std::uint32_t id);
    [[nodiscard]] bool forget(std::uint32_t id);
    std::uint32_t freshId() const;

    tk::Store store;
    const std::size_t limit;
    std::map<std::string, std::uint32_t> ids;
    std::map<std::uint32_t, std::string> names;
    std::uint32_t highest = 0;
};

}  // namespace router
