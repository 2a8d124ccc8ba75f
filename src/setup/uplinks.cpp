#include "setup/uplinks.h"

#include <algorithm>
#include <limits>
#include <string_view>

namespace setup {

namespace {

using machine::Link;
using machine::Route;

bool isOneOf(std::string_view text, std::initializer_list<std::string_view> list) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

bool isThroughTunnel(const machine::Links& machine, const Route& route) {
    const Link* link = machine.find(route.device);
    return link && isTunnel(*link);
}

/// True when no other route of the table leads to the same place with a lower metric.
bool isBest(const std::vector<Route>& routes, const Route& route) {
    return std::none_of(routes.begin(), routes.end(), [&](const Route& other) {
        return other.table == route.table && other.destination == route.destination &&
               other.type == "unicast" && other.metric < route.metric;
    });
}

bool isOwnNetwork(const machine::Links& machine, const Route& route) {
    return std::any_of(machine.addresses.begin(), machine.addresses.end(), [&](const machine::Address& a) {
        return a.interface == route.device && a.network == route.destination;
    });
}

}  // namespace

bool isIn(const Names& list, const std::string& name) {
    return std::find(list.begin(), list.end(), name) != list.end();
}

void addOnce(Names& list, const std::string& name) {
    if (!isIn(list, name)) list.push_back(name);
}

bool isTunnel(const Link& link) {
    return isOneOf(link.kind, {"tun", "wireguard", "gre", "gretap", "ip6gre", "ip6gretap", "erspan", "ipip",
                               "sit", "ip6tnl", "vti", "vti6", "xfrm", "vxlan", "geneve", "ovpn"});
}

Uplinks::Uplinks(const machine::Links& machine) {
    findDefaults(machine);
    findPublicRoutes(machine);
}

void Uplinks::findDefaults(const machine::Links& machine) {
    // Routers with several uplinks may have their default routes in tables of their own alone.
    const bool mainHasOne =
        std::any_of(machine.routes.begin(), machine.routes.end(), [&](const Route& route) {
            return route.isDefault() && route.table == "main" && !isThroughTunnel(machine, route);
        });
    std::uint32_t lowest = std::numeric_limits<std::uint32_t>::max();
    for (const Route& route : machine.routes) {
        if (!route.isDefault()) continue;
        addOnce(withDefault, route.device);
        if (isThroughTunnel(machine, route) || (mainHasOne && route.table != "main")) continue;
        if (route.metric < lowest) best.clear();
        lowest = std::min(lowest, route.metric);
        if (route.metric == lowest) addOnce(best, route.device);
    }
}

void Uplinks::findPublicRoutes(const machine::Links& machine) {
    for (const std::string& interface : best) add(machine, interface, "it carries the default route");
    for (const Route& route : machine.routes)
        if (route.type == "unicast" && !route.device.empty() && !isPrivate(route.destination) &&
            !isOwnNetwork(machine, route) && isBest(machine.routes, route))
            add(machine, route.device, "it carries a route to " + route.destination.text());
}

void Uplinks::add(const machine::Links& machine, const std::string& interface, const std::string& why) {
    if (!outside.emplace(interface, why).second) return;
    const Link* link = machine.find(interface);
    if (!link) return;
    if (!link->lower.empty()) add(machine, link->lower, "the uplink " + interface + " stands on it");
    for (const Link& other : machine.links)
        if (&ownerOf(machine, other) == link && &other != link)
            add(machine, other.name, "it is a member of the uplink " + interface);
    if (link->type != "ppp") return;
    for (const std::string& below : machine.pppoeInterfaces)
        add(machine, below, "the uplink " + interface + " runs over it (PPPoE)");
}

std::string Uplinks::whyOutside(const std::string& interface) const {
    const auto found = outside.find(interface);
    return found == outside.end() ? std::string() : found->second;
}

bool Uplinks::isFallback(const std::string& interface) const {
    return isIn(withDefault, interface) && !isIn(best, interface);
}

}  // namespace setup
