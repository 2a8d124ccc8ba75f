#pragma once

#include <cstdint>
#include <string>

#include "firewall/element.h"
#include "tk/message.h"

namespace router {

/// A destination NAT rule. A value.
struct NatRule {
    std::uint32_t id = 0;
    std::uint32_t owner = 0;  // who made a dynamic rule: the first element of its path
    bool dynamic = false;
    bool disabled = false;
    NatElement element;

    bool operator==(const NatRule&) const = default;
};

/// Reads a rule from the fields of a request. With `isNew` everything that makes up a rule must be there;
/// else `rule` keeps what the request does not name, and its id, owner and kind in any case. Errors: false
/// for whatever does not fit one entry of the kernel's map; `reason` says what, and `rule` is as before.
[[nodiscard]] bool readRule(const tk::message& request, bool isNew, NatRule& rule, std::string& reason);

/// The rule as a record: the fields of the request that would make it, and its id.
[[nodiscard]] tk::message recordOf(const NatRule& rule);

}  // namespace router
