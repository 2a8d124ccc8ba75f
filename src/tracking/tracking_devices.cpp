// Interfaces: the list, its changes, and their status.

#include "tracking/tracking.h"

#include <stdlib.h>

#include <utility>

#include "contract/programs.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/reget.h"

namespace gateway {

namespace {

constexpr std::uint32_t statusWalkTimeout = 3000;  // milliseconds

std::string displayNameOf(const contract::InterfaceRecord& record) {
    return record.displayName.value_or("");
}

}  // namespace

void Tracking::getDevices() {
    if (!host.isEnabled())
        return host.busHandler().unsubscribe(contract::path::interfaces(), contract::interfaceChanged, {});
    clearDevices();
    host.busHandler().subscribe(contract::path::interfaces(), contract::interfaceChanged, {});
    tk::PageTrail trail;
    std::uint32_t next = tk::unassigned;
    do {
        tk::message request;
        request.insert_u32_array(tk::field::destination, contract::path::interfaces());
        if (next != tk::unassigned) request.insert_u32(tk::field::next, next);
        const tk::message reply =
            host.busHandler().exchangeCmd(request, contract::listInterfaces, tk::exchangeTimeout);
        if (!reply.has_array(tk::field::objects))
            tk::log("device::CMD_GETDEVS failed: ", tk::getError(reply));
        for (const tk::message& record : reply.get_message_array(tk::field::objects)) deviceChanged(record);
        next = reply.get_u32(tk::field::next, tk::unassigned);
    } while (trail.goesOn(next));
}

void Tracking::clearDevices() {
    for (auto& [id, device] : devices) {
        stopRole(device.get());
        if (server.hasConnections(*device)) retired.push_back(std::move(device));
    }
    devices.clear();
}

void Tracking::connectionEnded(const Device& device) {
    if (retired.empty() || server.hasConnections(device)) return;
    std::erase_if(retired, [&device](const auto& candidate) { return candidate.get() == &device; });
}

void Tracking::deviceChanged(const tk::message& message) {
    const auto record = contract::InterfaceRecord::fromMessage(message);
    const auto entry = devices.find(record.id);
    if (record.isGone()) {
        tk::log("rem dev: ", displayNameOf(record));
        if (entry != devices.end()) removeDevice(entry);
        return;
    }
    if (entry == devices.end()) return addDevice(record);
    tk::log("set dev: ", displayNameOf(record), " (", record.id, ")");
    entry->second->record = record;
}

void Tracking::removeDevice(Devices::iterator entry) {
    stopRole(entry->second.get());
    server.dropConnections(*entry->second);
    devices.erase(entry);
}

void Tracking::addDevice(const contract::InterfaceRecord& record) {
    tk::log("add dev: ", displayNameOf(record));
    auto device = std::make_unique<Device>(*this);
    device->record = record;
    const std::uint32_t id = record.id;
    for (const auto& [addressId, addr] : addresses)
        if (addr.interface == id && !addr.disabled) device->addresses.insert(addr.address);
    if (!device->addresses.empty()) device->address = *device->addresses.begin();
    for (const RoleItem& item : host.roleItems()) {
        if (item.interface != id) continue;
        device->type = item.type;
        tk::log("set type: ", static_cast<std::uint32_t>(item.type), " ", id);
        if (host.isEnabled()) startRole(device.get());
    }
    devices[id] = std::move(device);
}

void Tracking::updateDeviceStatus(const tk::message& msg) {
    if (msg.size_message_array(tk::field::objects) > 0) {
        for (const tk::message& record : msg.get_message_array(tk::field::objects)) applyDeviceStatus(record);
        return;
    }
    tk::FullReget walk;
    walk.timeout = statusWalkTimeout;
    walk.setBase(getAllFrom(contract::path::interfaces()));
    while (!walk.isEmpty()) applyDeviceStatus(walk.pop());
}

void Tracking::applyDeviceStatus(const tk::message& message) {
    const auto record = contract::InterfaceRecord::fromMessage(message);
    Device* device = deviceOf(record.id);
    if (!device) return;
    device->disabled = record.disabled.value_or(device->disabled);
    device->running = record.running.value_or(device->running);
    tk::log("dev: ", record.id, " disabled: ", device->disabled, " running: ", device->running);
    if (device->ipConnection) device->ipConnection->setConnectionStatus(device->connectionStatus());
}

Device* Tracking::deviceOf(std::uint32_t interface) const {
    const auto entry = devices.find(interface);
    return entry == devices.end() ? nullptr : entry->second.get();
}

Device* Tracking::findDevice(int socket) const {
    for (const auto& [id, device] : devices)
        if (device->ssdpSocket == socket) return device.get();
    tk::log("findDevice fatal error");
    ::exit(1);
}

Device* Tracking::findListener(int socket) const {
    for (const auto& [id, device] : devices)
        if (device->httpSocket == socket) return device.get();
    return nullptr;
}

}  // namespace gateway
