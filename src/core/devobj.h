#pragma once

#include <cstdint>
#include <string>

#include "tk/object.h"

/// One "upnp interface" item: which side of the gateway a router interface is.
class DevObj final : public tk::Object {
public:
    std::string getName() const override { return "upnp interface"; }
    void getConfig(tk::message& out, std::uint32_t options) const override;
    void setConfig(const tk::message& in, std::uint32_t options) override;

    bool disabled = false;        // the item is switched off
    std::uint32_t interface = 0;  // id of the router's interface
    std::uint32_t type = 0;       // 1 external, 2 internal
};
