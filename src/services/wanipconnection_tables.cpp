// What WANIPConnection registers: its state variables and actions, in the order of the service description.

#include "services/wanipconnection.h"

#include <list>
#include <memory>

#include "net/convert.h"
#include "services/registration.h"
#include "upnp/makevector.h"

namespace gateway {

namespace {

using Allowed = std::list<std::string>;

}  // namespace

void WANIPConnection::registerVariables() {
    const VariableRow rows[] = {
        {"ConnectionType", VariableType::string, false,
         makeContainer<Allowed>(3, "Unconfigured", "IP_Routed", "IP_Bridged"), "IP_Routed"},
        {"PossibleConnectionTypes", VariableType::string, true, makeContainer<Allowed>(1, "IP_Routed"),
         "IP_Routed"},
        {"ConnectionStatus", VariableType::string, true,
         makeContainer<Allowed>(4, "Unconfigured", "Connected", "Disconnected", "Connecting"),
         "Unconfigured"},
        {"X_Name", VariableType::string, false, {}, "Local Area Connection"},
        {"Uptime", VariableType::ui4, false, {}, {}},
        {"LastConnectionError", VariableType::string, false, makeContainer<Allowed>(1, "ERROR_NONE"),
         "ERROR_NONE"},
        {"RSIPAvailable", VariableType::boolean, false, {}, "0"},
        {"NATEnabled", VariableType::boolean, false, {}, "1"},
        {"ExternalIPAddress", VariableType::string, true, {}, ipToString(externalAddress)},
        // 0 although the dummy entry is listed; the first change corrects the number. On purpose.
        {"PortMappingNumberOfEntries", VariableType::ui2, true, {}, "0"},
        // The variables that only describe arguments of the mapping actions. They never get a value.
        {"PortMappingEnabled", VariableType::boolean, false, {}, {}},
        {"PortMappingLeaseDuration", VariableType::ui4, false, {}, {}},
        {"RemoteHost", VariableType::string, false, {}, {}},
        {"ExternalPort", VariableType::ui2, false, {}, {}},
        {"InternalPort", VariableType::ui2, false, {}, {}},
        {"PortMappingProtocol", VariableType::string, false, makeContainer<Allowed>(2, "TCP", "UDP"), {}},
        {"InternalClient", VariableType::string, false, {}, {}},
        {"PortMappingDescription", VariableType::string, false, {}, {}},
    };
    for (const VariableRow& row : rows) registerVariable(*this, row);
    variables["Uptime"]->setValue<WANIPConnection>(this, &WANIPConnection::getUptime);
}

void WANIPConnection::registerConnectionActions() {
    addAct<WANIPConnection>("SetConnectionType", makeVector(1, "ConnectionType"),
                            makeVector(1, "NewConnectionType"), {}, {}, this,
                            &WANIPConnection::setConnectionType);
    addAct("GetConnectionTypeInfo", makeVector(2, "ConnectionType", "PossibleConnectionTypes"));
    addAct<WANIPConnection>("RequestConnection", {}, {}, {}, {}, this, &WANIPConnection::requestConnection);
    addAct<WANIPConnection>("ForceTermination", {}, {}, {}, {}, this, &WANIPConnection::forceTermination);
    addAct("GetStatusInfo", makeVector(3, "ConnectionStatus", "LastConnectionError", "Uptime"));
    addAct("GetNATRSIPStatus", makeVector(2, "RSIPAvailable", "NATEnabled"));
}

void WANIPConnection::registerMappingActions() {
    const Arguments keyVars = makeVector(3, "RemoteHost", "ExternalPort", "PortMappingProtocol");
    const Arguments keyNames = makeVector(3, "NewRemoteHost", "NewExternalPort", "NewProtocol");
    const Arguments valueVars = makeVector(5, "InternalPort", "InternalClient", "PortMappingEnabled",
                                           "PortMappingDescription", "PortMappingLeaseDuration");
    const Arguments valueNames = makeVector(5, "NewInternalPort", "NewInternalClient", "NewEnabled",
                                            "NewPortMappingDescription", "NewLeaseDuration");
    const Arguments allVars = joined(keyVars, valueVars);
    const Arguments allNames = joined(keyNames, valueNames);

    addAct<WANIPConnection>("GetGenericPortMappingEntry", makeVector(1, "PortMappingNumberOfEntries"),
                            makeVector(1, "NewPortMappingIndex"), allVars, allNames, this,
                            &WANIPConnection::getGenericPortMappingEntry);
    addAct<WANIPConnection>("GetSpecificPortMappingEntry", keyVars, keyNames, valueVars, valueNames, this,
                            &WANIPConnection::getSpecificPortMappingEntry);
    addAct<WANIPConnection>("AddPortMapping", allVars, allNames, {}, {}, this,
                            &WANIPConnection::addPortMapping);
    addAct<WANIPConnection>("DeletePortMapping", keyVars, keyNames, {}, {}, this,
                            &WANIPConnection::deletePortMapping);
    addAct("GetExternalIPAddress", makeVector(1, "ExternalIPAddress"));
}

}  // namespace gateway
