#include "nat/policy.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <vector>

#include "tk/names.h"

namespace nat {

namespace {

/// What is wrong with an address in itself; null when nothing is.
/// Byte order: network.
const char* faultOf(std::uint32_t address) {
    const std::uint32_t host = ntohl(address);
    if (host == INADDR_ANY) return "no host has this address";
    if (host >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET) return "it is a loopback address";
    if (IN_MULTICAST(host)) return "it is a multicast address";
    if (host == INADDR_BROADCAST) return "it is the broadcast address";
    return nullptr;
}

/// True when the list names the port, or is empty.
bool has(const std::vector<PortRange>& ranges, std::uint16_t port) {
    return ranges.empty() || std::any_of(ranges.begin(), ranges.end(),
                                         [port](const PortRange& range) { return range.contains(port); });
}

tk::Status refused(const std::string& reason) {
    return tk::Status::failure(reason, tk::error::refused);
}

}  // namespace

tk::Status Policy::allows(const firewall::Element& element) const {
    if (element.key.destination == INADDR_ANY)
        return refused("destination 0.0.0.0 refused: the rule would never match");
    if (tk::Status status = allowsPorts(element); !status.isOk()) return status;
    const std::string fault = config.checksTargets ? faultOfTarget(element.target.address) : std::string();
    if (fault.empty()) return {};
    return refused("target " + links::addressText(element.target.address) + " refused: " + fault);
}

tk::Status Policy::allowsDestination(std::uint32_t address, bool isNew) const {
    if (!zones.outsideHoldersOf(address).empty()) return {};
    if (!isNew && !zones.isOwn(address)) return {};
    return refused("destination " + links::addressText(address) +
                   " refused: it is no address of an outside interface of the router");
}

tk::Status Policy::allowsPorts(const firewall::Element& element) const {
    if (!has(config.externalPorts, element.key.port))
        return refused("external port " + std::to_string(element.key.port) +
                       " refused: it is not among those configured");
    if (has(config.internalPorts, element.target.port)) return {};
    return refused("internal port " + std::to_string(element.target.port) +
                   " refused: it is not among those configured");
}

/// What is wrong with a target; empty when nothing is.
std::string Policy::faultOfTarget(std::uint32_t address) const {
    if (const char* fault = faultOf(address)) return fault;
    if (zones.isOwn(address)) return "it is an address of the router itself";
    if (zones.isBroadcastAddress(address)) return "it is a broadcast address";
    if (zones.isNetworkAddress(address)) return "it is the address of a network itself";
    return zones.isInside(address) ? std::string() : zones.whyOutside(address);
}

tk::Status Policy::hasRoom(std::size_t total, std::size_t ofTarget, std::uint32_t target) const {
    if (config.limit != 0 && total >= config.limit)
        return tk::Status::failure(
            "there are " + std::to_string(total) + " rules already, as many as configured", tk::error::busy);
    if (config.limitPerTarget == 0 || ofTarget < config.limitPerTarget) return {};
    return tk::Status::failure(std::to_string(ofTarget) + " rules lead to " + links::addressText(target) +
                                   " already, as many as configured",
                               tk::error::busy);
}

}  // namespace nat
