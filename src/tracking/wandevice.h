#pragma once

#include <cstdint>
#include <string>

#include "upnp/upnpdevice.h"
#include "upnp/upnpdevicedescr.h"

namespace gateway {

/// Describes the device tree of one external interface. The trees of two interfaces differ by the interface's
/// id.

/// The unique device name of an interface's WANDevice, without "uuid:".
std::string wanDeviceUDN(const std::string& identity, std::uint32_t interface);

/// The entries of an interface's two services.
UpnpServiceDescr commonConfigDescr(std::uint32_t interface);
UpnpServiceDescr ipConnectionDescr(std::uint32_t interface);

/// The WANDevice of an interface with its service and, inside it, the WANConnectionDevice with the other
/// service.
UpnpDevice makeWanDevice(const std::string& identity, std::uint32_t interface);

}  // namespace gateway
