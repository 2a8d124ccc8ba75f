#include "nat/ruleset.h"

#include <algorithm>

namespace nat {

const Rule* RuleSet::find(std::uint32_t id) const {
    const auto rule = rules.find(id);
    return rule == rules.end() ? nullptr : &rule->second;
}

const Rule* RuleSet::find(const NatKey& key) const {
    const auto match = enabled.find(key);
    return match == enabled.end() ? nullptr : find(match->second);
}

const std::set<std::uint32_t>& RuleSet::of(std::uint32_t owner) const {
    static const std::set<std::uint32_t> none;
    const auto ids = owned.find(owner);
    return ids == owned.end() ? none : ids->second;
}

std::size_t RuleSet::countTo(std::uint32_t target) const {
    const auto count = targets.find(target);
    return count == targets.end() ? 0 : count->second;
}

void RuleSet::put(const Rule& rule) {
    remove(rule.id);
    lastId = std::max(lastId, rule.id);
    rules[rule.id] = rule;
    ++targets[rule.target.address];
    if (!rule.disabled) enabled[rule.key] = rule.id;
    if (!rule.dynamic) return;
    owned[rule.owner].insert(rule.id);
    ++dynamicRules;
}

void RuleSet::remove(std::uint32_t id) {
    const auto found = rules.find(id);
    if (found == rules.end()) return;
    const Rule& rule = found->second;
    if (!rule.disabled) enabled.erase(rule.key);
    if (rule.dynamic) {
        const auto ids = owned.find(rule.owner);
        ids->second.erase(id);
        if (ids->second.empty()) owned.erase(ids);
        --dynamicRules;
    }
    if (--targets[rule.target.address] == 0) targets.erase(rule.target.address);
    rules.erase(found);
}

}  // namespace nat
