#include "tracking/wandevice.h"

#include "net/convert.h"
#include "upnp/upnpdevicedescr.h"

namespace gateway {

namespace {

UpnpDeviceDescr describe(const char* deviceType, const char* friendlyName, const std::string& udn) {
    UpnpDeviceDescr descr;
    descr.deviceType = deviceType;
    descr.friendlyName = friendlyName;
    descr.UDN = udn;
    return descr;
}

std::string suffixOf(const std::string& identity, std::uint32_t interface) {
    return identity + "-" + toString(interface);
}

}  // namespace

std::string wanDeviceUDN(const std::string& identity, std::uint32_t interface) {
    return "UUID-VANTOREL-WAN-DEVICE-" + suffixOf(identity, interface);
}

UpnpServiceDescr commonConfigDescr(std::uint32_t interface) {
    return UpnpServiceDescr("upnp-org", "WANCommonInterfaceConfig:1", "WANCommonIFC1",
                            "wancommonifc-" + toString(interface));
}

UpnpServiceDescr ipConnectionDescr(std::uint32_t interface) {
    return UpnpServiceDescr("upnp-org", "WANIPConnection:1", "WANIPConn1",
                            "wanipconn-" + toString(interface));
}

UpnpDevice makeWanDevice(const std::string& identity, std::uint32_t interface) {
    UpnpDevice connection(describe("schemas-upnp-org:device:WANConnectionDevice:1", "WAN Connection Device",
                                   "UUID-VANTOREL-WAN-CONNECTION-DEVICE-" + suffixOf(identity, interface)));
    connection.services.push_back(ipConnectionDescr(interface));
    UpnpDevice wan(
        describe("schemas-upnp-org:device:WANDevice:1", "WAN Device", wanDeviceUDN(identity, interface)));
    wan.services.push_back(commonConfigDescr(interface));
    wan.devices.push_back(connection);
    return wan;
}

}  // namespace gateway
