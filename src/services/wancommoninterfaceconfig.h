#pragma once

#include <string>

#include "tk/message.h"
#include "upnp/service.h"

namespace gateway {

/// Reports the link and the traffic counters of one external interface.
/// Protocol: WANCommonInterfaceConfig:1 of the Internet Gateway Device 1.0.
class WANCommonInterfaceConfig final : public Service {
public:
    /// `device` is the bus record of the external interface.
    explicit WANCommonInterfaceConfig(const tk::message& device);

    /// Takes a new record of the interface, and sets the two bit rates.
    void setDevice(const tk::message& record);

private:
    void registerVariables(const tk::message& record);
    void registerActions();

    // The getters of the counters. Each call sends a query.
    std::string getTotalBytesSent();
    std::string getTotalBytesReceived();
    std::string getTotalPacketsSent();
    std::string getTotalPacketsReceived();
    std::string getUptime();

    tk::message device;
};

}  // namespace gateway
