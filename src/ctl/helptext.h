#pragma once

#include <string>

#include <CLI/App.hpp>
#include <CLI/FormatterFwd.hpp>

namespace ctl {

/// The words that lead to a command and its own, for example "tkctl upnp interface remove".
[[nodiscard]] std::string wordsOf(const CLI::App& command);

/// How a command is called, for example "tkctl upnp interface remove ID"; a word that only stands in front of
/// commands has COMMAND behind it.
[[nodiscard]] std::string usageOf(const CLI::App& command);

/// The text of --help: arguments are named as in the usage, and all commands below a word stand in one list.
class HelpText final : public CLI::Formatter {
public:
    HelpText() { label("Positionals", "Arguments"); }

    std::string make_usage(const CLI::App* app, std::string name) const override;
    std::string make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const override;
    std::string make_footer(const CLI::App* app) const override;
    std::string make_option_name(const CLI::Option* option, bool isPositional) const override;
    std::string make_option_opts(const CLI::Option* option) const override;
};

}  // namespace ctl
