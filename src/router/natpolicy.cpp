#include "router/natpolicy.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <vector>

namespace router {

namespace {

/// What is wrong with an address by itself, null when nothing is. Byte order: network.
const char* faultOf(std::uint32_t address) {
    const std::uint32_t host = ntohl(address);
    if (host == INADDR_ANY) return "no host has this address";
    if (host >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET) return "it is a loopback address";
    if (IN_MULTICAST(host)) return "it is a multicast address";
    if (host == INADDR_BROADCAST) return "it is the broadcast address";
    return nullptr;
}

/// What is wrong with where packets to a target go, null when nothing is.
const char* faultOf(Route::Type type) {
    switch (type) {
        case Route::Type::local:
            return "it is an address of the router itself";
        case Route::Type::broadcast:
            return "it is a broadcast address";
        case Route::Type::multicast:
            return "it is a multicast address";
        case Route::Type::unicast:
        case Route::Type::none:
            return nullptr;
    }
    return nullptr;
}

/// True when the list names the port; an empty one names them all.
bool has(const std::vector<PortRange>& ranges, std::uint16_t port) {
    return ranges.empty() || std::any_of(ranges.begin(), ranges.end(),
                                         [port](const PortRange& range) { return range.contains(port); });
}

bool refuse(const NatElement& element, const char* why, std::string& reason) {
    reason = "target " + addressText(element.target) + " refused: " + why;
    return false;
}

}  // namespace

bool NatPolicy::allows(const NatElement& element, std::string& reason) const {
    if (element.destination == INADDR_ANY) {
        reason = "destination 0.0.0.0 refused: the rule would never match";
        return false;
    }
    return allowsPorts(element, reason) && (!config.checksTargets || allowsTarget(element, reason));
}

bool NatPolicy::allowsPorts(const NatElement& element, std::string& reason) const {
    if (!has(config.externalPorts, element.port)) {
        reason =
            "external port " + std::to_string(element.port) + " refused: it is not among those configured";
        return false;
    }
    if (has(config.internalPorts, element.targetPort)) return true;
    reason =
        "internal port " + std::to_string(element.targetPort) + " refused: it is not among those configured";
    return false;
}

bool NatPolicy::allowsTarget(const NatElement& element, std::string& reason) const {
    if (const char* fault = faultOf(element.target)) return refuse(element, fault, reason);
    if (!addresses.holdersOf(element.target).empty())
        return refuse(element, faultOf(Route::Type::local), reason);
    return allowsRoute(element, kernel.routeTo(element.target), reason);
}

bool NatPolicy::allowsRoute(const NatElement& element, const Route& route, std::string& reason) const {
    if (const char* fault = faultOf(route.type)) return refuse(element, fault, reason);
    const auto isInside = [target = ntohl(element.target)](const Prefix& prefix) {
        return prefix.contains(target);
    };
    if (std::any_of(config.internalPrefixes.begin(), config.internalPrefixes.end(), isInside)) return true;
    // A default route may come at any time, and would lead there.
    if (route.type == Route::Type::none) return refuse(element, "there is no route to it", reason);
    if (route.isDefault()) return refuse(element, "it is reached over the default route", reason);
    if (route.interfaces.empty())
        return refuse(element, "nobody tells which interface it is reached over", reason);
    const std::vector<std::uint32_t> outside = addresses.holdersOf(element.destination);
    for (const std::uint32_t index : route.interfaces)
        if (std::find(outside.begin(), outside.end(), index) != outside.end())
            return refuse(element, "it is reached over the interface that holds the destination address",
                          reason);
    return true;
}

bool NatPolicy::hasRoom(std::size_t total, std::size_t ofTarget, const NatElement& element,
                        std::string& reason) const {
    if (config.limit != 0 && total >= config.limit) {
        reason = "there are " + std::to_string(total) + " rules already, as many as configured";
        return false;
    }
    if (config.limitPerTarget == 0 || ofTarget < config.limitPerTarget) return true;
    reason = std::to_string(ofTarget) + " rules lead to " + addressText(element.target) +
             " already, as many as configured";
    return false;
}

}  // namespace router
