#include "tk/bus.h"

#include <utility>

namespace tk {

message Bus::ask(const message&, const Path&, std::uint32_t, std::uint32_t&) {
    return errorMsg(error::failed, "not on this bus");
}
void Bus::forget(std::uint32_t) {}
bool Bus::isHeard(const Path&, std::uint32_t) const {
    return true;
}

void stamp(message& target, const Path& from, std::uint32_t number, Kind kind, std::uint32_t command) {
    // Left over, or put in by hand: they belong after the message's own fields.
    for (const std::uint32_t id : {field::sender, field::number, field::kind, field::command})
        target.remove(id);
    target.insert_u32_array(field::sender, from);
    if (number != 0) target.insert_u32(field::number, number);
    target.insert_u32(field::kind, static_cast<std::uint32_t>(kind));
    target.insert_u32(field::command, command);
}

Kind kindOf(const message& received) {
    const std::uint32_t kind = received.get_u32(field::kind);
    const bool known = kind >= static_cast<std::uint32_t>(Kind::request) &&
                       kind <= static_cast<std::uint32_t>(Kind::notification);
    return known ? static_cast<Kind>(kind) : Kind::request;
}

message endOf(const message& request, message answer) {
    const Kind kind = isError(answer) ? Kind::error : Kind::reply;
    answer.insert_u32_array(field::destination, request.get_u32_array(field::sender));
    stamp(answer, request.get_u32_array(field::destination), request.get_u32(field::number), kind,
          request.get_u32(field::command));
    return answer;
}

message routingOf(const message& request) {
    message routing;
    routing.insert_u32_array(field::destination, request.get_u32_array(field::destination));
    stamp(routing, request.get_u32_array(field::sender), request.get_u32(field::number), kindOf(request),
          request.get_u32(field::command));
    return routing;
}

bool isRouting(std::uint32_t id) {
    return id == field::destination || id == field::sender || id == field::number || id == field::kind ||
           id == field::command;
}

message withoutRouting(const message& source) {
    message own;
    own.reserve(source.fields().size());
    for (const message::Field& field : source.fields())
        if (!isRouting(field.id)) own.insert(field);
    return own;
}

}  // namespace tk
