#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace resolver {

/// What is known of a name: its address, or why it has none. A value.
struct Answer {
    std::uint32_t address = 0;          // network order; 0: none
    std::uint32_t lifetimeSeconds = 0;  // how long it may be reused; 0: not at all
    std::uint32_t errorCode = 0;        // without an address: one of tk::error
    std::string errorText;

    bool operator==(const Answer&) const = default;
};

/// Remembers answers, good and bad, for their lifetime. At the limit, the answer that would end first makes
/// room.
class Cache {
public:
    static constexpr std::size_t limit = 256;

    /// The remembered answer for a name at the time `now`.
    /// Errors: null when there is none.
    /// Units: milliseconds.
    /// Lifetime: until the cache changes.
    const Answer* find(const std::string& name, std::uint64_t now) const;
    /// Remembers an answer in place of an older one. An answer without a lifetime is not remembered.
    void insert(const std::string& name, const Answer& answer, std::uint64_t now);
    /// Forgets every answer.
    void clear() { entries.clear(); }

    /// How many answers are remembered.
    std::size_t size() const { return entries.size(); }

private:
    struct Entry {
        Answer answer;
        std::uint64_t end = 0;  // in milliseconds
    };

    std::unordered_map<std::string, Entry> entries;
};

}  // namespace resolver
