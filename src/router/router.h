#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "router/activation.h"
#include "router/addresses.h"
#include "router/buslistener.h"
#include "router/config.h"
#include "router/flowflush.h"
#include "router/history.h"
#include "router/hub.h"
#include "router/identity.h"
#include "router/interfaceids.h"
#include "router/interfaces.h"
#include "router/nat.h"
#include "router/natpolicy.h"
#include "router/networkmonitor.h"
#include "router/nfttable.h"
#include "router/rtnetlink.h"
#include "router/uplinks.h"
#include "tk/clock.h"
#include "tk/looper.h"

namespace router {

/// Where the router finds and keeps its files.
struct Paths {
    std::string bus;
    std::string machineId = "/etc/machine-id";
    std::string stores = "/tesk/store";
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
    /// Serves until SIGTERM or SIGINT; then ends the programs that were started, while it still serves them.
    void run();

private:
    void programComes(std::uint32_t program, uid_t user) override;
    void programEnded(std::uint32_t program, const std::string& how, bool hadRegistered) override;

    Paths paths;
    std::vector<ProgramConfig> programs;
    tk::SystemClock clock;
    Hub hub;
    tk::Looper looper;
    RtNetlink kernel;
    NftTable table;
    InterfaceIds interfaceIds;
    Interfaces interfaces;
    Addresses addresses;
    NatPolicy policy;
    FlowFlush flows;
    Nat nat;
    Identity identity;
    History history;
    NetworkMonitor monitor;
    Uplinks uplinks;
    Activation activation;
    BusListener listener;
};

}  // namespace router
