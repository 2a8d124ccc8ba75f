#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "contract/interfaces.h"
#include "ctl/session.h"

namespace ctl {

/// One network interface of the router, as the interface service reports it.
struct Interface {
    std::uint32_t id = 0;
    std::string name;
    std::string displayName;  // the alias, else the name
    std::uint32_t index = 0;  // the kernel's
    std::uint32_t type = 0;   // the kernel's hardware type, 1 is Ethernet
    bool disabled = false;
    bool running = false;
};

/// All interfaces, in the service's order.
/// Errors: throws Failure.
[[nodiscard]] std::vector<Interface> readInterfaces(Session& session);

/// The interface with a name.
/// Errors: throws Failure, which lists the known names.
[[nodiscard]] const Interface& interfaceNamed(const std::vector<Interface>& interfaces,
                                              const std::string& name);

/// The name of the interface with an id; empty when there is none.
[[nodiscard]] std::string interfaceName(const std::vector<Interface>& interfaces, std::uint32_t id);

/// Which side an interface is on; neither when the router does not tell, as when the interface is gone by now.
[[nodiscard]] contract::SideReply sideOf(Session& session, std::uint32_t interface);

}  // namespace ctl
