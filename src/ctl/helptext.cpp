#include "ctl/helptext.h"

#include <sstream>

#include <CLI/CLI.hpp>

namespace ctl {

namespace {

constexpr std::size_t column = 26;  // where the descriptions of commands begin

std::string placeholder(const CLI::Option& argument) {
    std::string text = argument.get_type_name();
    if (argument.get_expected_max() >= CLI::detail::expected_max_vector_size) text += "...";
    return argument.get_required() ? text : '[' + text + ']';
}

/// Lists the commands below a word. `words` lead from the requested word to this one.
void listCommands(std::ostream& out, const CLI::App& app, const std::string& words) {
    for (const CLI::App* command : app.get_subcommands({})) {
        const std::string called = words + command->get_name();
        if (command->get_subcommands({}).empty())
            CLI::detail::format_help(out, called, command->get_description(), column);
        else
            listCommands(out, *command, called + ' ');
    }
}

}  // namespace

std::string wordsOf(const CLI::App& command) {
    const CLI::App* parent = command.get_parent();
    return parent ? wordsOf(*parent) + ' ' + command.get_name() : command.get_name();
}

std::string usageOf(const CLI::App& command) {
    std::string text = wordsOf(command);
    for (const CLI::Option* argument :
         command.get_options([](const CLI::Option* o) { return o->get_positional(); }))
        text += ' ' + placeholder(*argument);
    return command.get_subcommands({}).empty() ? text : text + " COMMAND";
}

const CLI::App* commandBelow(const CLI::App& word, const std::string& name) {
    for (const CLI::App* command : word.get_subcommands({}))
        if (command->get_name() == name) return command;
    return nullptr;
}

std::string helpOf(const CLI::App& command) {
    return command.get_formatter()->make_help(&command, "", CLI::AppFormatMode::Normal);
}

std::string HelpText::make_usage(const CLI::App* app, std::string) const {
    return "\nUsage: " + usageOf(*app) + " [OPTIONS]\n";
}

std::string HelpText::make_subcommands(const CLI::App* app, CLI::AppFormatMode) const {
    std::ostringstream out;
    listCommands(out, *app, "");
    return out.str().empty() ? "" : "\nCommands:\n" + out.str();
}

std::string HelpText::make_footer(const CLI::App* app) const {
    return app->get_footer().empty() ? "" : app->get_footer() + '\n';
}

std::string HelpText::make_option_name(const CLI::Option* option, bool isPositional) const {
    return isPositional ? placeholder(*option) : option->get_name(/*positional=*/false, /*all_options=*/true);
}

std::string HelpText::make_option_opts(const CLI::Option* option) const {
    if (option->get_positional() || option->get_type_size() == 0) return {};
    const std::string initial = option->get_default_str();
    return ' ' + option->get_type_name() + (initial.empty() ? "" : " (else " + initial + ')');
}

}  // namespace ctl
