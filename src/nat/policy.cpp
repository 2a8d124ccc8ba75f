#include "nat/policy.h"

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

/// True when the list names the port; an empty one names them all.
bool has(const std::vector<PortRange>& ranges, std::uint16_t port) {
    return ranges.empty() || std::any_of(ranges.begin(), ranges.end(),
                                         [port](const PortRange& range) { return range.contains(port); });
}

}  // namespace

bool NatPolicy::allows(const NatElement& element, std::string& reason) const {
    if (element.destination == INADDR_ANY) {
        reason = "destination 0.0.0.0 refused: the rule would never match";
        return false;
    }
    if (!allowsPorts(element, reason)) return false;
    const std::string fault = config.checksTargets ? faultOfTarget(element.target) : std::string();
    if (!fault.empty()) reason = "target " + addressText(element.target) + " refused: " + fault;
    return fault.empty();
}

bool NatPolicy::allowsDestination(const NatElement& element, bool isNew, std::string& reason) const {
    if (!zones.outsideHoldersOf(element.destination).empty()) return true;
    if (!isNew && !zones.isOwn(element.destination)) return true;
    reason = "destination " + addressText(element.destination) +
             " refused: it is no address of an outside interface of the router";
    return false;
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

/// What is wrong with a target, empty when nothing is.
std::string NatPolicy::faultOfTarget(std::uint32_t address) const {
    if (const char* fault = faultOf(address)) return fault;
    if (zones.isOwn(address)) return "it is an address of the router itself";
    if (zones.isBroadcastAddress(address)) return "it is a broadcast address";
    if (zones.isNetworkAddress(address)) return "it is the address of a network itself";
    return zones.isInside(address) ? std::string() : zones.whyOutside(address);
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
