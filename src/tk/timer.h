#pragma once

#include "tk/runner.h"

namespace tk {

/// A one-shot timer that calls a member of its owner, and withdraws itself when it is destroyed.
/// A periodic action arms it again from its callback.
/// Units: ticks of 10 ms.
template <typename Owner, void (Owner::*onExpiry)()>
class Timer {
public:
    /// Runs on the loop of the process.
    explicit Timer(Owner& owner) : owner(owner) {}
    /// Runs on the given runner.
    /// Lifetime: the runner outlives the timer.
    Timer(Owner& owner, Runner& runner) : owner(owner), runner(&runner) {}
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    ~Timer() { disarm(); }

    /// Calls the owner once, `ticks` from now; an armed timer starts anew.
    void arm(std::uint32_t ticks) {
        whose().template addTimer<Owner, onExpiry>(&owner, ticks);
        armed = true;
    }
    /// Withdraws the call, if the timer is armed.
    void disarm() {
        if (armed) whose().template removeTimer<Owner, onExpiry>(&owner);
        armed = false;
    }

private:
    Runner& whose() const { return runner ? *runner : *getRunner(); }

    Owner& owner;
    Runner* runner = nullptr;  // null: the loop's
    // True when armed since the last disarm(); the call itself may be over.
    bool armed = false;
};

/// Watches one descriptor for its owner, and stops when it is destroyed. Declare it after the descriptor, so
/// that the watch ends before the descriptor closes.
class Watch {
public:
    /// Runs on the loop of the process.
    Watch() = default;
    /// Runs on the given runner.
    /// Lifetime: the runner outlives the watch.
    explicit Watch(Runner& runner) : runner(&runner) {}
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() { stop(); }

    /// Calls `member` of `owner` whenever `fd` is ready for one of `events`. A negative descriptor is not
    /// watched.
    template <typename Owner, void (Owner::*member)(int fd, std::uint32_t events)>
    void start(int fd, Owner& owner, std::uint32_t events,
               Runner::Priority priority = Runner::Priority::normal) {
        stop();
        watched = fd;
        whose().addSocket<Owner, member>(fd, &owner, events, priority);
    }
    /// Ends the watch, if there is one.
    void stop() {
        if (watched >= 0) whose().removeSocket(watched);
        watched = -1;
    }

    /// Ends the watch of a descriptor that is closed next, at less cost; see Runner::forgetSocket().
    void endWithSocket() {
        if (watched >= 0) whose().forgetSocket(watched);
        watched = -1;
    }

private:
    Runner& whose() const { return runner ? *runner : *getRunner(); }

    Runner* runner = nullptr;  // null: the loop's
    int watched = -1;
};

}  // namespace tk
