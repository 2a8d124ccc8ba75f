#include "tk/allocator.h"

namespace tk {

Allocator::Allocator(std::uint32_t lowest, std::uint32_t highest)
    : lowest(lowest), highest(highest), candidate(lowest) {}

std::uint32_t Allocator::allocNewID() {
    const std::uint64_t size = std::uint64_t{highest} - lowest + 1;
    if (used.size() >= size) return unassigned;
    while (used.contains(candidate)) candidate = candidate == highest ? lowest : candidate + 1;
    const std::uint32_t id = candidate;
    used.insert(id);
    candidate = id == highest ? lowest : id + 1;
    return id;
}

bool Allocator::allocID(std::uint32_t id) {
    if (id < lowest || id > highest || !used.insert(id).second) return false;
    if (id >= candidate) candidate = id == highest ? lowest : id + 1;
    return true;
}

void Allocator::freeID(std::uint32_t id) {
    used.erase(id);
}

}  // namespace tk
