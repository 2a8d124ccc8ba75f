#pragma once

#include <cstdint>
#include <string>

#include "tk/message.h"

/// The gateway's settings and its "upnp interface" items, at {80, 0}.
namespace contract {

namespace settingfield {
constexpr std::uint32_t enabled = 1;               // bool
constexpr std::uint32_t allowDisableExternal = 2;  // bool
constexpr std::uint32_t showDummyRule = 3;         // bool
}  // namespace settingfield
namespace itemfield {
constexpr std::uint32_t interface = 1;  // u32: the interface's id
constexpr std::uint32_t type = 2;       // u32: a Role
}  // namespace itemfield

/// The settings of the gateway. A value.
struct Settings {
    /// True when UPnP is switched on.
    bool enabled = false;
    /// True when control points may disable an external interface.
    bool allowDisableExternal = true;
    /// True when a mapping that does nothing is shown before all others, for clients that need one.
    bool showDummyRule = true;

    /// All three fields, as a set carries them and a get returns them.
    [[nodiscard]] tk::message toMessage() const;
    /// Reads the settings; one whose field is absent is taken from `absent`.
    [[nodiscard]] static Settings fromMessage(const tk::message& source, const Settings& absent);

    bool operator==(const Settings&) const = default;
};

/// Which side of the gateway an interface is, with its number on the bus. A number from the bus may be none
/// of these.
enum class Role : std::uint32_t { none = 0, external = 1, internal = 2 };

/// "none", "external", "internal"; the number itself when it is none of these.
[[nodiscard]] std::string roleName(Role role);

/// One "upnp interface" item, without its id. A value.
struct RoleItem {
    /// The id of the interface that it names.
    std::uint32_t interface = 0;
    /// Which side the interface is.
    Role type = Role::none;
    /// True when the item is switched off.
    bool disabled = false;

    /// The fields of an item, in the order of its records.
    [[nodiscard]] tk::message toMessage() const;
    /// Reads an item; a value whose field is absent is taken from `absent`.
    [[nodiscard]] static RoleItem fromMessage(const tk::message& source, const RoleItem& absent);

    bool operator==(const RoleItem&) const = default;
};

}  // namespace contract
