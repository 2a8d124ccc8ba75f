#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>

#include "nat/rule.h"

namespace nat {

/// The rules, with indexes by id, by what an enabled rule matches, by target, and by the owner of a dynamic
/// rule. Ids start at 1 and are never used again.
class RuleSet {
public:
    /// All rules, by id.
    const std::map<std::uint32_t, Rule>& all() const { return rules; }
    /// The rule with an id; null when there is none.
    /// Lifetime: until the next change.
    const Rule* find(std::uint32_t id) const;
    /// The enabled rule with a key; null when there is none.
    /// Lifetime: until the next change.
    const Rule* find(const NatKey& key) const;
    /// The ids of the dynamic rules of an owner.
    const std::set<std::uint32_t>& of(std::uint32_t owner) const;

    /// How many rules of any kind lead to an address.
    /// Byte order: network.
    std::size_t countTo(std::uint32_t target) const;
    /// How many rules are stored, because they are not dynamic.
    std::size_t countStored() const { return rules.size() - dynamicRules; }

    /// An id that no rule has had.
    [[nodiscard]] std::uint32_t newId() { return ++lastId; }
    /// Adds a rule, or replaces the one with its id.
    void put(const Rule& rule);
    /// Removes a rule; an absent one is no error.
    void remove(std::uint32_t id);

private:
    std::map<std::uint32_t, Rule> rules;
    std::map<NatKey, std::uint32_t> enabled;
    std::unordered_map<std::uint32_t, std::set<std::uint32_t>> owned;
    std::unordered_map<std::uint32_t, std::size_t> targets;
    std::size_t dynamicRules = 0;
    std::uint32_t lastId = 0;
};

}  // namespace nat
