#pragma once

#include <cstdint>
#include <set>

#include "tk/message.h"

namespace hub {

/// The peers that watch the traffic, and the form in which they see it.
class Trace {
public:
    /// A peer watches, or does not any more.
    void add(std::uint32_t peer) { tracers.insert(peer); }
    void drop(std::uint32_t peer) { tracers.erase(peer); }
    /// True when anybody watches.
    bool isActive() const { return !tracers.empty(); }
    /// The watching peers, by client number.
    const std::set<std::uint32_t>& peers() const { return tracers; }

    /// The notification of {0} that shows `passed` to a tracer. A message that has no room in another one,
    /// for its size or its depth, is shown without its own fields.
    static tk::message wrap(const tk::message& passed);

private:
    std::set<std::uint32_t> tracers;
};

}  // namespace hub
