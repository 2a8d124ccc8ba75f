#pragma once

#include "contract/natrules.h"

namespace router {

using contract::NatKey;
using contract::NatTarget;

/// What the kernel holds for one enabled rule. A value.
struct NatElement {
    NatKey key;
    NatTarget target;

    bool operator==(const NatElement&) const = default;
};

}  // namespace router
