#pragma once

#include <cstdint>

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
    /// UPnP is switched on.
    bool enabled = false;
    /// Control points may disable an external interface.
    bool allowDisableExternal = true;
    /// A mapping that does nothing is shown before all others, for clients that need one.
    bool showDummyRule = true;

    /// All three, as a set carries them and a get answers.
    [[nodiscard]] tk::message toMessage() const;
    /// Reads them, each from `absent` where its field is.
    [[nodiscard]] static Settings fromMessage(const tk::message& source, const Settings& absent);

    bool operator==(const Settings&) const = default;
};

/// The side of the gateway that an interface is, with its number on the bus. A number from the bus may be
/// none of these.
enum class Role : std::uint32_t { none = 0, external = 1, internal = 2 };

/// One "upnp interface" item, without its id. A value.
struct RoleItem {
    /// The id of the interface that it names.
    std::uint32_t interface = 0;
    /// The side that the interface is.
    Role type = Role::none;
    /// The item is switched off.
    bool disabled = false;

    /// The fields of an item, in the order of its records.
    [[nodiscard]] tk::message toMessage() const;
    /// Reads an item, each value from `absent` where its field is.
    [[nodiscard]] static RoleItem fromMessage(const tk::message& source, const RoleItem& absent);

    bool operator==(const RoleItem&) const = default;
};

}  // namespace contract
