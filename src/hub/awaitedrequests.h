#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "tk/budget.h"

namespace router {

/// The requests that wait for one program to register. They wait in their flat form: a request of many small
/// parts takes more than ten times that once it is parsed.
class AwaitedProgram {
public:
    struct Request {
        std::uint32_t requester;  // client number
        std::string flat;
        tk::Charge charge;
        std::uint32_t round;  // of takeOld() that it came in
    };

    /// Adds a request. False when its budget has no room for it.
    [[nodiscard]] bool add(std::uint32_t requester, std::string_view flat, tk::Budget& payer);
    /// Takes all requests out, in the order of arrival.
    [[nodiscard]] std::deque<Request> take() { return std::exchange(requests, {}); }
    /// Takes out, like the former, what has waited since before the last call of this function.
    [[nodiscard]] std::deque<Request> takeOld();
    /// Forgets the requests of a peer.
    void drop(std::uint32_t requester);
    /// True when a request of this peer waits.
    bool hasOf(std::uint32_t requester) const;
    /// True when nothing waits.
    bool isEmpty() const { return requests.empty(); }

private:
    std::uint32_t round = 0;
    std::deque<Request> requests;
};

}  // namespace router
