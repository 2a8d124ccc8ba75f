#pragma once

#include <cstdint>

#include "tk/message.h"
#include "tk/names.h"

namespace tk {

/// Where messages go and come from: the connection to the hub, a hub in the same process, or a script in
/// tests.
class Bus {
public:
    virtual ~Bus() = default;

    /// Sends `request` with `command` from the handler at `from` to the path in its destination field, and
    /// waits for its end. No callback of any kind runs meanwhile.
    /// Units: `timeout` in milliseconds.
    /// Errors: an error message, at once when the bus is gone.
    [[nodiscard]] virtual message exchange(const message& request, const Path& from, std::uint32_t command,
                                           std::uint32_t timeout) = 0;

    /// Sends `request` as exchange() does, but does not wait. Its end arrives from the loop like any other
    /// message, with the number that is put into `number` (never 0).
    /// Errors: an error message when it cannot be sent, or when the bus is no connection to the hub; then no
    /// end arrives.
    [[nodiscard]] virtual message ask(const message& request, const Path& from, std::uint32_t command,
                                      std::uint32_t& number);
    /// Gives up a request sent by ask(): its end is discarded when it comes.
    virtual void forget(std::uint32_t number);

    /// Sends a stamped message that nobody waits for: a reply, an error or a notification. It is dropped when
    /// it cannot be sent: the receiver or the bus is gone.
    virtual void post(message stamped) = 0;

    /// False when it is certain that nobody would see the notification `command` of `from`.
    [[nodiscard]] virtual bool isHeard(const Path& from, std::uint32_t command) const;
};

/// Appends the routing fields to a message, replacing any that it has. With `number` 0 it gets no number, as
/// in notifications.
void stamp(message& target, const Path& from, std::uint32_t number, Kind kind, std::uint32_t command);

/// The number of the request after the one numbered `last`: never 0, which stands for "no number".
constexpr std::uint32_t nextNumber(std::uint32_t last) {
    return last + 1 == 0 ? 1 : last + 1;
}

/// Only the routing fields of a request: all that endOf() needs of it.
message routingOf(const message& request);

/// The kind of a received message; a request where the field is absent or unknown.
Kind kindOf(const message& received);

/// Makes the end of `request` from its handler's answer: an error when `answer` is one, else a reply. The end
/// is addressed to the requester.
message endOf(const message& request, message answer);

/// True for the fields that stamp() appends, and for the destination.
[[nodiscard]] bool isRouting(std::uint32_t id);

/// Copies a message without its routing fields (sender, number, kind, command, destination).
message withoutRouting(const message& source);

}  // namespace tk
