#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "contract/gateway.h"
#include "contract/interfaces.h"
#include "contract/mappings.h"
#include "ctl/json.h"
#include "ctl/mappings.h"
#include "ctl/runningprograms.h"
#include "ctl/session.h"
#include "machine/links.h"

namespace ctl {

/// An interface with a role. A value.
struct ServedInterface {
    std::uint32_t item = 0;  // the id of the item that gives it the role
    std::uint32_t interface = 0;
    std::string name;  // empty: it is missing
    contract::Role role = contract::Role::none;
    bool isDisabled = false;  // the item is
    bool isRunning = false;
    std::vector<std::uint32_t> addresses;  // network order
    contract::SideReply side;
};

/// What the administrator wants to know first. A value.
struct Overview {
    /// Empty: the router answers. Else why not; then nothing below is known.
    std::string routerFailure;
    /// The programs on the bus, the router itself first.
    /// Errors: none where the router does not tell.
    std::optional<std::vector<RunningProgram>> programs;
    /// True when the gateway daemon is on the bus, or when nobody can tell.
    bool isGatewayThere = false;
    /// Why the daemon, which is there, did not tell everything; empty when it did.
    std::string gatewayFailure;
    /// Errors: none when the daemon did not tell.
    std::optional<contract::Settings> settings;
    std::vector<ServedInterface> served;
    std::vector<Mapping> mappings;
    std::vector<contract::MappingRefusal> refusals;  // the oldest first
    /// False when the kernel forwards nothing.
    bool isForwarding = true;
};

/// Asks all programs. A daemon that is not there is not asked, for a request would start it, although somebody
/// has switched it off.
/// Errors: throws Failure when the router does not answer; what the daemon fails to tell is left out.
[[nodiscard]] Overview readOverview(Session& session,
                                    const std::string& forwarding = machine::forwardingFile);

/// What is wrong, in one line each, and what to do.
[[nodiscard]] std::vector<std::string> problemsOf(const Overview& overview);

/// The overview as scripts see it.
[[nodiscard]] Json overviewToJson(const Overview& overview);

/// The addresses at which the LAN finds the gateway, or which clients take for the router's outer one: those
/// of the interfaces that are in force in a role.
[[nodiscard]] std::vector<const ServedInterface*> inForce(const Overview& overview, contract::Role role);

/// Where the gateway describes itself to hosts that see the router at an address.
/// Byte order: network.
[[nodiscard]] std::string descriptionUrl(std::uint32_t address);

/// The name of a user, or the number of one without a name.
[[nodiscard]] std::string userName(std::uint32_t uid);

}  // namespace ctl
