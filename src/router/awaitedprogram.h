#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

#include "tk/message.h"

namespace router {

/// The requests that wait for one program to register, within a bound of number.
class AwaitedProgram {
public:
    struct Request {
        std::uint32_t requester;  // client number
        tk::message content;
        std::size_t bytes;    // of its flat form
        std::uint32_t round;  // of takeOld() that it came in
    };

    static constexpr std::size_t limit = 256;

    /// Adds a request, which is as long as this in its flat form. False when too many wait.
    [[nodiscard]] bool add(std::uint32_t requester, const tk::message& request, std::size_t bytes);
    /// How many bytes of requests of a peer wait here.
    std::size_t bytesOf(std::uint32_t requester) const;
    /// Takes all requests out, in the order of arrival.
    [[nodiscard]] std::deque<Request> take() { return std::exchange(requests, {}); }
    /// Takes out, like the former, what has waited since before the last call of this function.
    [[nodiscard]] std::deque<Request> takeOld();
    /// Forgets the requests of a peer.
    void drop(std::uint32_t requester);
    /// True when nothing waits.
    bool isEmpty() const { return requests.empty(); }

private:
    std::uint32_t round = 0;
    std::deque<Request> requests;
};

}  // namespace router
