#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "services/descriptionbudget.h"
#include "services/portmap.h"
#include "services/portmaptable.h"
#include "services/refusedmappings.h"
#include "tk/status.h"
#include "upnp/service.h"

namespace gateway {

/// Maps ports on one external interface and reports its connection.
///
/// Mappings live only here and in the firewall. They are never stored, never expire, and leave the firewall
/// when the object is destroyed.
/// Protocol: WANIPConnection:1 of the Internet Gateway Device 1.0.
class WANIPConnection final : public Service {
public:
    /// `deviceId` is the bus object of the external interface, `externalAddress` its address in network
    /// order. What control points ask for and do not get goes to `refused`.
    WANIPConnection(std::uint32_t deviceId, std::uint32_t externalAddress, RefusedMappings& refused);
    ~WANIPConnection() override;

    /// Changes the external address for new rules; existing rules keep theirs.
    /// Byte order: network.
    void setExternalAddress(std::uint32_t address);
    /// Sets ConnectionStatus: 1 is connecting, 2 connected, 3 disconnected, anything else unconfigured.
    void setConnectionStatus(int state);
    /// Sets whether PortMappingNumberOfEntries counts the dummy entry. An unchanged setting has no effect.
    void setShowDummyRule(bool show);

    /// The mappings in the order of their keys, without the dummy entry.
    const PortMapTable::Entries& mappings() const { return portMaps.entries(); }

    /// True when control points may enable and disable the external interface.
    bool allowDisableExternal = true;

private:
    using Arguments = std::vector<std::string>;

    void registerVariables();
    void registerConnectionActions();
    void registerMappingActions();

    UPNPStatus setConnectionType(const Arguments& in, Arguments& out);
    UPNPStatus requestConnection(const Arguments& in, Arguments& out);
    UPNPStatus forceTermination(const Arguments& in, Arguments& out);
    [[nodiscard]] UPNPStatus switchInterface(bool disable);
    std::string getUptime();

    UPNPStatus addPortMapping(const Arguments& in, Arguments& out);
    UPNPStatus deletePortMapping(const Arguments& in, Arguments& out);
    UPNPStatus getGenericPortMappingEntry(const Arguments& in, Arguments& out);
    UPNPStatus getSpecificPortMappingEntry(const Arguments& in, Arguments& out);
    [[nodiscard]] tk::Status mapPort(const Arguments& in);
    [[nodiscard]] tk::Status addMap(const Id& id, PortMap map);
    [[nodiscard]] tk::Status changeMap(PortMap& existing, PortMap map);
    void noteRefusal(const Arguments& in, const tk::Status& refusal);
    void countMaps(bool withDummy);
    void removeNatRules();

    std::uint32_t deviceId;
    PortMapTable portMaps;
    std::uint32_t externalAddress;
    bool showDummyRule = true;
    DescriptionBudget descriptions;
    RefusedMappings& refused;
};

}  // namespace gateway
