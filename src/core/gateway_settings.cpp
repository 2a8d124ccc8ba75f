// The three settings, and the notifications of the router.

#include "core/gateway.h"

#include "contract/interfaces.h"
#include "contract/programs.h"
#include "tk/names.h"

namespace gateway {

namespace {

constexpr std::uint32_t settingsEntry = 0;  // the settings store's only entry

}  // namespace

void Gateway::loadSettings() {
    if (settings.find(settingsEntry))
        current = contract::Settings::fromMessage(settings.get(settingsEntry), current);
}

tk::message Gateway::getObject(std::uint32_t id) {
    return id == tk::unassigned ? current.toMessage() : Map::getObject(id);
}

tk::message Gateway::cmdGet(const tk::message&) {
    return getObject(tk::unassigned);
}

tk::message Gateway::cmdSet(const tk::message& request) {
    tk::message undo;
    undo.insert_u32(tk::field::command, tk::command::set);
    const tk::message before = current.toMessage();
    for (const tk::message::Field& value : before.fields()) undo.insert(value);

    // Stored as received, even when incomplete: what is missing reads as the default at the next start.
    if (const tk::Status stored = settings.set(settingsEntry, request); !stored.isOk())
        return tk::errorMsg(tk::error::failed, stored.reason());
    const bool wasEnabled = current.enabled;
    current = contract::Settings::fromMessage(request, current);

    if (current.enabled != wasEnabled) {
        tracking.getDevices();
        if (current.enabled)
            tracking.enable();
        else
            tracking.disable();
    }
    if (current.enabled) tellServices();
    notifyChange(tk::unassigned, request);
    sendUndo(request, undo, "upnp config changed");
    return {};
}

void Gateway::tellServices() {
    for (const RoleItem& item : roleItems()) {
        const Device* device = tracking.deviceOf(item.interface);
        if (!device || device->type != Role::external || !device->ipConnection) continue;
        device->ipConnection->allowDisableExternal = current.allowDisableExternal;
        device->ipConnection->setShowDummyRule(current.showDummyRule);
    }
}

tk::message Gateway::cmdUnknown(const tk::message& received, std::uint32_t command) {
    const bool isNotification = tk::kindOf(received) == tk::Kind::notification;
    if (!isNotification) return Map::cmdUnknown(received, command);  // a request must not pass for one
    if (command == contract::interfaceChanged) {
        tracking.deviceChanged(received);
        return {};
    }
    if (command != tk::command::objectsChanged) return Map::cmdUnknown(received, command);
    const tk::Path& from = received.get_u32_array(tk::field::sender);
    if (from == contract::path::interfaces())
        tracking.updateDeviceStatus(received);
    else if (from == contract::path::addresses())
        tracking.updateAddresses(received);
    return {};
}

}  // namespace gateway
