#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "xml/xmlnode.h"

namespace gateway {

/// One entry of a device's icon list.
struct UpnpIcon {
    std::string mimetype;
    std::int32_t width = 0;   // pixels
    std::int32_t height = 0;  // pixels
    std::int32_t depth = 0;   // bits of colour
    std::string url;          // path on the daemon's HTTP server

    /// The element "icon". Its three numbers are written as unsigned ones.
    XMLNode buildDescription() const;
};

/// The entry of one service in a device description.
struct UpnpServiceDescr {
    /// Derives all fields from four texts: for example "upnp-org", "WANIPConnection:1", "WANIPConn1", and
    /// "wanipconn-7", the component that its three paths share.
    UpnpServiceDescr(const std::string& domain, const std::string& type, const std::string& id,
                     const std::string& name);

    std::string serviceType;  // urn:schemas-upnp-org:service:WANIPConnection:1
    std::string serviceId;    // urn:upnp-org:serviceId:WANIPConn1
    std::string SCPDURL;      // /wanipconn-7.xml
    std::string controlURL;   // /upnp/control/wanipconn-7
    std::string eventSubURL;  // /upnp/event/wanipconn-7

    /// The element "service".
    XMLNode buildDescription() const;
};

/// The maker's web address, shown by control points.
constexpr const char* manufacturerAddress = "http://www.vantorel.example/";

/// The descriptive texts of one device. Unless noted, an empty one is left out of the description.
struct UpnpDeviceDescr {
    std::string deviceType;                 // without "urn:", always written
    std::string friendlyName;               // always written
    std::string manufacturer = "Vantorel";  // always written
    std::string manufacturerURL = manufacturerAddress;
    std::string modelDescription;
    std::string modelName = "Quillnet";  // always written
    std::string modelNumber;
    std::string modelURL;
    std::string serialNumber;
    std::string UDN;  // without "uuid:", always written
    std::string UPC;
    std::list<UpnpIcon> icons;
    std::string presentationURL;
};

}  // namespace gateway
