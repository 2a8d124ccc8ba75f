#pragma once

#include <cstdint>
#include <set>

#include "tk/names.h"

namespace tk {

/// Hands out ids from a range. A freed id is given again only when the range is used up.
class Allocator {
public:
    /// Ids from `lowest` to `highest`, both inclusive.
    Allocator(std::uint32_t lowest, std::uint32_t highest);

    /// A new id.
    /// Errors: tk::unassigned when all are in use.
    [[nodiscard]] std::uint32_t allocNewID();
    /// Takes a given id. False when it is in use or out of the range.
    [[nodiscard]] bool allocID(std::uint32_t id);
    /// Gives an id back; one that is not in use is no error.
    void freeID(std::uint32_t id);
    /// True when the id is in use.
    bool isAllocID(std::uint32_t id) const { return used.contains(id); }

private:
    std::uint32_t lowest;
    std::uint32_t highest;
    std::uint32_t candidate;  // where the search for a new id starts
    std::set<std::uint32_t> used;
};

}  // namespace tk
