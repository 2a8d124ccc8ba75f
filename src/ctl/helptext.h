#pragma once

#include <string>

#include <CLI/App.hpp>
#include <CLI/FormatterFwd.hpp>

namespace ctl {

/// The words of a command, for example "tkctl upnp interface remove".
[[nodiscard]] std::string wordsOf(const CLI::App& command);

/// The usage of a command, for example "tkctl upnp interface remove ID". A word that only comes before
/// commands is followed by COMMAND.
[[nodiscard]] std::string usageOf(const CLI::App& command);

/// The command, or the group of commands, with a name right below a word; null when there is none.
[[nodiscard]] const CLI::App* commandBelow(const CLI::App& word, const std::string& name);

/// The text of --help of a command, whichever command was given.
[[nodiscard]] std::string helpOf(const CLI::App& command);

/// The text of --help. Arguments are named as in the usage, and all commands below a word are in one list.
class HelpText final : public CLI::Formatter {
public:
    HelpText() { label("Positionals", "Arguments"); }

    /// The parts of the text, in the form that the parser asks for.
    std::string make_usage(const CLI::App* app, std::string name) const override;
    std::string make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const override;
    std::string make_footer(const CLI::App* app) const override;
    std::string make_option_name(const CLI::Option* option, bool isPositional) const override;
    std::string make_option_opts(const CLI::Option* option) const override;
};

}  // namespace ctl
