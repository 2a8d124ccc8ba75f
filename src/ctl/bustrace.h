#pragma once

#include "ctl/context.h"

namespace CLI {
class App;
}

namespace ctl {

/// Adds "bus trace".
void addBusTraceCommand(CLI::App& bus, Context& context);

}  // namespace ctl
