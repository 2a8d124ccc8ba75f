#pragma once

#include <cstdint>
#include <string>

#include "contract/gateway.h"
#include "tk/object.h"

namespace gateway {

/// One "upnp interface" item: which side of the gateway a router interface is on.
class DevObj final : public tk::Object, public contract::RoleItem {
public:
    std::string getName() const override { return "upnp interface"; }
    void getConfig(tk::message& out, std::uint32_t options) const override;
    void setConfig(const tk::message& in, std::uint32_t options) override;
};

}  // namespace gateway
