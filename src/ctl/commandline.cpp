#include "ctl/commandline.h"

#include <algorithm>
#include <utility>

#include <CLI/CLI.hpp>

#include "ctl/addresses.h"
#include "ctl/buscall.h"
#include "ctl/bustrace.h"
#include "ctl/history.h"
#include "ctl/interfaces.h"
#include "ctl/nat.h"
#include "ctl/text.h"
#include "ctl/upnp.h"
#include "ctl/upnpitems.h"

namespace ctl {

namespace {

constexpr const char* purpose =
    "Administers the UPnP gateway of this router.\n"
    "Each command prints a table, or JSON with --json. Status 0: done, 1: refused or failed, 2: misuse.";

void addSharedOptions(CLI::App& app, Context& context) {
    app.add_flag("--json", context.json, "Print JSON instead of text for people");
    app.add_option("--socket", context.socketPath, "Socket of the bus, instead of " + context.socketPath)
        ->type_name("FILE");
}

void addAllCommands(CLI::App& app, Context& context) {
    CLI::App& upnp = addGroup(app, "upnp", "Settings of UPnP, and the interfaces that it serves");
    addInterfaceCommands(app, context);
    addAddressCommands(app, context);
    addUpnpCommands(upnp, context);
    addUpnpItemCommands(upnp, context);
    addNatCommands(app, context);
    addHistoryCommands(app, context);
    CLI::App& bus = addGroup(app, "bus", "The messages between the programs of the router, for developers");
    addBusCallCommand(bus, context);
    addBusTraceCommand(bus, context);
}

Status fail(std::ostream& errors, const std::string& reason, Status status) {
    errors << "tkctl: " << printable(reason) << '\n';
    return status;
}

/// The words that may follow those that were given.
std::string commandsBehind(const CLI::App& app) {
    const auto all = [](const CLI::App*) { return true; };
    const CLI::App* last = &app;
    for (auto given = app.get_subcommands(); !given.empty(); given = last->get_subcommands())
        last = given.front();
    std::string names;
    for (const CLI::App* command : last->get_subcommands(all))
        names += (names.empty() ? "" : ", ") + command->get_name();
    return names;
}

Status runChosen(Context& context, std::ostream& errors) {
    try {
        context.run();
    } catch (const Failure& failure) {
        return fail(errors, failure.what(), failure.status);
    }
    context.out.flush();
    return context.out ? Status::done : fail(errors, "cannot write the answer", Status::failed);
}

}  // namespace

CLI::App& addGroup(CLI::App& parent, const std::string& name, const std::string& description) {
    CLI::App& group = *parent.add_subcommand(name, description);
    group.require_subcommand(-1);  // at most one, so that arguments may be spelt like a command
    return group;
}

CLI::App& addCommand(CLI::App& parent, Context& context, const std::string& name,
                     const std::string& description, std::function<void()> run) {
    CLI::App& command = *parent.add_subcommand(name, description);
    addSharedOptions(command, context);
    command.callback([&context, run = std::move(run)] { context.run = run; });
    return command;
}

Status runCommandLine(std::vector<std::string> arguments, Context& context, std::ostream& errors) {
    CLI::App app(purpose, "tkctl");
    app.require_subcommand(-1);
    app.set_version_flag("--version", TKCTL_VERSION, "Print the version and end");
    addSharedOptions(app, context);
    addAllCommands(app, context);
    try {
        std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the back
        app.parse(std::move(arguments));
    } catch (const CLI::Success& wanted) {
        if (app.remaining_size(/*recurse=*/true) > 0)  // "nonsense --help": there is no help for that
            return fail(errors, "unknown: " + app.remaining(/*recurse=*/true).front(), Status::misuse);
        app.exit(wanted, context.out, errors);  // help or version
        return Status::done;
    } catch (const CLI::ParseError& error) {
        return fail(errors, std::string(error.what()) + " (--help tells more)", Status::misuse);
    }
    if (!context.run) return fail(errors, "expected one of: " + commandsBehind(app), Status::misuse);
    return runChosen(context, errors);
}

}  // namespace ctl
