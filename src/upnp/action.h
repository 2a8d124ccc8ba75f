#pragma once

#include <memory>
#include <string>
#include <vector>

#include "upnp/callback.h"

namespace gateway {

/// One SOAP action of a service. Each argument has the name of its element, and the state variable by which
/// it is checked (in-arguments) or from which a getter action takes it (out-arguments); names and variables
/// stand in pairs.
class Action {
public:
    /// A getter action, which answers with the values of its variables.
    Action(std::vector<std::string> outVars, std::vector<std::string> outNames);

    /// An action that `method` of `obj` carries out; a getter action when one of them is null.
    /// Lifetime: the object outlives the action.
    template <typename T>
    Action(std::vector<std::string> inVars, std::vector<std::string> inNames,
           std::vector<std::string> outVars, std::vector<std::string> outNames, T* obj,
           typename ActionCallback<T>::Method method)
        : Action(std::move(inVars), std::move(inNames), std::move(outVars), std::move(outNames),
                 obj && method ? std::make_unique<ActionCallback<T>>(obj, method) : nullptr) {}

    std::vector<std::string> inVars;
    std::vector<std::string> inNames;
    std::vector<std::string> outVars;
    std::vector<std::string> outNames;
    std::unique_ptr<ActionHandler> callback;  // null in a getter action

private:
    Action(std::vector<std::string> inVars, std::vector<std::string> inNames,
           std::vector<std::string> outVars, std::vector<std::string> outNames,
           std::unique_ptr<ActionHandler> callback);
};

}  // namespace gateway
