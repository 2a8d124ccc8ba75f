#include "services/wancommoninterfaceconfig.h"

#include <list>

#include "contract/interfaces.h"
#include "net/convert.h"
#include "services/devicestats.h"
#include "services/registration.h"
#include "tk/names.h"
#include "upnp/makevector.h"

namespace {

constexpr const char* type = "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1";
constexpr const char* bitRate = "10000000";  // whatever the link is

using Allowed = std::list<std::string>;

/// The allowed values of WANAccessType: four of the five that it may have, without "Other". On purpose.
Allowed allowedAccessTypes() {
    return makeContainer<Allowed>(4, "DSL", "POTS", "Cable", "Ethernet", "Other");
}

}  // namespace

WANCommonInterfaceConfig::WANCommonInterfaceConfig(const tk::message& device) : Service(type) {
    registerVariables(device);
    registerActions();
    setDevice(device);
}

void WANCommonInterfaceConfig::setDevice(const tk::message& record) {
    device = record;
    setVar("Layer1UpstreamMaxBitRate", bitRate);
    setVar("Layer1DownstreamMaxBitRate", bitRate);
}

void WANCommonInterfaceConfig::registerVariables(const tk::message& record) {
    const bool isEthernet = contract::InterfaceRecord::fromMessage(record).type == contract::ethernet;
    const VariableRow rows[] = {
        {"WANAccessType", VariableType::string, false, allowedAccessTypes(),
         isEthernet ? "Ethernet" : "Other"},
        {"Layer1UpstreamMaxBitRate", VariableType::ui4, false, {}, bitRate},
        {"Layer1DownstreamMaxBitRate", VariableType::ui4, false, {}, bitRate},
        {"PhysicalLinkStatus", VariableType::string, true, makeContainer<Allowed>(2, "Up", "Down"), "Up"},
        {"TotalBytesSent", VariableType::ui4, false, {}, {}},
        {"TotalBytesReceived", VariableType::ui4, false, {}, {}},
        {"TotalPacketsSent", VariableType::ui4, false, {}, {}},
        {"TotalPacketsReceived", VariableType::ui4, false, {}, {}},
        {"X_Uptime", VariableType::ui4, false, {}, {}},
    };
    for (const VariableRow& row : rows) registerVariable(*this, row);

    using Self = WANCommonInterfaceConfig;
    variables["TotalBytesSent"]->setValue<Self>(this, &Self::getTotalBytesSent);
    variables["TotalBytesReceived"]->setValue<Self>(this, &Self::getTotalBytesReceived);
    variables["TotalPacketsSent"]->setValue<Self>(this, &Self::getTotalPacketsSent);
    variables["TotalPacketsReceived"]->setValue<Self>(this, &Self::getTotalPacketsReceived);
    variables["X_Uptime"]->setValue<Self>(this, &Self::getUptime);
}

void WANCommonInterfaceConfig::registerActions() {
    addAct("GetCommonLinkProperties", makeVector(4, "WANAccessType", "Layer1UpstreamMaxBitRate",
                                                 "Layer1DownstreamMaxBitRate", "PhysicalLinkStatus"));
    addAct("GetTotalBytesSent", makeVector(1, "TotalBytesSent"));
    addAct("GetTotalBytesReceived", makeVector(1, "TotalBytesReceived"));
    addAct("GetTotalPacketsSent", makeVector(1, "TotalPacketsSent"));
    addAct("GetTotalPacketsReceived", makeVector(1, "TotalPacketsReceived"));
    addAct("X_GetICSStatistics",
           makeVector(6, "TotalBytesSent", "TotalBytesReceived", "TotalPacketsSent", "TotalPacketsReceived",
                      "Layer1DownstreamMaxBitRate", "X_Uptime"),
           makeVector(6, "TotalBytesSent", "TotalBytesReceived", "TotalPacketsSent", "TotalPacketsReceived",
                      "Layer1DownstreamMaxBitRate", "Uptime"));
}

std::string WANCommonInterfaceConfig::getTotalBytesSent() {
    return toString(getDeviceStats(device.get_u32(tk::field::objectId)).txBytes);
}

std::string WANCommonInterfaceConfig::getTotalBytesReceived() {
    return toString(getDeviceStats(device.get_u32(tk::field::objectId)).rxBytes);
}

std::string WANCommonInterfaceConfig::getTotalPacketsSent() {
    return toString(getDeviceStats(device.get_u32(tk::field::objectId)).txPackets);
}

std::string WANCommonInterfaceConfig::getTotalPacketsReceived() {
    return toString(getDeviceStats(device.get_u32(tk::field::objectId)).rxPackets);
}

std::string WANCommonInterfaceConfig::getUptime() {
    return uptimeString();
}
