#include "contract/addresses.h"

#include "tk/answer.h"
#include "tk/names.h"

namespace contract {

namespace {

namespace field = addressfield;

}  // namespace

tk::message AddressRecord::toMessage() const {
    tk::message record;
    record.insert_u32(tk::field::objectId, id);
    if (address) record.insert_be32(field::address, *address);
    record.insert_u32(field::interface, interface);
    record.insert_bool(tk::field::disabled, disabled);
    if (isDeleted) tk::markDeleted(record);
    return record;
}

AddressRecord AddressRecord::fromMessage(const tk::message& record) {
    AddressRecord out;
    out.id = record.get_u32(tk::field::objectId);
    // Only an absent field reads as each of two defaults.
    const std::uint32_t address = record.get_be32(field::address, 0);
    if (address == record.get_be32(field::address, 1)) out.address = address;
    out.interface = record.get_u32(field::interface, record.get_u32(field::actualInterface));
    out.disabled = record.get_bool(tk::field::disabled);
    out.isDeleted = record.get_u32(tk::field::deleted) != 0;
    return out;
}

}  // namespace contract
