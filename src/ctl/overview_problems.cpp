// What is wrong, as far as an overview shows it.

#include "ctl/overview.h"

#include <algorithm>

#include "contract/programs.h"
#include "machine/network.h"
#include "net/convert.h"

namespace ctl {

namespace {

using contract::Role;

/// Why clients that ask for the outer address learn one that nobody reaches from outside; empty when they do
/// not.
std::string innerAddressOf(const ServedInterface& entry) {
    if (entry.role != Role::external) return {};
    const auto address = machine::innerAddressOf(entry.addresses);
    if (!address) return {};
    return entry.name + " has the " + machine::reachWord(machine::reachOf(*address)) + " address " +
           gateway::ipToString(*address) + ": another router is in front; map the ports there too";
}

/// What is wrong with one interface that has a role; empty when nothing is.
std::string problemOf(const ServedInterface& entry) {
    const std::string item = std::to_string(entry.item);
    if (entry.name.empty())
        return "the " + roleName(entry.role) + " interface of item " + item +
               " is missing; if it is gone for good: tkctl upnp interface remove " + item;
    if (entry.isDisabled)
        return entry.name + " is not served; to serve it: tkctl upnp interface set " + item + " disabled=no";
    if (!entry.isRunning) return entry.name + " (" + roleName(entry.role) + ") is down, or has no link";
    if (entry.addresses.empty()) return entry.name + " (" + roleName(entry.role) + ") has no IPv4 address";
    if (entry.role == Role::internal && entry.side.side == contract::Side::outside)
        return entry.name + " is internal, but outside: " + entry.side.why;
    return innerAddressOf(entry);
}

void addMissingRole(const Overview& overview, Role role, const std::string& text,
                    std::vector<std::string>& problems) {
    if (std::none_of(overview.served.begin(), overview.served.end(),
                     [&](const ServedInterface& entry) { return entry.role == role; }))
        problems.push_back(text);
}

/// What is wrong with the daemon as a whole; empty when nothing is.
std::string gatewayProblem(const Overview& overview) {
    if (!overview.isGatewayThere)
        return "upnpd is not running: it is switched off, or failed; to start it: tkctl upnp set enabled=yes";
    if (!overview.gatewayFailure.empty()) return overview.gatewayFailure;
    if (!overview.settings->enabled)
        return "UPnP is switched off; to switch it on: tkctl upnp set enabled=yes";
    return {};
}

}  // namespace

std::vector<std::string> problemsOf(const Overview& overview) {
    std::vector<std::string> problems;
    if (!overview.routerFailure.empty()) return {overview.routerFailure};
    if (std::string problem = gatewayProblem(overview); !problem.empty())
        problems.push_back(std::move(problem));
    if (!overview.isForwarding)
        problems.push_back(
            "the kernel forwards no packets, so no mapping works; to turn it on: sysctl -w "
            "net.ipv4.ip_forward=1");
    if (!overview.settings) return problems;
    addMissingRole(overview, Role::internal,
                   "no interface is internal, so no host finds the gateway; tkctl setup proposes roles",
                   problems);
    addMissingRole(overview, Role::external,
                   "no interface is external, so nothing can be mapped; tkctl setup proposes roles",
                   problems);
    for (const ServedInterface& entry : overview.served)
        if (std::string problem = problemOf(entry); !problem.empty()) problems.push_back(std::move(problem));
    return problems;
}

}  // namespace ctl
