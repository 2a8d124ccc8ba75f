#pragma once

#include "ctl/context.h"

namespace CLI {
class App;
}

namespace ctl {

/// Adds "history list" and "history undo".
void addHistoryCommands(CLI::App& app, Context& context);

}  // namespace ctl
