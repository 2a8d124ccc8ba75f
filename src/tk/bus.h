#pragma once

#include <cstdint>

#include "tk/message.h"
#include "tk/names.h"

namespace tk {

/// Where messages go to and come from: the connection to the hub, a hub in the same process, or a script in
/// tests.
class Bus {
public:
    virtual ~Bus() = default;

    /// Sends `request`, whose destination is in its own field, as a request with `command` from the handler
    /// at `from`, and waits for its end. No callback of any kind runs meanwhile.
    /// Units: `timeout` in milliseconds.
    /// Errors: an error message, at once when the bus is gone.
    [[nodiscard]] virtual message exchange(const message& request, const Path& from, std::uint32_t command,
                                           std::uint32_t timeout) = 0;

    /// Sends `request` as exchange() does, and does not wait: its end arrives from the loop like all else
    /// that is received, with the number that is put into `number` (never 0).
    /// Errors: an error message when it cannot be sent, and on a bus that is no connection to the hub; no end
    /// arrives then.
    [[nodiscard]] virtual message ask(const message& request, const Path& from, std::uint32_t command,
                                      std::uint32_t& number);
    /// Nobody waits any more for the end of a request that was sent so: it is discarded when it comes.
    virtual void forget(std::uint32_t number);

    /// Sends a message that is stamped already, and that nobody waits for: a reply, an error or a
    /// notification. What cannot be sent is dropped: the receiver is gone, or the bus is.
    virtual void post(message stamped) = 0;
};

/// Appends the routing fields to a message, in the place of those that it may have; `number` 0 appends none,
/// as in notifications.
void stamp(message& target, const Path& from, std::uint32_t number, Kind kind, std::uint32_t command);

/// The routing fields of a request alone, which are all that endOf() needs of it.
message routingOf(const message& request);

/// The kind of a received message; a request where the field is absent or unknown.
Kind kindOf(const message& received);

/// Makes the end of `request` from what its handler answered: a reply, or an error when `answer` is one,
/// addressed to the requester.
message endOf(const message& request, message answer);

/// Copies a message without its routing fields (sender, number, kind, command, destination).
message withoutRouting(const message& source);

}  // namespace tk
