#include "upnp/upnpicon.h"

#include "net/convert.h"

XMLNode UpnpIcon::buildDescription() const {
    XMLNode icon("icon");
    icon.addSubNode("mimetype", mimetype);
    icon.addSubNode("width", toString(static_cast<std::uint32_t>(width)));
    icon.addSubNode("height", toString(static_cast<std::uint32_t>(height)));
    icon.addSubNode("depth", toString(static_cast<std::uint32_t>(depth)));
    icon.addSubNode("url", url);
    return icon;
}
