#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "contract/gateway.h"
#include "machine/links.h"
#include "tk/status.h"

/// How a router is to be set up: the roles of its interfaces and its configuration file. For the
/// administrator's programs.
namespace setup {

using contract::Role;

/// An item that the gateway has already. A value.
struct Item {
    std::uint32_t id = 0;
    std::string interface;  // empty when the interface is absent
    Role role = Role::none;
    bool disabled = false;

    bool operator==(const Item&) const = default;
};

/// What is set up already. A value.
struct Present {
    std::optional<std::vector<std::string>> lanInterfaces;  // as the configuration file names them
    std::vector<Item> items;
};

/// What the administrator asks for. A value.
struct Wishes {
    std::vector<std::string> lan;  // these, in place of what would be found; empty: what is found
    std::vector<std::string> wan;
    bool isForced = false;  // also makes outside interfaces internal
};

/// One interface and what it is to be, or is not to be. A value.
struct Choice {
    std::string interface;
    Role role = Role::none;  // none: it is left out
    std::string why;         // for people

    bool operator==(const Choice&) const = default;
};

/// A proposal. A value.
struct Proposal {
    std::vector<Choice> roles;               // the internal ones first
    std::vector<Choice> leftOut;             // interfaces that have addresses or items, but get no role
    std::vector<std::string> lanInterfaces;  // for the configuration file

    bool operator==(const Proposal&) const = default;
};

/// Proposes the roles of a machine's interfaces. The uplinks are the interfaces of the default route with the
/// lowest metric. The LAN is what the configuration names, otherwise each network of hosts with private
/// addresses, and without any each that has only addresses for documentation; containers, tunnels and other
/// uplinks are left out. Roles that exist are kept if they make sense.
/// Errors: no uplink or no LAN is found; a wish names no interface, or makes an outside one internal without
/// force. The reason says what to do.
[[nodiscard]] tk::Result<Proposal> propose(const machine::Links& machine, const Present& present,
                                           const Wishes& wishes);

/// What has to be done with one item of the gateway. A value.
struct ItemChange {
    enum class Kind { add, change, remove };
    Kind kind = Kind::add;
    std::uint32_t id = 0;  // none for an addition
    std::string interface;
    Role role = Role::none;

    bool operator==(const ItemChange&) const = default;
};

/// What makes the gateway's items those of a proposal, removals first. Items of absent interfaces stay as
/// they are.
[[nodiscard]] std::vector<ItemChange> itemChanges(const std::vector<Item>& items, const Proposal& proposal);

/// "add lan0 as internal".
[[nodiscard]] std::string describe(const ItemChange& change);

}  // namespace setup
