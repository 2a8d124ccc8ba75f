#pragma once

#include <cstdint>
#include <optional>

#include "tk/message.h"

namespace tk {

/// A wish to hear the notifications of one sender that carry one command, as the hub's commands subscribe and
/// unsubscribe take it. A value.
struct Subscription {
    Path path;              // the sender's, the whole of it
    std::uint32_t command;  // of the notifications
    message filter = {};    // empty: all of them

    /// What goes to the hub with the command.
    [[nodiscard]] message toMessage() const;
    /// Reads what came with the command; of several filters, the last that asks for anything. None when path or
    /// command is missing.
    [[nodiscard]] static std::optional<Subscription> fromMessage(const message& source);

    bool operator==(const Subscription&) const = default;
};

}  // namespace tk
