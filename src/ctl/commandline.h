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

/// Adds a word that stands in front of commands, such as "upnp" in "tkctl upnp get".
CLI::App& addGroup(CLI::App& parent, const std::string& name, const std::string& description);

/// Adds a command, with the options that all commands share. `run` is kept in the context when the command is
/// chosen. Lifetime: the context outlives the parser.
CLI::App& addCommand(CLI::App& parent, Context& context, const std::string& name,
                     const std::string& description, std::function<void()> run);

/// Parses the arguments behind the program's name, runs the command, and writes the reason of a failure to
/// `errors`. Returns how the program ends; help goes to the context's output and is done.
[[nodiscard]] Status runCommandLine(std::vector<std::string> arguments, Context& context,
                                    std::ostream& errors);

}  // namespace ctl
