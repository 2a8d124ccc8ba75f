#pragma once

#include <cstdint>
#include <set>

#include "tk/message.h"

namespace hub {

/// The peers that watch the traffic, and the form in which they see it.
class Trace {
public:
    /// A peer starts or stops watching.
    void add(std::uint32_t peer) { tracers.insert(peer); }
    void drop(std::uint32_t peer) { tracers.erase(peer); }
    /// True when anybody watches.
    bool isActive() const { return !tracers.empty(); }
    /// The watching peers, by client number.
    const std::set<std::uint32_t>& peers() const { return tracers; }

    /// The notification of {0} that shows `passed` to a tracer. A message too large or too deep to fit into
    /// another one is shown without its own fields.
    static tk::message wrap(const tk::message& passed);

private:
    std::set<std::uint32_t> tracers;
};

}  // namespace hub
