#include "tk/budget.h"

#include <utility>

namespace tk {

Charge::Charge(Charge&& other) noexcept
    : payer(std::exchange(other.payer, nullptr)), held(std::exchange(other.held, 0)) {}

Charge& Charge::operator=(Charge&& other) noexcept {
    if (this == &other) return *this;
    set(0);
    payer = std::exchange(other.payer, nullptr);
    held = std::exchange(other.held, 0);
    return *this;
}

void Charge::set(std::size_t bytes) {
    if (!payer) return;
    payer->used += bytes;
    payer->used -= held;
    held = bytes;
}

}  // namespace tk
