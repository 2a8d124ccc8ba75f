#pragma once

#include <string>
#include <vector>

namespace router {

/// What the configuration says of setting one interface up and down over the bus. A value.
struct InterfaceConfig {
    std::string name;
    bool terminate = false;  // programs may do it, too
    std::vector<std::string>
        down;  // the command that does it: a full path, then arguments; empty: the kernel's
    std::vector<std::string> up;  // flag is set

    bool operator==(const InterfaceConfig&) const = default;
};

}  // namespace router
