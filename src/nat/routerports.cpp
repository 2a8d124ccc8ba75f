#include "nat/routerports.h"

#include <algorithm>

namespace router {

bool RouterPorts::areFreeFor(const NatElement& element, std::string& reason) const {
    const auto isIt = [port = element.port](const PortRange& range) { return range.contains(port); };
    if (std::any_of(configured.begin(), configured.end(), isIt)) {
        reason = "external port " + std::to_string(element.port) + " refused: it is one of the router's own";
        return false;
    }
    const std::string refused = destinationText(element) + " refused: ";
    for (const std::uint32_t interface : zones.outsideHoldersOf(element.destination)) {
        std::string trouble;
        switch (listeners.find(element.destination, element.protocol, element.port, interface, trouble)) {
            case Listeners::Answer::nobody:
                break;
            case Listeners::Answer::somebody:
                reason = refused + "a service of the router listens there";
                return false;
            case Listeners::Answer::unknown:
                reason =
                    refused + "nobody can tell whether a service of the router listens there: " + trouble;
                return false;
        }
    }
    return true;
}

}  // namespace router
