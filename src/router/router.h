#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

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
#include "links/publicroutes.h"
#include "links/rtnetlink.h"
#include "links/zones.h"
#include "nat/listeners.h"
#include "nat/nat.h"
#include "nat/policy.h"
#include "nat/routerports.h"
#include "router/config.h"
#include "router/history.h"
#include "router/identity.h"
#include "tk/clock.h"
#include "tk/looper.h"

namespace router {

/// Where the router finds and keeps its files.
struct Paths {
    std::string bus;
    std::string stores = "/tesk/router";  // not the daemon's: what it writes must not become rules

    std::string busFolder() const { return bus.substr(0, bus.rfind('/')); }
};

/// The whole of routerd: the hub, the services around it, and the programs that it starts.
class Router final : private Activation::Owner, private ProgramWatcher {
public:
    /// Lifetime: the processes outlive the router.
    Router(const Config& config, const Paths& paths, Processes& processes);
    Router(const Router&) = delete;
    Router& operator=(const Router&) = delete;
    ~Router() override;

    /// Makes everything ready, and opens the bus last. Errors: false, with the reason in `reason`.
    [[nodiscard]] bool start(std::string& reason);
    /// Serves until SIGTERM or SIGINT; then ends the programs that were started, while it still serves them,
    /// and after them all rules, with the flows that are alive.
    void run();

private:
    void programComes(std::uint32_t program, uid_t user) override;
    void programEnded(std::uint32_t program, const std::string& how, bool hadRegistered) override;
    void startFailed(std::uint32_t program, const std::string& reason) override;
    void turnWhile(const std::function<bool()>& condition, std::uint64_t milliseconds);
    bool isAwaited(std::uint32_t program) const override { return hub.awaits(program); }

    Paths paths;
    std::vector<ProgramConfig> programs;
    std::vector<UserRights> users;
    tk::SystemClock clock;
    Hub hub;
    tk::Looper looper;
    RtNetlink kernel;
    NftTable table;
    Zones zones;
    InterfaceIds interfaceIds;
    LinkSwitch linkSwitch;
    Interfaces interfaces;
    Addresses addresses;
    NatPolicy policy;
    FlowLog flows;
    SocketListeners listeners;
    RouterPorts ports;
    Nat nat;
    Identity identity;
    History history;
    NetworkMonitor monitor;
    PublicRoutes routes;
    Activation activation;
    BusListener listener;
};

}  // namespace router
