#pragma once

#include <list>
#include <optional>
#include <string>
#include <vector>

#include "upnp/service.h"

namespace gateway {

/// One row of a service's table of state variables.
struct VariableRow {
    const char* name;
    VariableType type;
    bool evented;
    std::list<std::string> allowed;    // empty: any value
    std::optional<std::string> value;  // none: no value, or a getter that is set later
};

/// Adds one row's variable to a service.
void registerVariable(Service& service, const VariableRow& row);

/// Two lists of names, one after the other.
std::vector<std::string> joined(std::vector<std::string> first, const std::vector<std::string>& second);

}  // namespace gateway
