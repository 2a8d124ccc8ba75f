#pragma once

#include <string>

#include "xml/xmlnode.h"

/// The entry of one service in a device description.
struct UpnpServiceDescr {
    /// Derives all fields: for example of "upnp-org", "WANIPConnection:1", "WANIPConn1" and the one component
    /// that is common to its three paths, "wanipconn-7".
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
