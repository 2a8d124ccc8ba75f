#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "tk/message.h"
#include "tk/timer.h"

namespace router {

/// The requests that wait for one program to register, within bounds of number and time.
class AwaitedProgram {
public:
    /// Hears of a program that did not come in time.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// The owner may destroy the awaited program.
        virtual void awaitedTooLong(std::uint32_t program) = 0;
    };
    struct Request {
        std::uint32_t requester;  // client number
        tk::message content;
    };

    static constexpr std::size_t limit = 256;
    static constexpr std::uint32_t limitTicks = 1000;  // 10 s

    /// Starts to count the time.
    AwaitedProgram(std::uint32_t program, Owner& owner);

    /// Adds a request. False when too many wait.
    [[nodiscard]] bool add(std::uint32_t requester, const tk::message& request);
    /// Takes all requests out, in the order of arrival.
    [[nodiscard]] std::deque<Request> take() { return std::move(requests); }
    /// Forgets the requests of a peer.
    void drop(std::uint32_t requester);

private:
    void expired();

    std::uint32_t program;
    Owner& owner;
    std::deque<Request> requests;
    tk::Timer<AwaitedProgram, &AwaitedProgram::expired> timer{*this};
};

}  // namespace router
