#include "resolver/cache.h"

#include <algorithm>

namespace resolver {

const Answer* Cache::find(const std::string& name, std::uint64_t now) const {
    const auto entry = entries.find(name);
    return entry == entries.end() || entry->second.end <= now ? nullptr : &entry->second.answer;
}

void Cache::insert(const std::string& name, const Answer& answer, std::uint64_t now) {
    entries.erase(name);
    if (answer.lifetimeSeconds == 0) return;
    if (entries.size() >= limit)
        entries.erase(std::min_element(
            entries.begin(), entries.end(),
            [](const auto& one, const auto& other) { return one.second.end < other.second.end; }));
    entries[name] = {answer, now + std::uint64_t{answer.lifetimeSeconds} * 1000};
}

}  // namespace resolver
