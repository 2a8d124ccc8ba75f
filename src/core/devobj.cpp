#include "core/devobj.h"

namespace gateway {

void DevObj::getConfig(tk::message& out, std::uint32_t) const {
    const tk::message values = toMessage();
    for (const tk::message::Field& value : values.fields()) out.insert(value);
}

void DevObj::setConfig(const tk::message& in, std::uint32_t) {
    static_cast<RoleItem&>(*this) = fromMessage(in, *this);
}

}  // namespace gateway
