#pragma once

#include <memory>
#include <string>
#include <vector>

#include "upnp/callback.h"

namespace gateway {

/// One SOAP action of a service. Each argument has an element name and a state variable, at the same index of
/// two lists. The variable checks an in-argument; in a getter action it supplies an out-argument.
class Action {
public:
    /// A getter action: it answers with the values of its variables.
    Action(std::vector<std::string> outVars, std::vector<std::string> outNames);

    /// An action that `method` of `obj` carries out, or a getter action when either is null.
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
