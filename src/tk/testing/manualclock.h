#pragma once

#include <cstdint>

#include "tk/runner.h"

namespace tk::testing {

/// A clock that moves only by hand.
class ManualClock final : public Clock {
public:
    std::uint64_t now() const override { return milliseconds; }
    void advance(std::uint64_t by) { milliseconds += by; }

private:
    std::uint64_t milliseconds = 1000;
};

}  // namespace tk::testing
