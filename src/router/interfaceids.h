#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tk/store.h"

namespace router {

/// The ids of interfaces by their names. An id once given to a name stays that name's for ever, also over
/// restarts, and whatever became of the interface; for others name interfaces by id.
class InterfaceIds {
public:
    explicit InterfaceIds(const std::string& storePath);

    /// The id of `name`; a new name gets the next one, and is stored. Where it cannot be stored, that is
    /// logged, and the id lasts as long as the process.
    std::uint32_t idOf(const std::string& name);

private:
    tk::Store store;
    std::map<std::string, std::uint32_t> ids;
    std::uint32_t highest = 0;
};

}  // namespace router
