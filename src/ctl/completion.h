#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace ctl {

class Context;

/// The first argument with which the shells' completion calls tkctl. It is in no list of commands.
constexpr const char* completionWord = "__complete";

/// Prints what may stand in place of the last word, one to a line, with a tabulator and what it means where
/// that is known. What is offered comes from the same descriptions as the help, and the names of interfaces
/// from the router; a router that does not answer offers none.
void complete(const CLI::App& app, Context& context, std::vector<std::string> words);

}  // namespace ctl
