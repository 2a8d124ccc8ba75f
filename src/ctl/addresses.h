#pragma once

#include "ctl/context.h"

namespace CLI {
class App;
}

namespace ctl {

/// Adds "address list".
void addAddressCommands(CLI::App& app, Context& context);

}  // namespace ctl
