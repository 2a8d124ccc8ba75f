#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "contract/programs.h"
#include "firewall/flowlog.h"
#include "firewall/table.h"
#include "hub/activation.h"
#include "hub/hub.h"
#include "hub/listener.h"
#include "links/addresses.h"
#include "links/interfaceids.h"
#include "links/interfaces.h"
#include "links/linkswitch.h"
#include "links/monitor.h"
#include "links/rtnetlink.h"
#include "links/zones.h"
#include "nat/listeners.h"
#include "nat/policy.h"
#include "nat/routerports.h"
#include "nat/service.h"
#include "router/config.h"
#include "router/configfile.h"
#include "router/daemonguard.h"
#include "router/history.h"
#include "router/identity.h"
#include "tk/fd.h"
#include "tk/looper.h"
#include "tk/runner.h"
#include "tk/servicemanager.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace router {

/// Where the router finds and keeps its files.
struct Paths {
    std::string bus;
    std::string stores = contract::networkStores;

    /// The folder of the bus socket.
    std::string busFolder() const { return bus.substr(0, bus.rfind('/')); }
};

/// The whole of routerd: the hub, the services around it, and the programs that it starts.
class Router final : private hub::Reloader, private hub::ProgramWatcher {
public:
    /// `file`: where `initial` was read, and will be read again.
    /// Lifetime: the processes outlive the router.
    Router(ConfigFile file, const Config& initial, const Paths& paths, hub::Processes& processes);
    Router(const Router&) = delete;
    Router& operator=(const Router&) = delete;
    ~Router() override;

    /// Keeps SIGHUP, which would end the process, until the router is there to take it. Call it first of all.
    static void holdHangups();

    /// Prepares everything, and opens the bus last.
    /// Errors: when the kernel lacks something that is needed, or the system refuses.
    tk::Status start();
    /// Serves until SIGTERM or SIGINT. Then ends the programs that it started, serving them until they have
    /// ended, and finally removes all rules and the flows that are alive. The manager hears of all that.
    void run(const tk::ServiceManager& manager);

private:
    tk::Status openKernel();
    void turnWhile(const std::function<bool()>& condition, std::uint64_t milliseconds);

    // The configuration changes (router_reload.cpp).
    tk::Status watchHangups();
    void hungUp(int fd, std::uint32_t events);
    tk::Result<std::vector<std::string>> reload(const std::string& asker) override;
    tk::Result<std::vector<std::string>> readAgain();
    tk::Status follow(Config next);
    void programComes(std::uint32_t program, uid_t user) override;
    void programLeft() override;
    void keepRunners(const Config& next);
    void reviewRunners();
    [[nodiscard]] bool runs(const hub::UserRights& runner) const;
    void setRights();

    ConfigFile file;
    Config config;                               // in force
    std::vector<hub::UserRights> formerRunners;  // of programs that run as an earlier one said
    Paths paths;
    hub::Processes& processes;
    tk::SystemClock clock;
    hub::Hub hub;
    tk::Looper looper;
    links::RtNetlink kernel;
    firewall::Table table;
    DaemonGuard guard;
    links::Zones zones;
    links::InterfaceIds interfaceIds;
    links::LinkSwitch linkSwitch;
    links::Interfaces interfaces;
    links::Addresses addresses;
    nat::Policy policy;
    firewall::FlowLog flows;
    nat::SocketListeners listeners;
    nat::RouterPorts ports;
    nat::Service nat;
    Identity identity;
    History history;
    links::Monitor monitor;
    hub::Activation activation;
    hub::Listener listener;
    tk::Fd hangup;  // SIGHUP has come
    tk::Watch hangupWatch;
};

}  // namespace router
