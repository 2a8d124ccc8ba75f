#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/context.h"
#include "ctl/session.h"

namespace CLI {
class App;
}

namespace ctl {

/// One IPv4 address of the router, as the address service reports it.
struct Address {
    std::uint32_t id = 0;
    std::string address;
    std::uint32_t interface = 0;
    bool disabled = false;
};

/// All addresses, in the service's order. Errors: throws Failure.
[[nodiscard]] std::vector<Address> readAddresses(Session& session);

/// Adds "address list".
void addAddressCommands(CLI::App& app, Context& context);

}  // namespace ctl
