#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "contract/gateway.h"
#include "tk/handler.h"
#include "tracking/device.h"
#include "upnp/upnprootdevice.h"

namespace gateway {

using contract::RoleItem;

/// What tracking asks of the gateway above it.
class TrackingHost {
public:
    virtual ~TrackingHost() = default;
    /// The handler that sends requests to the bus and receives notifications.
    virtual tk::Handler& busHandler() = 0;
    /// True while UPnP is switched on.
    virtual bool isEnabled() const = 0;
    /// True when control points may disable an external interface.
    virtual bool allowsDisableExternal() const = 0;
    /// The router's identity: the suffix of each UDN.
    virtual const std::string& identity() const = 0;
    /// All items, in the order of their ids.
    virtual std::vector<RoleItem> roleItems() const = 0;
    /// The root of the device tree; external interfaces add their devices to it.
    virtual UpnpRootDevice& rootDevice() = 0;
    /// UPnP is being switched off: drops the subscribers of the services that belong to no interface.
    virtual void dropRootSubscriptions() = 0;
};

}  // namespace gateway
