#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tk/budget.h"
#include "tk/message.h"

namespace hub {

/// The requests that passed the hub and have not ended yet. Peers are named by their client numbers, which
/// never change.
class PendingRequests {
public:
    /// How many requests of one peer may be under way.
    static constexpr std::size_t limitPerPeer = 1024;

    /// The result of add(). `full`: the requester is at a limit.
    enum class Added : std::uint8_t { yes, duplicate, full };

    /// What one request costs in addition to its paths, estimated high.
    /// Units: bytes.
    static constexpr std::size_t overhead = 1024;

    /// Notes that `request`, made by `requester`, is with `callee`. Only its routing fields are kept, at the
    /// expense of `payer`.
    /// Lifetime: the budget outlives the entry.
    [[nodiscard]] Added add(std::uint32_t requester, std::uint32_t callee, const tk::message& request,
                            tk::Budget& payer);

    /// Ends the request that `end` of `callee` answers, if its path is the very one that asked. False when
    /// there is no such request: `end` is late, was never asked for, or was asked for by somebody else.
    [[nodiscard]] bool finish(std::uint32_t requester, std::uint32_t callee, const tk::message& end);

    /// Forgets a request.
    void drop(std::uint32_t requester, std::uint32_t number);

    /// Takes out all requests that are with `callee`, by requester and number. Each is only its routing
    /// fields, to be ended with an error.
    [[nodiscard]] std::vector<tk::message> takeOfCallee(std::uint32_t callee);

    /// Takes out, in the same way, the requests that came before the last call of this function.
    [[nodiscard]] std::vector<tk::message> takeOld();

    /// Forgets what `requester` waits for.
    void dropOfRequester(std::uint32_t requester);

    /// True when `requester` waits for something.
    bool hasOf(std::uint32_t requester) const { return counts.contains(requester); }

    /// How many are under way.
    std::size_t size() const { return entries.size(); }

private:
    using Key = std::pair<std::uint32_t, std::uint32_t>;  // requester, number
    struct Entry {
        std::uint32_t callee;
        tk::message routing;
        tk::Charge charge;
        std::uint32_t round;  // of takeOld() in which it came
    };
    using Entries = std::map<Key, Entry>;

    Entries::iterator erase(Entries::iterator entry);

    std::uint32_t round = 0;
    Entries entries;
    std::set<std::pair<std::uint32_t, Key>> byCallee;
    std::unordered_map<std::uint32_t, std::size_t> counts;  // by requester
};

}  // namespace hub
