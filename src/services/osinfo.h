#pragma once

#include "upnp/service.h"

namespace gateway {

/// Tells control points what the router is: four variables and no action.
class OSInfo final : public Service {
public:
    /// Reads the machine's name once; a name that is too long reads as empty.
    OSInfo();
};

}  // namespace gateway
