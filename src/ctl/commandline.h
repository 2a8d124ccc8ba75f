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

/// Adds a word that stands in front of commands, such as "upnp" in "tkctl upnp get", with the options that
/// all commands share.
/// Lifetime: the context outlives the parser.
CLI::App& addGroup(CLI::App& parent, Context& context, const std::string& name,
                   const std::string& description);

/// Adds a command, with the options that all commands share. `run` is kept in the context when the command is
/// chosen.
/// Lifetime: the context outlives the parser.
CLI::App& addCommand(CLI::App& parent, Context& context, const std::string& name,
                     const std::string& description, std::function<void()> run);

/// Gives a command an example, shown in its help and when an argument is missing: what stands behind its
/// name.
void addExample(CLI::App& command, const std::string& arguments);

/// Parses the arguments behind the program's name, runs the command, and writes the reason of a failure to
/// `errors`. Returns how the program ends; help goes to the context's output and is done.
[[nodiscard]] Status runCommandLine(std::vector<std::string> arguments, Context& context,
                                    std::ostream& errors);

}  // namespace ctl
