#pragma once

#include "upnp/upnpdevice.h"

namespace gateway {

/// The root of the device tree.
class UpnpRootDevice : public UpnpDevice {
public:
    using UpnpDevice::UpnpDevice;

    /// The element "root" of the whole description document. URLBase is added by whoever serves it.
    XMLNode buildDescription() const override;

    /// Adds the pair of the root device, then what every device adds.
    void collectAdvertTargets(AdvertTargets& targets) const override;
};

}  // namespace gateway
