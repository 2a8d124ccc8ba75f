#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <string>

#include "tk/message.h"

namespace gateway {

/// The bus record of a live interface, as the router reports it.
inline tk::message interfaceRecord(std::uint32_t id, const std::string& name,
                                   const std::string& displayName = {}) {
    tk::message record;
    record.insert_u32(0xFE0001, id);
    record.insert_u32(0x10001, 1);
    record.insert_u32(0x10003, 0);
    record.insert_u32(0x10004, 1);
    record.insert_string(0x10005, name);
    record.insert_string(0x10006, displayName.empty() ? name : displayName);
    return record;
}

/// The record of an interface that is gone.
inline tk::message goneRecord(std::uint32_t id, const std::string& displayName, std::uint32_t flags = 0x82) {
    tk::message record = interfaceRecord(id, displayName);
    record.insert_u32(0x10003, flags);
    return record;
}

/// The status of an interface.
inline tk::message statusRecord(std::uint32_t id, bool disabled, bool running) {
    tk::message record;
    record.insert_u32(0xFE0001, id);
    record.insert_bool(0xFE000A, disabled);
    record.insert_bool(0x1000E, running);
    return record;
}

/// The record of an address object.
inline tk::message addressRecord(std::uint32_t id, const char* address, std::uint32_t interface,
                                 bool disabled = false) {
    tk::message record;
    record.insert_u32(0xFE0001, id);
    record.insert_be32(1, inet_addr(address));
    record.insert_u32(5, interface);
    record.insert_bool(0xFE000A, disabled);
    return record;
}

/// A message that carries records.
inline tk::message carrying(std::vector<tk::message> records) {
    tk::message message;
    message.insert_message_array(0xFE0002, std::move(records));
    return message;
}

}  // namespace gateway
