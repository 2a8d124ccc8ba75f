// The "upnp interface" items: which changes are accepted, and what they start and stop.

#include "core/gateway.h"

#include "tk/names.h"

namespace gateway {

void DevObj::getConfig(tk::message& out, std::uint32_t) const {
    const tk::message values = toMessage();
    for (const tk::message::Field& value : values.fields()) out.insert(value);
}

void DevObj::setConfig(const tk::message& in, std::uint32_t) {
    static_cast<RoleItem&>(*this) = fromMessage(in, *this);
}

std::vector<RoleItem> Gateway::roleItems() const {
    std::vector<RoleItem> items;
    forEach([&items](const DevObj& item) { items.push_back(item); });
    return items;
}

bool Gateway::isTaken(std::uint32_t interface, std::uint32_t exceptId) const {
    bool taken = false;
    forEach(
        [&](const DevObj& item) { taken = taken || (item.interface == interface && item.id != exceptId); });
    return taken;
}

tk::message Gateway::add(DevObj* item) {
    if (isTaken(item->interface, item->id)) return tk::errorMsg(tk::error::exists, "Interface already added");
    applyRole(*item);
    return {};
}

tk::message Gateway::load(DevObj* item) {
    if (isTaken(item->interface, item->id)) return tk::errorMsg(tk::error::exists, "Interface already added");
    return {};
}

tk::message Gateway::set(DevObj* old, DevObj* changed) {
    if (old->interface != changed->interface && isTaken(changed->interface, old->id))
        return tk::errorMsg(tk::error::exists, "Interface already set");
    dropRole(old->interface);  // also for the same interface: each edit announces it anew
    applyRole(*changed);
    return {};
}

tk::message Gateway::remove(DevObj* item) {
    dropRole(item->interface);
    return {};
}

void Gateway::applyRole(const DevObj& item) {
    Device* device = tracking.deviceOf(item.interface);
    if (!device || item.disabled) return;
    device->type = item.type;
    if (current.enabled) tracking.startRole(device);
}

void Gateway::dropRole(std::uint32_t interface) {
    Device* device = tracking.deviceOf(interface);
    if (!device) return;
    tracking.stopRole(device);
    device->type = Role::none;
}

}  // namespace gateway
