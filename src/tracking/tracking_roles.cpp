// Switching UPnP on and off as a whole, and what both roles share.

#include "tracking/tracking.h"

#include "contract/programs.h"
#include "tk/log.h"
#include "tk/looper.h"
#include "tk/names.h"

namespace gateway {

void Tracking::enable() {
    tk::log("enable");
    tk::getLooper()->setupLeave(0);
    tk::Handler& handler = host.busHandler();
    handler.subscribe(contract::path::interfaces(), tk::command::objectsChanged, {});
    handler.subscribe(contract::path::addresses(), tk::command::objectsChanged, {});
    updateDeviceStatus({});
    updateAddresses({});
    for (const RoleItem& item : host.roleItems())
        if (Device* device = deviceOf(item.interface)) startRole(device);
}

void Tracking::disable() {
    tk::log("disable");
    tk::getLooper()->setupLeave(leaveTicks);
    tk::Handler& handler = host.busHandler();
    handler.unsubscribe(contract::path::interfaces(), tk::command::objectsChanged, {});
    handler.unsubscribe(contract::path::addresses(), tk::command::objectsChanged, {});
    for (const RoleItem& item : host.roleItems())
        if (Device* device = deviceOf(item.interface)) stopRole(device);
    host.dropRootSubscriptions();
}

void Tracking::startRole(Device* device) {
    switch (device->type) {
        case Role::none:
            return;
        case Role::external:
            return startExt(device);
        case Role::internal:
            return startInt(device);
    }
}

void Tracking::stopRole(Device* device) {
    switch (device->startedAs) {
        case Role::none:
            return;
        case Role::external:
            return stopExt(device);
        case Role::internal:
            return stopInt(device);
    }
}

}  // namespace gateway
