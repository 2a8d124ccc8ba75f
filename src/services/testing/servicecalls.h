#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "upnp/service.h"

namespace gateway {

/// Calls an action's handler, as the control endpoint does after its checks.
inline UPNPStatus call(Service& service, const std::string& action, const std::vector<std::string>& in,
                       std::vector<std::string>& out) {
    const auto entry = service.actions.find(action);
    if (entry == service.actions.end() || !entry->second->callback) {
        ADD_FAILURE() << "no handler for " << action;
        return -1;
    }
    return (*entry->second->callback)(in, out);
}

}  // namespace gateway
