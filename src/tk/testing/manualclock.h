#pragma once

#include <cstdint>

#include "tk/runner.h"

namespace tk::testing {

/// A clock that moves only by hand. Its date at first is 2026-01-02T03:04:05Z.
class ManualClock final : public Clock {
public:
    static constexpr std::uint64_t firstDate = 1767323045;

    std::uint64_t now() const override { return milliseconds; }
    std::uint64_t date() const override { return firstDate - 1 + milliseconds / 1000; }
    void advance(std::uint64_t by) { milliseconds += by; }

private:
    std::uint64_t milliseconds = 1000;
};

}  // namespace tk::testing
