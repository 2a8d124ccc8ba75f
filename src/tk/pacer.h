#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>

#include "tk/runner.h"
#include "tk/timer.h"

namespace tk {

/// Calls its owner later: once, however often the call is asked for meanwhile, and never while the owner's
/// last rest() lasts. Withdraws the call when it is destroyed.
/// Units: ticks of 10 ms.
template <typename Owner, void (Owner::*action)()>
class Pacer {
public:
    explicit Pacer(Owner& owner) : owner(owner) {}
    Pacer(const Pacer&) = delete;
    Pacer& operator=(const Pacer&) = delete;

    /// Calls the owner `ticks` from now, or when the rest is over if that is later. Does nothing when a call
    /// is already due.
    void call(std::uint32_t ticks) {
        if (!std::exchange(due, true)) timer.arm(std::max(ticks, restTicks()));
    }
    /// Withdraws the call, if one is due.
    void withdraw() {
        timer.disarm();
        due = false;
    }
    /// Holds back calls asked for from now on until `time` has passed.
    void rest(std::chrono::steady_clock::duration time) { restEnd = std::chrono::steady_clock::now() + time; }
    /// True when a call is due.
    bool isDue() const { return due; }

private:
    std::uint32_t restTicks() const {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(restEnd - std::chrono::steady_clock::now());
        return static_cast<std::uint32_t>(std::max<std::int64_t>(left.count(), 0) / tickMilliseconds);
    }
    void expired() {
        due = false;
        (owner.*action)();  // may delete the owner and this object with it: nothing may follow
    }

    Owner& owner;
    bool due = false;
    std::chrono::steady_clock::time_point restEnd;
    Timer<Pacer, &Pacer::expired> timer{*this};
};

}  // namespace tk
