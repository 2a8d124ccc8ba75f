// Addresses: the list, its changes, and which address an interface uses.

#include "tracking/tracking.h"

#include "contract/programs.h"
#include "net/convert.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/reget.h"

namespace gateway {

namespace {

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
    // Addresses that are gone stay in their devices' sets. On purpose.
    std::erase_if(addresses, [](const auto& entry) { return entry.second.stale; });
}

void Tracking::applyAddress(const tk::message& message) {
    const auto record = contract::AddressRecord::fromMessage(message);
    const auto known = addresses.find(record.id);
    if (record.isDeleted)
        deleteAddress(record);
    else if (known == addresses.end())
        addAddress(record);
    else
        changeAddress(known->second, record);
}

void Tracking::addAddress(const contract::AddressRecord& record) {
    const Addr added{record.address.value_or(0), record.interface, false, record.disabled};
    addresses[record.id] = added;
    logAddress(added.interface, " add address: ", added.address, record.id);
    setDeviceAddress(added.interface, added.address, !record.disabled);
}

void Tracking::changeAddress(Addr& stored, const contract::AddressRecord& record) {
    const Addr old = stored;
    Addr changed{record.address.value_or(old.address), record.interface, false, record.disabled};
    if (changed.interface == 0) changed.interface = old.interface;
    logAddress(changed.interface, " set address: ", changed.address, record.id);
    setDeviceAddress(changed.interface, changed.address, !record.disabled);
    if (changed.interface != old.interface || changed.address != old.address)
        setDeviceAddress(old.interface, old.address, false);
    stored = changed;
}

void Tracking::deleteAddress(const contract::AddressRecord& record) {
    const auto known = addresses.find(record.id);
    if (known == addresses.end() || record.disabled) return;
    const Addr old = known->second;
    logAddress(old.interface, " remove address: ", old.address, record.id);
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
    std::uint32_t choice = device->address;  // the one in use stays while it exists
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

}  // namespace gateway
