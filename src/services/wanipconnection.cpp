#include "services/wanipconnection.h"

#include "contract/programs.h"
#include "net/convert.h"
#include "tk/log.h"
#include "tk/looper.h"
#include "tk/names.h"

namespace gateway {

namespace {

constexpr const char* type = "urn:schemas-upnp-org:service:WANIPConnection:1";

const char* statusText(int state) {
    switch (state) {
        case 1:
            return "Connecting";
        case 2:
            return "Connected";
        case 3:
            return "Disconnected";
        default:
            return "Unconfigured";
    }
}

}  // namespace

WANIPConnection::WANIPConnection(std::uint32_t deviceId, std::uint32_t externalAddress,
                                 RefusedMappings& refused)
    : Service(type), deviceId(deviceId), externalAddress(externalAddress), refused(refused) {
    tk::log("initial external addr: ", ipToString(externalAddress));
    registerVariables();
    registerConnectionActions();
    registerMappingActions();
}

WANIPConnection::~WANIPConnection() {
    removeNatRules();
}

void WANIPConnection::setExternalAddress(std::uint32_t address) {
    tk::log("set external ip ", ipToString(address));
    externalAddress = address;
    setVar("ExternalIPAddress", ipToString(address));
}

void WANIPConnection::setConnectionStatus(int state) {
    setVar("ConnectionStatus", statusText(state));
}

void WANIPConnection::setShowDummyRule(bool show) {
    if (show != showDummyRule) countMaps(show);
    showDummyRule = show;
}

UPNPStatus WANIPConnection::setConnectionType(const Arguments&, Arguments&) {
    return upnpstatus::actionFailed;  // the type of the connection is the router's to choose
}

UPNPStatus WANIPConnection::requestConnection(const Arguments&, Arguments&) {
    return switchInterface(false);
}

UPNPStatus WANIPConnection::forceTermination(const Arguments&, Arguments&) {
    return switchInterface(true);
}

UPNPStatus WANIPConnection::switchInterface(bool disable) {
    if (!allowDisableExternal) return upnpstatus::actionFailed;
    tk::message request;
    request.insert_u32_array(tk::field::destination, contract::path::interfaces());
    request.insert_u32(tk::field::objectId, deviceId);
    request.insert_bool(tk::field::disabled, disable);
    const tk::message reply =
        tk::getLooper()->exchangeCmd(request, tk::command::setObject, tk::exchangeTimeout);
    if (tk::isError(reply)) {
        tk::log(disable ? "disable device failed: " : "enable device failed: ", tk::getError(reply));
        return upnpstatus::actionFailed;
    }
    setConnectionStatus(disable ? 3 : 1);
    return upnpstatus::ok;
}

std::string WANIPConnection::getUptime() {
    return uptimeString();
}

}  // namespace gateway
