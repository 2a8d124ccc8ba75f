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
    /// The handler that asks the bus, and that notifications go to.
    virtual tk::Handler& busHandler() = 0;
    /// True while UPnP is switched on.
    virtual bool isEnabled() const = 0;
    /// True when control points may disable an external interface.
    virtual bool allowsDisableExternal() const = 0;
    /// The router's identity, the suffix of every UDN.
    virtual const std::string& identity() const = 0;
    /// All items, in the order of their ids.
    virtual std::vector<RoleItem> roleItems() const = 0;
    /// The root of the device tree, into which external interfaces put theirs.
    virtual UpnpRootDevice& rootDevice() = 0;
    /// UPnP is being switched off: the services that stay without an interface let their subscribers go.
    virtual void dropRootSubscriptions() = 0;
};

}  // namespace gateway
