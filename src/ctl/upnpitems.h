#pragma once

#include "ctl/context.h"

namespace CLI {
class App;
}

namespace ctl {

/// Adds "upnp interface list", "add", "set" and "remove": the items that give interfaces their role.
void addUpnpItemCommands(CLI::App& upnp, Context& context);

}  // namespace ctl
