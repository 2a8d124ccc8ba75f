#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "ctl/context.h"
#include "ctl/failure.h"

namespace CLI {
class App;
}

namespace ctl {

/// Adds a word that comes before commands, such as "upnp" in "tkctl upnp get", with the options that all
/// commands share.
/// Lifetime: the context outlives the parser.
CLI::App& addGroup(CLI::App& parent, Context& context, const std::string& name,
                   const std::string& description);

/// Adds a command with the options that all commands share. When the command is chosen, its `run` is stored
/// in the context.
/// Lifetime: the context outlives the parser.
CLI::App& addCommand(CLI::App& parent, Context& context, const std::string& name,
                     const std::string& description, std::function<void()> run);

/// Adds an example to a command: the arguments after its name. It is shown in the help, and when an argument
/// is missing.
void addExample(CLI::App& command, const std::string& arguments);

/// Parses the arguments after the program's name, runs the command, and returns how the program ends. The
/// reason for a failure goes to `errors`. Help goes to the context's output, and ends in Status::done.
[[nodiscard]] Status runCommandLine(std::vector<std::string> arguments, Context& context,
                                    std::ostream& errors);

}  // namespace ctl
