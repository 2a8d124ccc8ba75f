#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
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

    /// What one subscription costs in addition to its path, estimated high.
    /// Units: bytes.
    static constexpr std::size_t overhead = 256;

    /// Adds a subscription, at the expense of `payer`. Adding it again changes nothing.
    /// Errors: false when the peer or the budget is at its limit.
    /// Lifetime: the budget outlives the subscription.
    [[nodiscard]] bool add(std::uint32_t peer, const tk::Subscription& wanted, tk::Budget& payer);
    /// Ends a subscription; an absent one is no error.
    void remove(std::uint32_t peer, const tk::Subscription& unwanted);
    /// Ends all subscriptions of a peer, or those that `isUnwanted` names.
    void drop(std::uint32_t peer);
    void dropIf(std::uint32_t peer, const std::function<bool(const tk::Subscription&)>& isUnwanted);

    /// A peer that subscribed, and what that costs.
    struct Subscriber {
        std::uint32_t peer;
        tk::Charge charge;
    };

    /// The subscribers of a notification, each once, in the order of subscribing.
    /// Lifetime: until the next change.
    const std::vector<Subscriber>& of(const tk::Path& path, std::uint32_t command) const;

private:
    using Key = std::pair<tk::Path, std::uint32_t>;

    std::map<Key, std::vector<Subscriber>> subscribers;
    std::map<std::uint32_t, std::size_t> counts;  // by peer
};

}  // namespace hub
