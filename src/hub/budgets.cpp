#include "hub/budgets.h"

namespace router {

tk::Budget& Budgets::of(uid_t user, std::uint32_t client) {
    const bool isRoot = user == 0;
    return budgets.try_emplace({user, isRoot ? client : 0}, isRoot ? rootLimit : userLimit).first->second;
}

void Budgets::forgetUnused() {
    std::erase_if(budgets, [](const auto& entry) { return entry.second.usedBytes() == 0; });
}

}  // namespace router
