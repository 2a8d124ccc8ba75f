#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "ctl/mappings.h"

namespace ctl {

/// The traffic of the last minute that used each mapping, as far as it was watched.
class TrafficHistory {
public:
    static constexpr std::size_t slotCount = 20;
    static constexpr std::uint64_t slotMilliseconds = 3000;
    /// Bytes in each slot of the last minute, the oldest first. The last slot is the present one.
    using Slots = std::array<std::uint64_t, slotCount>;

    /// Notes how much has used the mappings by now. Those that are gone are forgotten; one that is new counts
    /// from 0, except at the first call.
    /// Units: milliseconds since an arbitrary start; never goes back.
    void note(const std::vector<Mapping>& mappings, std::uint64_t now);

    /// What used a mapping.
    [[nodiscard]] Slots of(const Mapping& mapping) const;

    /// Begins anew: what is noted next counts as old.
    void clear();

private:
    using Key = std::tuple<std::uint32_t, std::uint16_t, std::uint8_t>;  // interface, port, protocol
    struct Entry {
        std::uint64_t total = 0;
        Slots slots{};
    };

    static Key keyOf(const Mapping& mapping);
    void moveTo(std::uint64_t slot);

    std::map<Key, Entry> entries;
    std::uint64_t present = 0;  // the number of the last slot
    bool hasBegun = false;
};

/// Adds what is in the slots of another history.
void addTo(TrafficHistory::Slots& sum, const TrafficHistory::Slots& more);

/// A line of one column for each slot. Its height stands for the bytes per second by powers of ten: less than
/// 100, then 1000, up to 100 million and more, so that lines can be compared. Without traffic it is blank.
[[nodiscard]] std::string historyLine(const TrafficHistory::Slots& slots, bool isUnicode);

}  // namespace ctl
