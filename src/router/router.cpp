#include "router/router.h"

#include <time.h>

#include <algorithm>

#include "contract/programs.h"
#include "tk/log.h"
#include "tk/names.h"

namespace router {

namespace {

constexpr std::uint64_t farewellMilliseconds = 5000;  // for started programs to end in
constexpr std::uint64_t lastFlowMilliseconds = 100;   // in which flows that are alive send a packet, and end

std::uint64_t secondsSince1970() {
    return static_cast<std::uint64_t>(::time(nullptr));
}

}  // namespace

Router::Router(const Config& config, const Paths& paths, Processes& processes)
    : paths(paths),
      programs(config.programs),
      users(config.users),
      looper(clock, hub, contract::program::network),
      table(config.guard, config.nat.checksTargets),
      zones(config.lan),
      interfaceIds(paths.stores + "/interfaces"),
      linkSwitch(config.interfaces, kernel, processes),
      interfaces(interfaceIds, kernel, zones, {linkSwitch, hub.requester()}),
      policy(zones, config.nat),
      ports(zones, listeners, config.nat.routerPorts),
      nat(paths.stores + "/nat", policy, ports, table, hub.requester()),
      identity(paths.stores + "/identity"),
      history(secondsSince1970),
      monitor(kernel, zones, interfaces, addresses),
      routes(kernel, zones),
      activation(config.programs, *this, processes),
      listener(hub) {
    interfaces.addWatcher(addresses);
    hub.addService(interfaces, {contract::program::network, 0});
    hub.addService(addresses, {contract::program::network, 1});
    hub.addService(nat, {contract::program::network, 5});
    hub.addService(history, {tk::program::history});
    hub.addService(identity, {contract::program::identity});
    hub.setStarter(&activation);
    hub.setAccess(Access(config.users));
    hub.setProgramWatcher(this);
}

Router::~Router() {
    hub.close();  // its connections leave the loop, which ends before the hub
}

bool Router::start(std::string& reason) {
    looper.watchSignals();
    if (!kernel.open(reason) || !flows.open(reason) || !table.open(reason) || !listeners.open(reason) ||
        !monitor.start(reason) || (zones.dependsOnRoutes() && !routes.start(reason)))
        return false;
    zones.start(table);
    for (const ProgramConfig& program : programs)
        if (program.user) programComes(program.number, program.user->uid);
    // Whoever may be the daemon is guarded before it is, and when it never comes.
    for (const UserRights& user : users)
        if (std::find(user.programs.begin(), user.programs.end(), contract::program::gateway) !=
            user.programs.end())
            programComes(contract::program::gateway, user.uid);
    nat.load();
    if (!table.endFlows(reason)) return false;
    if (!listener.open(paths.bus, reason)) return false;
    tk::log("routerd: serving ", paths.bus);
    activation.startConfigured();
    return true;
}

void Router::run() {
    looper.run();
    activation.endAll();
    turnWhile([this] { return activation.isRunning(); }, farewellMilliseconds);
    listener.close();  // a hub without services must not be found by anybody
    hub.close();
    nat.withdraw();
    turnWhile([] { return true; }, lastFlowMilliseconds);  // the table goes a moment after the last rule
}

void Router::turnWhile(const std::function<bool()>& condition, std::uint64_t milliseconds) {
    const std::uint64_t limit = clock.now() + milliseconds;
    while (condition() && clock.now() < limit) looper.turn(static_cast<int>(limit - clock.now()));
}

void Router::programComes(std::uint32_t program, uid_t user) {
    if (program == contract::program::gateway && user == 0)
        tk::log("program ", program, " runs as root: what it asks for is not checked, and nothing guards it");
    // Whoever was the daemon once stays guarded: leaving the bus sets nobody free.
    if (program == contract::program::gateway && user != 0) table.guardUser(user);
}

void Router::programEnded(std::uint32_t program, const std::string& how, bool hadRegistered) {
    std::string reason = "the program " + how + " before it came to the bus";
    // A program that left of its own accord is started again for what arrived after it had left the bus.
    if (hadRegistered && hub.awaits(program) && activation.start(program, reason)) return;
    hub.programFailed(program, reason);
}

void Router::startFailed(std::uint32_t program, const std::string& reason) {
    hub.programFailed(program, reason);
}

}  // namespace router
