#pragma once

#include <cstddef>

namespace tk {

/// How many bytes may be kept for somebody. Each thing that is kept holds a Charge.
class Budget {
public:
    /// Units: `limit` in bytes.
    explicit Budget(std::size_t limit) : limit(limit) {}
    Budget(const Budget&) = delete;
    Budget& operator=(const Budget&) = delete;

    /// True when `bytes` more are within the limit.
    bool hasRoomFor(std::size_t bytes) const { return used <= limit && bytes <= limit - used; }
    /// True when more is kept than the limit allows: what can no longer be refused is charged all the same.
    bool isOver() const { return used > limit; }
    /// What is kept.
    /// Units: bytes.
    std::size_t usedBytes() const { return used; }

private:
    friend class Charge;

    const std::size_t limit;
    std::size_t used = 0;
};

/// Bytes of a budget that are in use, until this object ends. It moves, it never copies.
class Charge {
public:
    /// No bytes, charged to nobody.
    Charge() = default;
    /// Lifetime: the budget outlives the charge.
    Charge(Budget& payer, std::size_t bytes) : payer(&payer) { set(bytes); }
    Charge(Charge&& other) noexcept;
    Charge& operator=(Charge&& other) noexcept;
    ~Charge() { set(0); }

    /// Changes how many bytes are in use.
    void set(std::size_t bytes);
    /// How many bytes are in use.
    std::size_t bytes() const { return held; }
    /// True when these bytes are charged to that budget.
    bool isOf(const Budget& budget) const { return payer == &budget; }

private:
    Budget* payer = nullptr;
    std::size_t held = 0;
};

}  // namespace tk
