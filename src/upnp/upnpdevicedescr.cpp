#include "upnp/upnpdevicedescr.h"

#include "net/convert.h"

namespace gateway {

XMLNode UpnpIcon::buildDescription() const {
    XMLNode icon("icon");
    icon.addSubNode("mimetype", mimetype);
    icon.addSubNode("width", toString(static_cast<std::uint32_t>(width)));
    icon.addSubNode("height", toString(static_cast<std::uint32_t>(height)));
    icon.addSubNode("depth", toString(static_cast<std::uint32_t>(depth)));
    icon.addSubNode("url", url);
    return icon;
}

UpnpServiceDescr::UpnpServiceDescr(const std::string& domain, const std::string& type, const std::string& id,
                                   const std::string& name)
    : serviceType("urn:schemas-" + domain + ":service:" + type),
      serviceId("urn:" + domain + ":serviceId:" + id),
      SCPDURL("/" + name + ".xml"),
      controlURL("/upnp/control/" + name),
      eventSubURL("/upnp/event/" + name) {}

XMLNode UpnpServiceDescr::buildDescription() const {
    XMLNode service("service");
    service.addSubNode("serviceType", serviceType);
    service.addSubNode("serviceId", serviceId);
    service.addSubNode("SCPDURL", SCPDURL);
    service.addSubNode("controlURL", controlURL);
    service.addSubNode("eventSubURL", eventSubURL);
    return service;
}

}  // namespace gateway
