#include "tk/subscription.h"

#include "tk/names.h"

namespace tk {

message Subscription::toMessage() const {
    message out;
    out.insert_u32_array(hubfield::path, path);
    out.insert_u32(hubfield::command, command);
    out.insert_message_array(hubfield::filter, {filter});
    return out;
}

std::optional<Subscription> Subscription::fromMessage(const message& source) {
    Subscription wanted{source.get_u32_array(hubfield::path), source.get_u32(hubfield::command)};
    if (wanted.path.empty() || !source.has(hubfield::command)) return std::nullopt;
    for (const message& each : source.get_message_array(hubfield::filter))
        if (!each.empty()) wanted.filter = each;
    return wanted;
}

}  // namespace tk
