#pragma once

#include <optional>
#include <string>
#include <vector>

#include "links/prefix.h"

namespace router {

/// What the configuration says of the router's inside. A value.
struct LanConfig {
    std::optional<std::vector<std::string>> interfaces;  // the inside ones; none given: routes tell
    std::vector<Prefix> networks;                        // inside too, though not directly connected

    bool operator==(const LanConfig&) const = default;
};

}  // namespace router
