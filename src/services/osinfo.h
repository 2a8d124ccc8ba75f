#pragma once

#include "upnp/service.h"

namespace gateway {

/// The service that tells control points what the router is: four variables and no action.
class OSInfo final : public Service {
public:
    /// Reads the machine's name, which stays as it is from now on; empty when it is not a short one.
    OSInfo();
};

}  // namespace gateway
