#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "http/httpservice.h"
#include "upnp/action.h"
#include "upnp/subscription.h"
#include "upnp/variable.h"

namespace gateway {

/// One UPnP service at run time: its state variables, actions, subscribers, and the events on their way to
/// them. Concrete services derive from it, and fill the tables of variables and actions in their
/// constructors.
class Service : public HTTPService {
public:
    /// One NOTIFY on its way (upnp/event.h).
    class Event;

    /// A service without variables or actions. The type is the full one, "urn:schemas-upnp-org:service:...".
    explicit Service(std::string serviceType);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    /// Drops subscriptions and events with their timers and sockets, without a log line.
    ~Service() override;

    /// Takes over a variable under a name, and returns it to be set up. A variable that had the name before
    /// is no longer found, but lives as long as the service.
    Variable& addVar(const std::string& name, Variable* variable);

    /// Adds a getter action. Without names, each out-argument is named after its variable, with "New" before
    /// it.
    void addAct(const std::string& name, std::vector<std::string> outVars,
                std::vector<std::string> outNames = {});

    /// Adds an action that `method` of `obj` carries out.
    /// Lifetime: the object outlives the service.
    template <typename T>
    void addAct(const std::string& name, std::vector<std::string> inVars, std::vector<std::string> inNames,
                std::vector<std::string> outVars, std::vector<std::string> outNames, T* obj,
                typename ActionCallback<T>::Method method) {
        actions[name] = std::make_unique<Action>(std::move(inVars), std::move(inNames), std::move(outVars),
                                                 std::move(outNames), obj, method);
    }

    /// The current value of a variable; empty when the variable does not exist or has no value.
    std::string getVar(const std::string& name) const;

    /// Gives a variable a fixed value. If it is evented and its text changed, every subscriber is sent an
    /// event. An unknown name is no error.
    void setVar(const std::string& name, const std::string& newValue);

    /// Starts a delivery to a subscriber: of one variable, or of all evented ones when the name is empty.
    /// Errors: logged; nothing is sent then.
    void sendEvent(const Subscription& subscription, const std::string& varName);

    HTTPAnswer handlePost(const HTTPMessage& request, HTTPClient& client) override;
    HTTPAnswer subscribe(const HTTPMessage& request, HTTPClient& client) override;
    HTTPAnswer unsubscribe(const HTTPMessage& request, HTTPClient& client) override;

    const std::string serviceType;
    std::map<std::string, std::unique_ptr<Variable>> variables;          // by name
    std::map<std::string, std::unique_ptr<Action>> actions;              // by name
    std::map<std::string, std::unique_ptr<Subscription>> subscriptions;  // by SID
    std::map<int, std::unique_ptr<Event>> events;                        // by socket descriptor

protected:
    /// The address of the host that called the current action.
    /// Byte order: network.
    std::uint32_t requester() const { return requesterAddress; }

private:
    void dropOrphanedEvents();
    [[nodiscard]] bool mayDeliverTo(const Subscription& subscription) const;

    std::vector<std::unique_ptr<Variable>> replacedVariables;
    std::map<std::string, std::size_t> deliveries;  // how many events are on their way, by SID
    std::uint32_t requesterAddress = 0;
};

}  // namespace gateway
