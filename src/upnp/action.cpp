#include "upnp/action.h"

#include <cassert>
#include <utility>

namespace gateway {

Action::Action(std::vector<std::string> outVars, std::vector<std::string> outNames)
    : Action({}, {}, std::move(outVars), std::move(outNames), nullptr) {}

Action::Action(std::vector<std::string> inVars, std::vector<std::string> inNames,
               std::vector<std::string> outVars, std::vector<std::string> outNames,
               std::unique_ptr<ActionHandler> callback)
    : inVars(std::move(inVars)),
      inNames(std::move(inNames)),
      outVars(std::move(outVars)),
      outNames(std::move(outNames)),
      callback(std::move(callback)) {
    assert(this->inVars.size() == this->inNames.size());
    assert(this->outVars.size() == this->outNames.size());
}

}  // namespace gateway
