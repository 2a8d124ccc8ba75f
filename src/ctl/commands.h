#pragma once

namespace CLI {
class App;
}

/// The commands of tkctl, each group in a source of its own.
namespace ctl {

class Context;

// Each function adds its commands below a word. The context outlives the parser.

/// Adds "status".
void addStatusCommand(CLI::App& app, Context& context);
/// Adds "watch".
void addWatchCommand(CLI::App& app, Context& context);
/// Adds "interface list".
void addInterfaceCommands(CLI::App& app, Context& context);
/// Adds "address list".
void addAddressCommands(CLI::App& app, Context& context);
/// Adds "get" and "set", below "upnp".
void addUpnpCommands(CLI::App& upnp, Context& context);
/// Adds "interface list", "add", "set" and "remove", below "upnp".
void addUpnpItemCommands(CLI::App& upnp, Context& context);
/// Adds "mappings", below "upnp".
void addUpnpMappingsCommand(CLI::App& upnp, Context& context);
/// Adds "nat list" and "nat test".
void addNatCommands(CLI::App& app, Context& context);
/// Adds "setup".
void addSetupCommand(CLI::App& app, Context& context);
/// Adds "history list" and "history undo".
void addHistoryCommands(CLI::App& app, Context& context);
/// Adds "reload".
void addReloadCommand(CLI::App& app, Context& context);
/// Adds "doctor".
void addDoctorCommand(CLI::App& app, Context& context);
/// Adds "call", below "bus".
void addBusCallCommand(CLI::App& bus, Context& context);
/// Adds "trace", below "bus".
void addBusTraceCommand(CLI::App& bus, Context& context);

/// Prints what "status" prints, also where the router does not answer.
/// Errors: throws Failure then.
void showStatus(Context& context);

}  // namespace ctl
