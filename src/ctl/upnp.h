#pragma once

#include "ctl/context.h"

namespace CLI {
class App;
}

namespace ctl {

/// Adds "upnp get" and "upnp set", the settings of the gateway.
void addUpnpCommands(CLI::App& upnp, Context& context);

}  // namespace ctl
