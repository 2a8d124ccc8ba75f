#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "tk/message.h"

namespace router {

/// Who wants to hear which notification: exact pairs of a sender's path and a command.
/// Peers are named by their client numbers.
class Subscriptions {
public:
    /// How many subscriptions one peer may hold.
    static constexpr std::size_t limitPerPeer = 1024;

    /// Adds a subscription; a second one of the same peer is the same one. False when the peer is at its
    /// limit.
    [[nodiscard]] bool add(std::uint32_t peer, const tk::Path& path, std::uint32_t command);
    /// Ends a subscription; one that is not there is no error.
    void remove(std::uint32_t peer, const tk::Path& path, std::uint32_t command);
    /// Ends all subscriptions of a peer.
    void drop(std::uint32_t peer);

    /// The subscribers of a notification, each once, in the order in which they subscribed.
    /// Lifetime: until the next change.
    const std::vector<std::uint32_t>& of(const tk::Path& path, std::uint32_t command) const;

private:
    using Key = std::pair<tk::Path, std::uint32_t>;

    std::map<Key, std::vector<std::uint32_t>> subscribers;
    std::map<std::uint32_t, std::size_t> counts;  // by peer
};

}  // namespace router
