#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "tk/budget.h"
#include "tk/message.h"
#include "tk/subscription.h"

namespace hub {

/// Who wants to hear which notification: exact pairs of a sender's path and a command, without filters.
/// Peers are named by their client numbers.
class Subscriptions {
public:
    /// How many subscriptions one peer may hold.
    static constexpr std::size_t limitPerPeer = 1024;

    /// What one subscription costs beside its path, rather more than less.
    /// Units: bytes.
    static constexpr std::size_t overhead = 256;

    /// Adds a subscription, at the expense of `payer`; a second one of the same peer is the same one.
    /// Errors: false when the peer is at its limit, or the budget is.
    /// Lifetime: the budget outlives the subscription.
    [[nodiscard]] bool add(std::uint32_t peer, const tk::Subscription& wanted, tk::Budget& payer);
    /// Ends a subscription; one that is not there is no error.
    void remove(std::uint32_t peer, const tk::Subscription& unwanted);
    /// Ends all subscriptions of a peer.
    void drop(std::uint32_t peer);

    /// A peer that subscribed, and what that costs.
    struct Subscriber {
        std::uint32_t peer;
        tk::Charge charge;
    };

    /// The subscribers of a notification, each once, in the order in which they subscribed.
    /// Lifetime: until the next change.
    const std::vector<Subscriber>& of(const tk::Path& path, std::uint32_t command) const;

private:
    using Key = std::pair<tk::Path, std::uint32_t>;

    std::map<Key, std::vector<Subscriber>> subscribers;
    std::map<std::uint32_t, std::size_t> counts;  // by peer
};

}  // namespace hub
