#include "core/devobj.h"

#include "contract/gateway.h"
#include "tk/names.h"

void DevObj::getConfig(tk::message& out, std::uint32_t) const {
    out.insert_bool(tk::field::disabled, disabled);
    out.insert_u32(contract::itemfield::interface, interface);
    out.insert_u32(contract::itemfield::type, type);
}

void DevObj::setConfig(const tk::message& in, std::uint32_t) {
    disabled = in.get_bool(tk::field::disabled, disabled);
    type = in.get_u32(contract::itemfield::type, type);
    interface = in.get_u32(contract::itemfield::interface, interface);
}
