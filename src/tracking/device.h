#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "contract/gateway.h"
#include "contract/interfaces.h"
#include "services/wancommoninterfaceconfig.h"
#include "services/wanipconnection.h"
#include "tk/message.h"

namespace gateway {

class Tracking;

/// Orders IPv4 addresses by their numeric value: 10.0.0.5 comes before 10.0.1.2.
/// Byte order: network.
struct NumericOrder {
    bool operator()(std::uint32_t left, std::uint32_t right) const;
};

using contract::Role;

/// One of the router's interfaces: what the router reports of it, its addresses, its role, and what the
/// started role needs. A role is stopped before its device is destroyed.
class Device {
public:
    /// Lifetime: `tracking`, which starts and stops the role, outlives the device.
    explicit Device(Tracking& tracking) : tracking(tracking) {}
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device();

    contract::InterfaceRecord record;  // as last received
    Role type = Role::none;
    bool disabled = false;
    bool running = false;
    std::set<std::uint32_t, NumericOrder> addresses;
    std::uint32_t address = 0;    // the one in use, in network order; 0: none
    Role startedAs = Role::none;  // the started role; `type` may have changed since
    int ssdpSocket = 0;           // internal role; 0 while stopped, -1 if opening failed
    int httpSocket = 0;           // internal role: the listener; values as above
    std::unique_ptr<WANCommonInterfaceConfig> commonConfig;  // external role
    std::unique_ptr<WANIPConnection> ipConnection;           // external role

    /// Values of the record.
    std::uint32_t id() const;
    std::uint32_t index() const;
    std::string name() const;
    std::string displayName() const;

    /// True while a role is started.
    bool isStarted() const { return startedAs != Role::none; }

    /// The state for WANIPConnection: 3 when the interface is disabled, else 2 when it is running, else 1.
    int connectionStatus() const;

    /// Timer callback of the internal role.
    void readvertise();

private:
    Tracking& tracking;
};

}  // namespace gateway
