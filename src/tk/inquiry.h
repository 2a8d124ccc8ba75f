#pragma once

#include <cstdint>

#include "tk/message.h"
#include "tk/timer.h"

namespace tk {

/// An exchange that does not hold up the loop: the owner hears of its end. The request goes out as from the
/// loop's exchangeCmd(), and ends in the same way.
class Inquiry {
public:
    /// Hears of the end.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// The request has ended with this message: an error when it was refused, timed out, or the bus is
        /// gone. The owner may destroy the inquiry here.
        virtual void inquiryEnded(const message& end) = 0;
    };

    explicit Inquiry(Owner& owner) : owner(owner) {}
    Inquiry(const Inquiry&) = delete;
    Inquiry& operator=(const Inquiry&) = delete;
    /// Withdraws a request that is under way; the owner then hears nothing.
    ~Inquiry() { withdraw(); }

    /// Sends `request` with `command` to the path in its destination field. Call once. The owner hears of the
    /// end once, from the loop and never from within this call.
    /// Units: `timeout` in milliseconds.
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
