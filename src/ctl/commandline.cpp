#include "ctl/commandline.h"

#include <errno.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include <CLI/CLI.hpp>

#include "ctl/commands.h"
#include "ctl/completion.h"
#include "ctl/helptext.h"
#include "ctl/nearestword.h"
#include "tk/characters.h"
#include "tk/log.h"
#include "tk/version.h"

namespace ctl {

namespace {

constexpr const char* purpose =
    "Administers the UPnP gateway of this router.\n"
    "Each command prints a table, or JSON with --json. Status 0: done, 1: refused or failed, 2: misuse.";

constexpr const char* hint = " (--help tells more)";

void addSharedOptions(CLI::App& app, Context& context) {
    app.add_flag("--json", context.json, "Print JSON instead of text for people");
    app.add_option("--socket", context.socketPath, "Socket of the bus, instead of " + context.socketPath)
        ->type_name("FILE")
        ->take_last()
        ->check([](const std::string& path) { return path.empty() ? "expected a FILE" : ""; });
}

Status fail(std::ostream& errors, const std::string& reason, Status status) {
    errors << "tkctl: " << tk::printable(reason) << '\n';
    return status;
}

/// The command that was given, or the last of the words that lead to one.
std::vector<const CLI::App*> givenWords(const CLI::App& app) {
    std::vector<const CLI::App*> words{&app};
    for (auto given = app.get_subcommands(); !given.empty(); given = words.back()->get_subcommands())
        words.push_back(given.front());
    return words;
}

/// The words that may follow another.
std::string commandsUnder(const CLI::App& word) {
    std::string names;
    for (const CLI::App* command : word.get_subcommands({}))
        names += (names.empty() ? "" : ", ") + command->get_name();
    return names;
}

std::string usageHint(const CLI::App& command) {
    const std::string usage = usageOf(command);
    const bool takesArguments = usage != wordsOf(command);
    const std::string& example = command.get_footer();
    return "; usage: " + usage + (takesArguments && !example.empty() ? "; " + example : "") + hint;
}

std::string suggestion(const std::string& word) {
    return "; did you mean '" + word + "'?" + hint;
}

std::string unknownOption(const CLI::App& word, const std::string& text) {
    std::vector<std::string> options;
    for (const CLI::Option* option : word.get_options())
        for (const std::string& name : option->get_lnames()) options.push_back("--" + name);
    const std::string nearest = nearestWord(text, options);
    return "unknown option '" + text + '\'' + (nearest.empty() ? hint : suggestion(nearest));
}

std::string unknownCommand(const CLI::App& word, const std::string& text) {
    std::vector<std::string> names;
    for (const CLI::App* command : word.get_subcommands({})) names.push_back(command->get_name());
    const std::string nearest = nearestWord(text, names);
    return "unknown command '" + text + '\'' +
           (nearest.empty() ? "; there are: " + commandsUnder(word) + hint : suggestion(nearest));
}

/// What is wrong with a word that nothing accepts.
std::string unexpected(const CLI::App& word, const std::string& text) {
    if (text.starts_with('-') && text != "-") return unknownOption(word, text);
    if (commandsUnder(word).empty()) return "unexpected argument '" + text + '\'' + usageHint(word);
    return unknownCommand(word, text);
}

/// Prints the help of the command that the words lead to.
void tellOf(const CLI::App& app, Context& context, const std::vector<std::string>& words) {
    const CLI::App* command = &app;
    for (const std::string& word : words) {
        const CLI::App* next = commandBelow(*command, word);
        if (!next) throw misuse(unexpected(*command, word));
        command = next;
    }
    context.out << helpOf(*command);
}

void addHelpCommand(CLI::App& app, Context& context) {
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App& command = addCommand(app, context, "help", "Tell about a command, as --help does",
                                   [&app, &context, words] { tellOf(app, context, *words); });
    addExample(command, "upnp set");
    command.add_option("command", *words, "The words of the command")->type_name("COMMAND");
}

void addAllCommands(CLI::App& app, Context& context) {
    addSetupCommand(app, context);
    addStatusCommand(app, context);
    addWatchCommand(app, context);
    addDoctorCommand(app, context);
    addReloadCommand(app, context);
    CLI::App& upnp = addGroup(app, context, "upnp",
                              "Settings of UPnP, the interfaces that it serves, and the ports that it maps");
    addUpnpCommands(upnp, context);
    addUpnpMappingsCommand(upnp, context);
    addUpnpItemCommands(upnp, context);
    addInterfaceCommands(app, context);
    addAddressCommands(app, context);
    addNatCommands(app, context);
    addHistoryCommands(app, context);
    CLI::App& bus = addGroup(app, context, "bus", "Messages between the router's programs, for developers");
    addBusCallCommand(bus, context);
    addBusTraceCommand(bus, context);
    addHelpCommand(app, context);
}

/// The argument that a command lacks.
std::optional<std::string> missingArgument(const CLI::App& command) {
    for (const CLI::Option* argument : command.get_options())
        if (argument->get_required() && argument->count() == 0)
            return argument->get_type_name() + " is missing" + usageHint(command);
    return std::nullopt;
}

/// What is wrong with the words of the command line, unless the fault lies elsewhere.
std::optional<std::string> misuseOf(const CLI::App& app) {
    const std::vector<const CLI::App*> words = givenWords(app);
    for (const CLI::App* word : words)
        if (const std::vector<std::string> left = word->remaining(); !left.empty())
            return unexpected(*word, left.front());
    return missingArgument(*words.back());
}

/// Flushes the answer, or says why that failed.
Status finish(Context& context, std::ostream& errors) {
    errno = 0;
    context.out.flush();
    if (context.out) return Status::done;
    return fail(errors, "cannot write the answer" + (errno == 0 ? "" : ": " + tk::errorText()),
                Status::failed);
}

Status runChosen(Context& context, std::ostream& errors) {
    try {
        context.run();
    } catch (const Failure& failure) {
        return fail(errors, failure.what(), failure.status);
    }
    const Status written = finish(context, errors);
    return written == Status::done ? context.status : written;
}

}  // namespace

CLI::App& addGroup(CLI::App& parent, Context& context, const std::string& name,
                   const std::string& description) {
    CLI::App& group = *parent.add_subcommand(name, description);
    addSharedOptions(group, context);
    group.require_subcommand(-1);  // at most one, so an argument may look like a command
    return group;
}

CLI::App& addCommand(CLI::App& parent, Context& context, const std::string& name,
                     const std::string& description, std::function<void()> run) {
    CLI::App& command = *parent.add_subcommand(name, description);
    addSharedOptions(command, context);
    command.callback([&context, run = std::move(run)] { context.run = run; });
    return command;
}

void addExample(CLI::App& command, const std::string& arguments) {
    command.footer("for example: " + wordsOf(command) + (arguments.empty() ? "" : ' ' + arguments));
}

Status runCommandLine(std::vector<std::string> arguments, Context& context, std::ostream& errors) {
    CLI::App app(purpose, "tkctl");
    app.formatter(std::make_shared<HelpText>());
    app.require_subcommand(-1);
    app.set_help_flag("-h,--help", "Print this text and end");
    app.set_version_flag("--version", tk::version(), "Print the version and end");
    addSharedOptions(app, context);
    addAllCommands(app, context);
    app.footer("tkctl COMMAND --help tells more about a command.");
    if (!arguments.empty() && arguments.front() == completionWord) {
        arguments.erase(arguments.begin());
        complete(app, context, std::move(arguments));
        return finish(context, errors);
    }
    try {
        std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the end
        app.parse(std::move(arguments));
    } catch (const CLI::Success& wanted) {
        const auto misuse = misuseOf(app);
        // "nonsense --help" has no help
        if (misuse && app.remaining_size(/*recurse=*/true) > 0) return fail(errors, *misuse, Status::misuse);
        app.exit(wanted, context.out, errors);  // help or version
        return finish(context, errors);
    } catch (const CLI::ParseError& error) {
        return fail(errors, misuseOf(app).value_or(error.what() + std::string(hint)), Status::misuse);
    }
    if (!context.run)
        return fail(errors, "expected one of: " + commandsUnder(*givenWords(app).back()) + hint,
                    Status::misuse);
    return runChosen(context, errors);
}

}  // namespace ctl
