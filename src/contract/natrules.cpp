#include "contract/natrules.h"

#include "tk/names.h"

namespace contract {

tk::message NatRule::toMessage() const {
    constexpr std::size_t mostFields = 24;  // the traffic's or the routing included
    tk::message record;
    record.reserve(mostFields);
    if (id != 0) record.insert_u32(tk::field::objectId, id);
    record.insert_bool(tk::field::dynamic, dynamic);
    record.insert_bool(tk::field::disabled, disabled);
    record.insert_string(rulefield::chain, dstnatChain);
    record.insert_bool(rulefield::hasDstAddress, true);
    record.insert_be32(rulefield::dstAddressFirst, key.destination);
    record.insert_be32(rulefield::dstAddressLast, key.destination);
    record.insert_bool(rulefield::hasDstPort, true);
    record.insert_u32(rulefield::dstPortFirst, key.port);
    record.insert_u32(rulefield::dstPortLast, key.port);
    record.insert_bool(rulefield::hasProtocol, true);
    record.insert_u32(rulefield::protocol, key.protocol);
    record.insert_u32(rulefield::action, destinationNat);
    record.insert_bool(rulefield::hasToAddress, true);
    record.insert_be32(rulefield::toAddressFirst, target.address);
    record.insert_be32(rulefield::toAddressLast, target.address);
    record.insert_bool(rulefield::hasToPort, true);
    record.insert_u32(rulefield::toPortFirst, target.port);
    record.insert_u32(rulefield::toPortLast, target.port);
    if (owner != 0) record.insert_u32(rulefield::owner, owner);
    return record;
}

tk::message NatRule::toChange() const {
    tk::message change;
    change.insert_u32(tk::field::objectId, id);
    change.insert_bool(tk::field::disabled, disabled);
    change.insert_be32(rulefield::toAddressFirst, target.address);
    change.insert_be32(rulefield::toAddressLast, target.address);
    change.insert_u32(rulefield::toPortFirst, target.port);
    change.insert_u32(rulefield::toPortLast, target.port);
    return change;
}

tk::message NatRule::toQuestion() const {
    tk::message question;
    question.insert_bool(tk::field::dynamic, dynamic);
    question.insert_bool(tk::field::disabled, disabled);
    question.insert_string(rulefield::chain, dstnatChain);
    question.insert_be32(rulefield::dstAddressFirst, key.destination);
    question.insert_u32(rulefield::dstPortFirst, key.port);
    question.insert_u32(rulefield::protocol, key.protocol);
    question.insert_u32(rulefield::action, destinationNat);
    question.insert_be32(rulefield::toAddressFirst, target.address);
    question.insert_u32(rulefield::toPortFirst, target.port);
    return question;
}

NatRule NatRule::fromMessage(const tk::message& record) {
    NatRule rule;
    rule.id = record.get_u32(tk::field::objectId);
    rule.dynamic = record.get_bool(tk::field::dynamic);
    rule.owner = record.get_u32(rulefield::owner, 0);
    return rule.changedBy(record);
}

NatRule NatRule::changedBy(const tk::message& request) const {
    const auto port = [&](std::uint32_t field, std::uint16_t absent) {
        return static_cast<std::uint16_t>(request.get_u32(field, absent));
    };
    NatRule changed = *this;
    changed.disabled = request.get_bool(tk::field::disabled, disabled);
    changed.key.destination = request.get_be32(rulefield::dstAddressFirst, key.destination);
    changed.key.protocol = static_cast<std::uint8_t>(request.get_u32(rulefield::protocol, key.protocol));
    changed.key.port = port(rulefield::dstPortFirst, key.port);
    changed.target.address = request.get_be32(rulefield::toAddressFirst, target.address);
    changed.target.port = port(rulefield::toPortFirst, target.port);
    return changed;
}

void NatTraffic::addTo(tk::message& record) const {
    record.insert_u64(rulefield::packets, packets);
    record.insert_u64(rulefield::bytes, bytes);
}

NatTraffic NatTraffic::fromMessage(const tk::message& record) {
    return {record.get_u64(rulefield::packets, 0), record.get_u64(rulefield::bytes, 0)};
}

}  // namespace contract
