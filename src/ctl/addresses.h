#pragma once

namespace CLI {
class App;
}

namespace ctl {

class Context;

/// Adds "address list".
void addAddressCommands(CLI::App& app, Context& context);

}  // namespace ctl
