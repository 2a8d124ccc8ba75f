#include "services/wancommoninterfaceconfig.h"

#include <list>

#include "contract/interfaces.h"
#include "contract/programs.h"
#include "net/convert.h"
#include "services/registration.h"
#include "tk/log.h"
#include "tk/looper.h"
#include "tk/names.h"
#include "upnp/makevector.h"

namespace gateway {

namespace {

constexpr const char* type = "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1";
constexpr const char* bitRate = "10000000";  // whatever the link is

using Allowed = std::list<std::string>;

/// The allowed values of WANAccessType: four of the five possible ones, without "Other". On purpose.
Allowed allowedAccessTypes() {
    return makeContainer<Allowed>(4, "DSL", "POTS", "Cable", "Ethernet", "Other");
}

/// The traffic counters of an interface. Each is the low 32 bits of the router's counter, so it wraps at
/// 2^32.
struct DeviceStats {
    std::uint32_t rxPackets = 0;
    std::uint32_t txPackets = 0;
    std::uint32_t rxBytes = 0;
    std::uint32_t txBytes = 0;
};

/// Asks the router for the counters of the interface with the bus object `deviceId`.
/// Errors: logged; all counters are 0 then.
DeviceStats getDeviceStats(std::uint32_t deviceId) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, contract::path::interfaces());
    request.insert_u32(tk::field::objectId, deviceId);
    request.insert_u32(tk::field::options, contract::withCounters);
    const tk::message reply =
        tk::getLooper()->exchangeCmd(request, tk::command::getObject, tk::exchangeTimeout);
    if (tk::isError(reply)) tk::log("get device stats: ", tk::getError(reply));
    DeviceStats stats;
    stats.rxPackets = static_cast<std::uint32_t>(reply.get_u64(contract::interfacefield::rxPackets));
    stats.txPackets = static_cast<std::uint32_t>(reply.get_u64(contract::interfacefield::txPackets));
    stats.rxBytes = static_cast<std::uint32_t>(reply.get_u64(contract::interfacefield::rxBytes));
    stats.txBytes = static_cast<std::uint32_t>(reply.get_u64(contract::interfacefield::txBytes));
    return stats;
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

}  // namespace gateway
