#pragma once

#include "ctl/context.h"

namespace CLI {
class App;
}

namespace ctl {

/// Adds "bus call".
void addBusCallCommand(CLI::App& bus, Context& context);

}  // namespace ctl
