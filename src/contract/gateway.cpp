#include "contract/gateway.h"

#include "tk/names.h"

namespace contract {

std::string roleName(Role role) {
    switch (role) {
        case Role::none:
            return "none";
        case Role::external:
            return "external";
        case Role::internal:
            return "internal";
    }
    return std::to_string(static_cast<std::uint32_t>(role));
}

tk::message Settings::toMessage() const {
    tk::message values;
    values.insert_bool(settingfield::enabled, enabled);
    values.insert_bool(settingfield::allowDisableExternal, allowDisableExternal);
    values.insert_bool(settingfield::showDummyRule, showDummyRule);
    return values;
}

Settings Settings::fromMessage(const tk::message& source, const Settings& absent) {
    return {source.get_bool(settingfield::enabled, absent.enabled),
            source.get_bool(settingfield::allowDisableExternal, absent.allowDisableExternal),
            source.get_bool(settingfield::showDummyRule, absent.showDummyRule)};
}

tk::message RoleItem::toMessage() const {
    tk::message values;
    values.insert_bool(tk::field::disabled, disabled);
    values.insert_u32(itemfield::interface, interface);
    values.insert_u32(itemfield::type, static_cast<std::uint32_t>(type));
    return values;
}

RoleItem RoleItem::fromMessage(const tk::message& source, const RoleItem& absent) {
    const auto type = source.get_u32(itemfield::type, static_cast<std::uint32_t>(absent.type));
    return {source.get_u32(itemfield::interface, absent.interface), static_cast<Role>(type),
            source.get_bool(tk::field::disabled, absent.disabled)};
}

}  // namespace contract
