#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "resolver/answer.h"

namespace resolver {

/// Remembers answers, good and bad ones, for as long as they last. Bounded: at the limit the answer that
/// would end first gives way.
class Cache {
public:
    static constexpr std::size_t limit = 256;

    /// The answer that is remembered for a name at the time `now`. Errors: null when there is none.
    /// Units: milliseconds. Lifetime: until the cache changes.
    const Answer* find(const std::string& name, std::uint64_t now) const;
    /// Remembers an answer, in place of an older one; one without a lifetime is not remembered.
    void insert(const std::string& name, const Answer& answer, std::uint64_t now);
    void clear() { entries.clear(); }

    std::size_t size() const { return entries.size(); }

private:
    struct Entry {
        Answer answer;
        std::uint64_t end;  // the time, in milliseconds, at which it is over
    };

    std::unordered_map<std::string, Entry> entries;
};

}  // namespace resolver
