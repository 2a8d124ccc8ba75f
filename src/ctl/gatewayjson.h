#pragma once

#include <cstdint>
#include <string>

#include "contract/gateway.h"
#include "ctl/json.h"

/// The gateway's settings and items, as scripts see them.
namespace ctl {

/// The names of the settings, in JSON as on the command line.
namespace settingkey {
constexpr const char* enabled = "enabled";
constexpr const char* allowDisableExternal = "allow-disable-external";
constexpr const char* showDummyRule = "show-dummy-rule";
}  // namespace settingkey

[[nodiscard]] Json settingsToJson(const contract::Settings& settings);
/// `interfaceName` is empty when the item's interface is absent.
[[nodiscard]] Json itemToJson(std::uint32_t id, const contract::RoleItem& item,
                              const std::string& interfaceName);

}  // namespace ctl
