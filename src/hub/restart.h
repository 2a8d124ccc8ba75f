#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "tk/timer.h"

namespace router {

/// When a program that has crashed is started again: a second later if it had come to the bus before, else
/// after twice the time of the last attempt, up to about a minute.
class Restart {
public:
    static constexpr std::uint32_t firstTicks = 100;  // 1 s
    static constexpr std::uint32_t mostTicks = 6400;

    /// `start` is called when the time has come.
    explicit Restart(std::function<void()> start) : start(std::move(start)) {}

    /// The program has crashed, or could not be started.
    void crashed(bool hadRegistered);
    /// The program is not to be started any more.
    void cancel() { timer.disarm(); }

private:
    void due() { start(); }

    std::function<void()> start;
    std::uint32_t nextTicks = firstTicks;
    tk::Timer<Restart, &Restart::due> timer{*this};
};

}  // namespace router
