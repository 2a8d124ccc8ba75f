#pragma once

#include <cstdint>
#include <optional>

#include "tk/message.h"

namespace tk {

/// The notifications with one command from one sender, as the hub's commands subscribe and unsubscribe name
/// them. A value.
struct Subscription {
    Path path;              // the sender's whole path
    std::uint32_t command;  // of the notifications
    message filter = {};    // empty: all of them

    /// The fields of the command to the hub.
    [[nodiscard]] message toMessage() const;
    /// Reads the fields of the command. Of several filters the last one that is not empty counts.
    /// Errors: empty when path or command is missing.
    [[nodiscard]] static std::optional<Subscription> fromMessage(const message& source);

    bool operator==(const Subscription&) const = default;
};

}  // namespace tk
