#include "nat/routerports.h"

#include <algorithm>

#include "nat/rule.h"
#include "tk/names.h"

namespace nat {

tk::Status RouterPorts::areFreeFor(const NatKey& key) const {
    const auto refused = [](const std::string& reason) {
        return tk::Status::failure(reason, tk::error::refused);
    };
    const auto isIt = [&key](const PortRange& range) { return range.contains(key.port); };
    if (std::any_of(configured.begin(), configured.end(), isIt))
        return refused("external port " + std::to_string(key.port) +
                       " refused: it is one of the router's own");
    for (const std::uint32_t interface : zones.outsideHoldersOf(key.destination)) {
        const tk::Result<bool> taken = listeners.isTaken(key, interface);
        if (!taken.isOk())
            return refused(
                textOf(key) +
                " refused: nobody can tell whether a service of the router listens there: " + taken.reason());
        if (*taken) return refused(textOf(key) + " refused: a service of the router listens there");
    }
    return {};
}

}  // namespace nat
