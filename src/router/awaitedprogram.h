#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <utility>

namespace router {

/// The requests that wait for one program to register, within a bound of number. They wait in their flat
/// form: a request of many small parts takes more than ten times that once it is parsed.
class AwaitedProgram {
public:
    struct Request {
        std::uint32_t requester;  // client number
        uid_t user;               // who sent it
        std::string flat;
        std::uint32_t round = 0;  // of takeOld() that it came in; set by add()
    };

    static constexpr std::size_t limit = 256;

    /// Adds a request. False when too many wait.
    [[nodiscard]] bool add(Request request);
    /// How many bytes of those requests wait here for which `counts` is true.
    std::size_t bytes(const std::function<bool(const Request&)>& counts) const;
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
