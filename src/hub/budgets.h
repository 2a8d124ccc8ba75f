#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

#include "tk/budget.h"
#include "tk/frame.h"

namespace hub {

/// The bytes that the hub keeps for others: one account per user for all its connections, and one per
/// connection of root.
class Budgets {
public:
    /// How much one user has for all its connections.
    /// Units: bytes.
    static constexpr std::size_t userLimit = std::size_t{16} * 1024 * 1024;
    /// How much one connection of root has: room for some frames of the largest size.
    /// Units: bytes.
    static constexpr std::size_t rootLimit = 4 * tk::frameLimit;

    /// The account of a connection.
    /// Lifetime: until forgetUnused() finds nothing charged to it.
    tk::Budget& of(uid_t user, std::uint32_t client) {
        const bool isRoot = user == 0;
        return budgets.try_emplace({user, isRoot ? client : 0}, isRoot ? rootLimit : userLimit).first->second;
    }
    /// Forgets the accounts to which nothing is charged.
    void forgetUnused() {
        std::erase_if(budgets, [](const auto& entry) { return entry.second.usedBytes() == 0; });
    }

private:
    using Key = std::pair<uid_t, std::uint32_t>;  // a client number for root, else 0

    std::map<Key, tk::Budget> budgets;
};

}  // namespace hub
