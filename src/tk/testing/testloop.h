#pragma once

#include <cstdint>
#include <string>

#include "tk/looper.h"
#include "tk/testing/manualclock.h"
#include "tk/testing/scriptedbus.h"

namespace tk::testing {

/// The program whose loop it is.
constexpr std::uint32_t ownProgram = 80;

/// A loop whose time moves by hand and whose bus is a script. One per test.
struct TestLoop {
    ManualClock clock;
    ScriptedBus bus;
    Looper looper{clock, bus, ownProgram};

    /// Moves the clock on, and calls every timer that becomes due, each at its own time.
    void advance(std::uint32_t ticks);
    /// Serves what is ready until nothing is, for at most `limit` turns.
    void settle(int limit = 20);
    /// Hands the loop the end of an asked request that got none.
    void end(std::uint32_t number, message content);
    /// Connects to a port on loopback, sends a request and lets the loop serve it. Returns what was answered
    /// by then.
    std::string exchangeOverTcp(std::uint16_t port, const std::string& request);
    /// Hands a notification of `from` to the loop, as the hub would.
    void notify(const Path& from, std::uint32_t command, message content);
    /// Hands a request for handler 0 to the loop. Returns the answer as it was posted, without routing
    /// fields.
    message request(std::uint32_t command, message content);
};

}  // namespace tk::testing
