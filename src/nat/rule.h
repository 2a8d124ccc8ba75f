#pragma once

#include <cstdint>
#include <string>

#include "contract/natrules.h"
#include "tk/message.h"
#include "tk/status.h"

namespace nat {

using contract::NatKey;
using contract::NatTarget;

using Rule = contract::NatRule;

/// The rule that a request makes. The request must name every part of it. The rule has no id or owner yet.
/// Errors: tk::error::invalid for anything that does not fit one entry of the kernel's map.
tk::Result<Rule> newRule(const tk::message& request);

/// The rule after a request has changed it. Its id, owner and kind stay, and so does everything that the
/// request does not name.
/// Errors: as for newRule().
tk::Result<Rule> changedRule(const Rule& former, const tk::message& request);

/// What a rule matches, for people: "tcp 198.51.100.1:80".
[[nodiscard]] std::string textOf(const NatKey& key);

}  // namespace nat
