#include "ctl/traffic.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace ctl {

namespace {

constexpr std::size_t levelCount = 8;
constexpr std::string_view blocks[levelCount] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::string_view letters[levelCount] = {".", ":", "-", "=", "+", "*", "#", "@"};
constexpr std::uint64_t firstLimit = 100;  // bytes per second of the lowest level

std::size_t levelOf(std::uint64_t bytesPerSecond) {
    std::size_t level = 0;
    for (std::uint64_t limit = firstLimit; level + 1 < levelCount && bytesPerSecond >= limit; limit *= 10)
        ++level;
    return level;
}

}  // namespace

TrafficHistory::Key TrafficHistory::keyOf(const Mapping& mapping) {
    return {mapping.interface, mapping.externalPort, mapping.protocol};
}

void TrafficHistory::moveTo(std::uint64_t slot) {
    const auto steps = static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(slot - present, slotCount));
    present = slot;
    for (auto& [key, entry] : entries) {
        std::move(entry.slots.begin() + steps, entry.slots.end(), entry.slots.begin());
        std::fill(entry.slots.end() - steps, entry.slots.end(), 0);
    }
}

void TrafficHistory::note(const std::vector<Mapping>& mappings, std::uint64_t now) {
    moveTo(now / slotMilliseconds);
    std::map<Key, Entry> kept;
    for (const Mapping& mapping : mappings) {
        const Key key = keyOf(mapping);
        const auto known = entries.find(key);
        Entry entry = known != entries.end() ? known->second : Entry{hasBegun ? 0 : mapping.bytes, {}};
        // A rule that was made anew counts from 0.
        entry.slots.back() += mapping.bytes < entry.total ? mapping.bytes : mapping.bytes - entry.total;
        entry.total = mapping.bytes;
        kept.emplace(key, entry);
    }
    entries = std::move(kept);
    hasBegun = true;
}

TrafficHistory::Slots TrafficHistory::of(const Mapping& mapping) const {
    const auto found = entries.find(keyOf(mapping));
    return found == entries.end() ? Slots{} : found->second.slots;
}

void TrafficHistory::clear() {
    entries.clear();
    hasBegun = false;
}

void addTo(TrafficHistory::Slots& sum, const TrafficHistory::Slots& more) {
    std::transform(sum.begin(), sum.end(), more.begin(), sum.begin(), std::plus<>());
}

std::string historyLine(const TrafficHistory::Slots& slots, bool isUnicode) {
    constexpr std::uint64_t slotSeconds = TrafficHistory::slotMilliseconds / 1000;
    std::string line;
    for (const std::uint64_t bytes : slots) {
        if (bytes == 0)
            line += ' ';
        else
            line += (isUnicode ? blocks : letters)[levelOf(bytes / slotSeconds)];
    }
    return line;
}

}  // namespace ctl
