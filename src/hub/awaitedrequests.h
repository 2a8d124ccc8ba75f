#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tk/budget.h"

namespace hub {

/// The requests that wait for programs to register. They wait in flat form: a request of many small parts
/// takes more than ten times as much once it is parsed.
class AwaitedRequests {
public:
    /// A request that waits, and what that costs.
    struct Request {
        std::uint32_t requester;  // client number
        std::string flat;
        tk::Charge charge;
        std::uint32_t round;  // of takeOld() in which it came
    };

    /// Lets a request wait for `program`, at the expense of `payer`.
    /// Errors: false when the budget has no room for it.
    /// Lifetime: the budget outlives the request.
    [[nodiscard]] bool add(std::uint32_t program, std::uint32_t requester, std::string_view flat,
                           tk::Budget& payer);
    /// Takes out all requests for `program`, in the order of arrival.
    [[nodiscard]] std::deque<Request> take(std::uint32_t program);
    /// Takes out the requests that came before the last call of this function, by program and then in the
    /// order of arrival.
    [[nodiscard]] std::vector<Request> takeOld();
    /// Forgets the requests of a peer.
    void drop(std::uint32_t requester);
    /// Forgets them all.
    void clear() { requests.clear(); }

    /// True when something waits for `program`.
    bool has(std::uint32_t program) const { return requests.contains(program); }
    /// True when a request of this peer waits.
    bool hasOf(std::uint32_t requester) const;
    /// True when nothing waits.
    bool isEmpty() const { return requests.empty(); }

private:
    void forgetEmpty();

    std::uint32_t round = 0;
    std::map<std::uint32_t, std::deque<Request>> requests;  // by program; none of them is empty
};

}  // namespace hub
