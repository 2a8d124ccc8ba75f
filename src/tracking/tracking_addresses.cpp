// Addresses: the list, its changes, and which of them an interface uses.

#include "contract/addresses.h"
#include "contract/programs.h"
#include "net/convert.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/reget.h"
#include "tracking/getall.h"
#include "tracking/tracking.h"

namespace {

std::uint32_t interfaceOf(const tk::message& record) {
    return record.get_u32(contract::addressfield::interface,
                          record.get_u32(contract::addressfield::actualInterface));
}

bool isActive(const tk::message& record) {
    return !record.get_bool(tk::field::disabled);
}

void logAddress(std::uint32_t interface, const char* what, std::uint32_t address, std::uint32_t id) {
    tk::log("dev: ", interface, what, ipToString(address), " (", id, ")");
}

}  // namespace

void Tracking::updateAddresses(const tk::message& msg) {
    if (msg.size_message_array(tk::field::objects) == 0) return walkAddresses();
    for (const tk::message& record : msg.get_message_array(tk::field::objects)) applyAddress(record);
}

void Tracking::walkAddresses() {
    for (auto& [id, addr] : addresses) addr.stale = true;
    tk::FullReget walk;
    walk.setBase(getAllFrom(contract::path::addresses()));
    while (!walk.isEmpty()) applyAddress(walk.pop());
    // Those that are gone stay in their devices' sets. On purpose.
    std::erase_if(addresses, [](const auto& entry) { return entry.second.stale; });
}

void Tracking::applyAddress(const tk::message& record) {
    const std::uint32_t id = record.get_u32(tk::field::objectId);
    const auto known = addresses.find(id);
    if (record.get_u32(tk::field::deleted) != 0)
        deleteAddress(id, record);
    else if (known == addresses.end())
        addAddress(id, record);
    else
        changeAddress(id, known->second, record);
}

void Tracking::addAddress(std::uint32_t id, const tk::message& record) {
    const Addr added{record.get_be32(contract::addressfield::address), interfaceOf(record), false,
                     !isActive(record)};
    addresses[id] = added;
    logAddress(added.interface, " add address: ", added.address, id);
    setDeviceAddress(added.interface, added.address, isActive(record));
}

void Tracking::changeAddress(std::uint32_t id, Addr& stored, const tk::message& record) {
    const Addr old = stored;
    Addr changed{record.get_be32(contract::addressfield::address, old.address), interfaceOf(record), false,
                 !isActive(record)};
    if (changed.interface == 0) changed.interface = old.interface;
    logAddress(changed.interface, " set address: ", changed.address, id);
    setDeviceAddress(changed.interface, changed.address, isActive(record));
    if (changed.interface != old.interface || changed.address != old.address)
        setDeviceAddress(old.interface, old.address, false);
    stored = changed;
}

void Tracking::deleteAddress(std::uint32_t id, const tk::message& record) {
    const auto known = addresses.find(id);
    if (known == addresses.end() || !isActive(record)) return;
    const Addr old = known->second;
    logAddress(old.interface, " remove address: ", old.address, id);
    setDeviceAddress(old.interface, old.address, false);
    addresses.erase(known);
}

void Tracking::setDeviceAddress(std::uint32_t interface, std::uint32_t address, bool add) {
    Device* device = deviceOf(interface);
    if (!device) return;
    if (add)
        device->addresses.insert(address);
    else
        device->addresses.erase(address);
    std::uint32_t choice = device->address;  // the one in use stays as long as it is there
    if (!device->addresses.contains(choice))
        choice = device->addresses.empty() ? 0 : *device->addresses.begin();
    if (choice == device->address) return;
    tk::log("dev: ", interface, " ip: ", ipToString(choice));
    moveTo(device, choice);
}

void Tracking::moveTo(Device* device, std::uint32_t address) {
    if (host.isEnabled() && device->type == Role::external && device->ipConnection)
        device->ipConnection->setExternalAddress(address);
    const bool restarts = host.isEnabled() && device->type == Role::internal;
    if (restarts) stopInt(device);
    device->address = address;
    if (restarts && address != 0) startInt(device);
}
