#include "upnp/upnprootdevice.h"

#include <utility>

namespace gateway {

XMLNode UpnpRootDevice::buildDescription() const {
    XMLNode version("specVersion");
    version.addSubNode("major", "1");
    version.addSubNode("minor", "0");
    XMLNode root("root");
    root.addProperty("xmlns", "urn:schemas-upnp-org:device-1-0");
    root.addSubNode(std::move(version));
    root.addSubNode(UpnpDevice::buildDescription());
    return root;
}

void UpnpRootDevice::collectAdvertTargets(AdvertTargets& targets) const {
    targets.emplace("upnp:rootdevice", "uuid:" + UDN + "::upnp:rootdevice");
    UpnpDevice::collectAdvertTargets(targets);
}

}  // namespace gateway
