#pragma once

#include "upnp/upnpdevice.h"

namespace gateway {

/// The root of the device tree.
class UpnpRootDevice : public UpnpDevice {
public:
    using UpnpDevice::UpnpDevice;

    /// The element "root" of the whole description document. Whoever serves it adds URLBase.
    XMLNode buildDescription() const override;

    /// Adds the root device's own pair, then what every device adds.
    void collectAdvertTargets(AdvertTargets& targets) const override;
};

}  // namespace gateway
