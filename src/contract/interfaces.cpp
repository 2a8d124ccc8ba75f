#include "contract/interfaces.h"

#include "tk/names.h"

namespace contract {

namespace {

namespace field = interfacefield;

std::optional<bool> flagOf(const tk::message& record, std::uint32_t id) {
    // Only an absent field reads as each of two defaults.
    const bool value = record.get_bool(id, true);
    return value == record.get_bool(id, false) ? std::optional(value) : std::nullopt;
}

std::optional<InterfaceCounters> countersOf(const tk::message& record) {
    if (!record.has(field::rxPackets) && !record.has(field::txPackets) && !record.has(field::rxBytes) &&
        !record.has(field::txBytes))
        return std::nullopt;
    return InterfaceCounters{record.get_u64(field::rxPackets), record.get_u64(field::txPackets),
                             record.get_u64(field::rxBytes), record.get_u64(field::txBytes)};
}

}  // namespace

tk::message InterfaceRecord::toMessage() const {
    tk::message record;
    record.insert_u32(tk::field::objectId, id);
    record.insert_u32(field::type, type);
    record.insert_u32(field::flags, flags);
    record.insert_u32(field::index, index);
    record.insert_string(field::name, name);
    if (displayName) record.insert_string(field::displayName, *displayName);
    if (disabled) record.insert_bool(tk::field::disabled, *disabled);
    if (running) record.insert_bool(field::running, *running);
    if (!counters) return record;
    record.insert_u64(field::rxPackets, counters->receivedPackets);
    record.insert_u64(field::txPackets, counters->sentPackets);
    record.insert_u64(field::rxBytes, counters->receivedBytes);
    record.insert_u64(field::txBytes, counters->sentBytes);
    return record;
}

InterfaceRecord InterfaceRecord::fromMessage(const tk::message& record) {
    InterfaceRecord out;
    out.id = record.get_u32(tk::field::objectId);
    out.type = record.get_u32(field::type);
    out.flags = record.get_u32(field::flags);
    out.index = record.get_u32(field::index);
    out.name = record.get_string(field::name);
    if (record.has(field::displayName)) out.displayName = record.get_string(field::displayName);
    out.disabled = flagOf(record, tk::field::disabled);
    out.running = flagOf(record, field::running);
    out.counters = countersOf(record);
    return out;
}

tk::message SideReply::toMessage() const {
    tk::message reply;
    reply.insert_u32(sidefield::side, static_cast<std::uint32_t>(side));
    reply.insert_string(sidefield::why, why);
    return reply;
}

SideReply SideReply::fromMessage(const tk::message& reply) {
    const std::uint32_t number = reply.get_u32(sidefield::side);
    const bool isKnown = number <= static_cast<std::uint32_t>(Side::outside);
    return {isKnown ? static_cast<Side>(number) : Side::neither, reply.get_string(sidefield::why)};
}

}  // namespace contract
