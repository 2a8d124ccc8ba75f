#include "ctl/gatewayjson.h"

namespace ctl {

Json settingsToJson(const contract::Settings& settings) {
    Json object;
    object[settingkey::enabled] = settings.enabled;
    object[settingkey::allowDisableExternal] = settings.allowDisableExternal;
    object[settingkey::showDummyRule] = settings.showDummyRule;
    return object;
}

Json itemToJson(std::uint32_t id, const contract::RoleItem& item, const std::string& interfaceName) {
    Json object;
    object["id"] = id;
    object["interface"] = item.interface;
    object["name"] = interfaceName;
    object["type"] = roleName(item.type);
    object["disabled"] = item.disabled;
    return object;
}

}  // namespace ctl
