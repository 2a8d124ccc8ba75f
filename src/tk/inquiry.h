#pragma once

#include <cstdint>

#include "tk/message.h"
#include "tk/timer.h"

namespace tk {

/// An exchange that the loop does not wait for: it goes on with everything else, and the owner hears of the
/// end. The request goes out as from the loop's exchangeCmd(), and ends as that would.
class Inquiry {
public:
    /// Hears of the end.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// What the request ended with, an error message when it was refused, timed out, or the bus is gone.
        /// The owner may destroy the inquiry in here.
        virtual void inquiryEnded(const message& end) = 0;
    };

    explicit Inquiry(Owner& owner) : owner(owner) {}
    Inquiry(const Inquiry&) = delete;
    Inquiry& operator=(const Inquiry&) = delete;
    /// Withdraws a request that is under way; the owner hears nothing then.
    ~Inquiry() { withdraw(); }

    /// Sends `request` with `command` to the path in its destination field; to be called once. The owner
    /// hears of its end once, from the loop and never from in here.
    /// Units: milliseconds.
    void start(const message& request, std::uint32_t command, std::uint32_t timeout);

    /// Called by the loop: the request has ended. May delete this.
    void end(const message& how);

private:
    void expired();
    void withdraw();

    Owner& owner;
    std::uint32_t number = 0;  // of the request under way; 0: none
    message outcome;           // of a request that nobody answers
    Timer<Inquiry, &Inquiry::expired> timer{*this};
};

}  // namespace tk
