#pragma once

#include <cstdint>

namespace tk {

/// One tick of the timers. Units: milliseconds.
constexpr std::uint32_t tickMilliseconds = 10;

/// The time that the timers go by. Replaced by a manual clock in tests.
class Clock {
public:
    virtual ~Clock() = default;
    /// Units: milliseconds since an arbitrary start; never goes back.
    virtual std::uint64_t now() const = 0;
};

/// CLOCK_MONOTONIC.
class SystemClock final : public Clock {
public:
    std::uint64_t now() const override;
};

}  // namespace tk
