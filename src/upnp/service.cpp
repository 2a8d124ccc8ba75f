#include "upnp/service.h"

#include "upnp/event.h"
#include "upnp/gena.h"
#include "upnp/soap.h"

namespace gateway {

Service::Service(std::string serviceType) : serviceType(std::move(serviceType)) {}

Service::~Service() {
    variables.clear();
    actions.clear();
    subscriptions.clear();
    events.clear();
}

Variable& Service::addVar(const std::string& name, Variable* variable) {
    std::unique_ptr<Variable> added(variable);
    std::unique_ptr<Variable>& entry = variables[name];
    if (entry) replacedVariables.push_back(std::move(entry));
    entry = std::move(added);
    return *entry;
}

void Service::addAct(const std::string& name, std::vector<std::string> outVars,
                     std::vector<std::string> outNames) {
    if (outNames.empty())
        for (const std::string& variable : outVars) outNames.push_back("New" + variable);
    actions[name] = std::make_unique<Action>(std::move(outVars), std::move(outNames));
}

std::string Service::getVar(const std::string& name) const {
    std::string value;
    const auto variable = variables.find(name);
    if (variable != variables.end()) (void)variable->second->getValue(value);  // no value reads as empty
    return value;
}

void Service::setVar(const std::string& name, const std::string& newValue) {
    const auto entry = variables.find(name);
    if (entry == variables.end()) return;
    Variable& variable = *entry->second;
    std::string old;
    (void)variable.getValue(old);  // no value counts as an empty text
    const bool changed = newValue != old;
    variable.setValue(newValue);
    if (!variable.evented || !changed) return;
    for (const auto& [sid, subscription] : subscriptions) sendEvent(*subscription, name);
}

HTTPAnswer Service::handlePost(const HTTPMessage& request, HTTPClient& client) {
    requesterAddress = client.source();
    return gateway::handlePost(*this, request);
}

HTTPAnswer Service::subscribe(const HTTPMessage& request, HTTPClient& client) {
    return gateway::subscribe(*this, request, client);
}

HTTPAnswer Service::unsubscribe(const HTTPMessage& request, HTTPClient&) {
    return gateway::unsubscribe(*this, request);
}

}  // namespace gateway
