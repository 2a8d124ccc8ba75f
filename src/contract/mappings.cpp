#include "contract/mappings.h"

#include "tk/names.h"

namespace contract {

tk::message MappingRecord::toMessage() const {
    namespace field = mappingfield;
    tk::message record;
    record.insert_u32(tk::field::objectId, id);
    record.insert_u32(field::interface, interface);
    record.insert_u32(field::externalPort, externalPort);
    record.insert_u32(field::protocol, protocol);
    record.insert_be32(field::internalClient, internalClient);
    record.insert_u32(field::internalPort, internalPort);
    record.insert_bool(field::enabled, enabled);
    record.insert_string(field::description, description);
    record.insert_be32(field::requestedBy, requestedBy);
    record.insert_u64(field::since, since);
    return record;
}

MappingRecord MappingRecord::fromMessage(const tk::message& record) {
    namespace field = mappingfield;
    return {.id = record.get_u32(tk::field::objectId),
            .interface = record.get_u32(field::interface),
            .externalPort = static_cast<std::uint16_t>(record.get_u32(field::externalPort)),
            .protocol = static_cast<std::uint8_t>(record.get_u32(field::protocol)),
            .internalClient = record.get_be32(field::internalClient),
            .internalPort = static_cast<std::uint16_t>(record.get_u32(field::internalPort)),
            .enabled = record.get_bool(field::enabled),
            .description = record.get_string(field::description),
            .requestedBy = record.get_be32(field::requestedBy),
            .since = record.get_u64(field::since)};
}

tk::message MappingRefusal::toMessage() const {
    namespace field = refusalfield;
    tk::message record;
    record.insert_u64(field::time, time);
    record.insert_be32(field::requester, requester);
    record.insert_u32(field::externalPort, externalPort);
    record.insert_u32(field::protocol, protocol);
    record.insert_be32(field::internalClient, internalClient);
    record.insert_u32(field::internalPort, internalPort);
    record.insert_u32(field::code, code);
    record.insert_string(field::reason, reason);
    record.insert_u32(field::count, count);
    return record;
}

MappingRefusal MappingRefusal::fromMessage(const tk::message& record) {
    namespace field = refusalfield;
    return {.time = record.get_u64(field::time),
            .requester = record.get_be32(field::requester),
            .externalPort = static_cast<std::uint16_t>(record.get_u32(field::externalPort)),
            .protocol = static_cast<std::uint8_t>(record.get_u32(field::protocol)),
            .internalClient = record.get_be32(field::internalClient),
            .internalPort = static_cast<std::uint16_t>(record.get_u32(field::internalPort)),
            .code = record.get_u32(field::code),
            .reason = record.get_string(field::reason),
            .count = record.get_u32(field::count, 1)};
}

}  // namespace contract
