#pragma once

#include <cstdint>
#include <string>

#include "upnp/upnpdevice.h"
#include "upnp/upnpdevicedescr.h"

namespace gateway {

/// The device tree of one external interface: its descriptions, which differ between interfaces by the
/// interface's id.

/// The unique device name of an interface's WANDevice, without "uuid:".
std::string wanDeviceUDN(const std::string& identity, std::uint32_t interface);

/// The entries of an interface's two services.
UpnpServiceDescr commonConfigDescr(std::uint32_t interface);
UpnpServiceDescr ipConnectionDescr(std::uint32_t interface);

/// The WANDevice of an interface, with its service and, inside, the WANConnectionDevice with the other one.
UpnpDevice makeWanDevice(const std::string& identity, std::uint32_t interface);

}  // namespace gateway
