#pragma once

#include "ctl/context.h"

namespace CLI {
class App;
}

namespace ctl {

/// Adds "nat list" and "nat test".
void addNatCommands(CLI::App& app, Context& context);

}  // namespace ctl
