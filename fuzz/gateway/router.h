#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>

#include "contract/natrules.h"
#include "tk/message.h"
#include "tk/testing/manualclock.h"
#include "tk/testing/scriptedbus.h"

namespace fuzz {

/// What the daemon asks of the other programs.
enum class Question : std::uint8_t {
    interfaces,
    states,
    addresses,
    addRule,
    changeRule,
    removeRule,
    counters,
    switchInterface,
    identity,
    hub,
    history,
    count
};

/// How a question ends. `late` is a time-out that nothing came of; with `lost`, what was asked for was done all the
/// same.
enum class Reply : std::uint8_t { usual, error, empty, malformed, late, lost, count };

/// The other programs on the daemon's bus: the router with its interfaces, addresses and rules.
class Router {
public:
    /// Lifetime: both outlive the router.
    Router(tk::testing::ScriptedBus& bus, tk::testing::ManualClock& clock);

    /// From now on questions of this kind end like this.
    void end(Question question, Reply reply) { replies[static_cast<std::size_t>(question)] = reply; }

    // The records of what there is, by id.
    std::map<std::uint32_t, tk::message> interfaces;
    std::map<std::uint32_t, tk::message> states;
    std::map<std::uint32_t, tk::message> addresses;

    /// The rules that the daemon has made and not removed.
    std::map<std::uint32_t, contract::NatRule> rules;
    /// Rules that the daemon cannot know of, or tried to remove.
    std::set<std::uint32_t> abandoned;
    /// Rules that are gone or not as the daemon last wanted them, which it cannot know.
    std::set<std::uint32_t> uncertain;
    /// How many rules the daemon believes that it made, although it was told no id.
    std::size_t withoutId = 0;

private:
    tk::message answer(Question question, const tk::message& request);
    tk::message carryOut(Question question, const tk::message& request);
    void foresee(Question question, Reply reply, const tk::message& request);
    tk::message addRule(const tk::message& request);
    tk::message changeRule(const tk::message& request);
    tk::message removeRule(const tk::message& request);

    tk::testing::ManualClock& clock;
    std::array<Reply, static_cast<std::size_t>(Question::count)> replies{};
    std::uint32_t lastRule = 100;
};

}  // namespace fuzz
