#include "router/router.h"

#include <time.h>

#include <utility>

#include "contract/programs.h"
#include "tk/log.h"

namespace router {

namespace {

constexpr std::uint64_t farewellMilliseconds = 5000;  // for started programs to end
constexpr std::uint64_t lastFlowMilliseconds = 100;   // for live flows to send a packet, and so end

std::uint64_t secondsSince1970() {
    return static_cast<std::uint64_t>(::time(nullptr));
}

}  // namespace

Router::Router(ConfigFile file, const Config& initial, const Paths& paths, hub::Processes& processes)
    : file(std::move(file)),
      config(initial),
      paths(paths),
      processes(processes),
      looper(clock, hub, contract::program::network),
      table(config.guard, config.nat.checksTargets),
      guard([this](uid_t user) { table.guardUser(user); }),
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
      activation(config.programs, hub, processes),
      listener(hub) {
    interfaces.addWatcher(addresses);
    hub.addService(interfaces, contract::path::interfaces());
    hub.addService(addresses, contract::path::addresses());
    hub.addService(nat, contract::path::nat());
    hub.addService(history, contract::path::history());
    hub.addService(identity, contract::path::identity());
    table.setOwner(nat);
    hub.setProgramWatcher(this);
    hub.setReloader(this);
    activation.setEndWatcher([this] { reviewRunners(); });
}

Router::~Router() {
    hub.close();  // its connections leave the loop, which ends before the hub
}

tk::Status Router::start() {
    looper.watchSignals();
    if (tk::Status watched = watchHangups(); !watched.isOk()) return watched;
    if (tk::Status opened = openKernel(); !opened.isOk()) return opened;
    zones.start(table);
    setRights();
    nat.load();
    if (tk::Status ended = table.endFlows(); !ended.isOk()) return ended;
    if (tk::Status opened = listener.open(paths.bus); !opened.isOk()) return opened;
    tk::log("routerd: serving ", paths.bus);
    activation.startConfigured();
    return {};
}

/// Opens everything between the router and the kernel, in the order in which one part needs another.
tk::Status Router::openKernel() {
    if (tk::Status opened = kernel.open(); !opened.isOk()) return opened;
    if (tk::Status opened = flows.open(); !opened.isOk()) return opened;
    if (tk::Status opened = table.open(); !opened.isOk()) return opened;
    if (tk::Status opened = listeners.open(); !opened.isOk()) return opened;
    return monitor.start();
}

void Router::run(const tk::ServiceManager& manager) {
    const tk::ServiceManager::Watchdog watchdog(manager);
    manager.tellReady("serving " + paths.bus);
    looper.run();
    manager.tellStopping();
    activation.endAll();
    turnWhile([this] { return activation.isRunning(); }, farewellMilliseconds);
    listener.close();  // nobody must find a hub without services
    hub.close();
    nat.withdraw();
    turnWhile([] { return true; }, lastFlowMilliseconds);  // the table goes a moment after the last rule
}

void Router::turnWhile(const std::function<bool()>& condition, std::uint64_t milliseconds) {
    const std::uint64_t limit = clock.now() + milliseconds;
    while (condition() && clock.now() < limit) looper.turn(static_cast<int>(limit - clock.now()));
}

}  // namespace router
