// The port mapping table of WANIPConnection and the four actions on it.

#include "services/wanipconnection.h"

#include <utility>

#include "net/convert.h"
#include "services/natrequests.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/runner.h"

namespace gateway {

namespace {

constexpr std::uint32_t noAddress = 0xFFFFFFFF;  // toAddress() of a text that is not an address

constexpr const char* permanent = "0";  // the lease of every mapping

// Some control points need to see at least one entry. This one exists only in answers, always as the first.
constexpr const char* dummyDescription = "Dummy inactive rule for windows to work";

using Arguments = std::vector<std::string>;

PortMap dummyMap() {
    PortMap dummy;
    dummy.description = dummyDescription;
    return dummy;
}

void answerKey(Arguments& out, const Id& id) {
    out.insert(out.end(), {"", toString(unsigned{id.port}), protocolName(id.protocol)});
}

void answerValue(Arguments& out, const PortMap& map) {
    out.insert(out.end(), {toString(unsigned{map.internalPort}), ipToString(map.internalClient),
                           map.enabled ? "1" : "0", map.description, permanent});
}

/// The in-arguments that name a mapping, in order.
/// Lifetime: as long as the arguments.
struct KeyArguments {
    const std::string& remoteHost;
    const std::string& externalPort;
    const std::string& protocol;
};

KeyArguments readKey(const Arguments& in) {
    return {in[0], in[1], in[2]};
}

/// The in-arguments of AddPortMapping that describe a mapping; they follow its key.
/// Lifetime: as long as the arguments.
struct ValueArguments {
    const std::string& internalPort;
    const std::string& internalClient;
    const std::string& enabled;
    const std::string& description;
    const std::string& leaseDuration;
};

ValueArguments readValue(const Arguments& in) {
    return {in[3], in[4], in[5], in[6], in[7]};
}

bool isTrue(const std::string& text) {
    return text == "yes" || text == "1" || text == "true";
}

PortMap toPortMap(const ValueArguments& value) {
    PortMap map;
    map.internalPort = static_cast<std::uint16_t>(toUnsigned(value.internalPort));
    map.internalClient = toAddress(value.internalClient);
    map.enabled = isTrue(value.enabled);
    map.description = value.description;
    return map;
}

/// The outcome of a request that is answered with a fault.
tk::Status refusal(UPNPStatus code, const std::string& reason) {
    return tk::Status::failure(reason, static_cast<std::uint32_t>(code));
}

}  // namespace

void WANIPConnection::countMaps(bool withDummy) {
    const std::size_t count = portMaps.size() + (withDummy ? 1 : 0);
    setVar("PortMappingNumberOfEntries", toString(static_cast<unsigned>(count)));
}

UPNPStatus WANIPConnection::addPortMapping(const Arguments& in, Arguments&) {
    const tk::Status outcome = mapPort(in);
    if (outcome.isOk()) return upnpstatus::ok;
    noteRefusal(in, outcome);
    return static_cast<UPNPStatus>(outcome.code());
}

/// Carries out AddPortMapping. The code of a failure is the one that the fault gives.
tk::Status WANIPConnection::mapPort(const Arguments& in) {
    const KeyArguments key = readKey(in);
    const ValueArguments value = readValue(in);
    if (toAddress(key.remoteHost) != noAddress) {
        tk::log("addPortMapping: REMOTE_ONLY_WILDCARD: '", key.remoteHost, "'");
        return refusal(upnpstatus::remoteHostOnlySupportsWildcard,
                       "a mapping for one remote host alone is not supported");
    }
    if (key.externalPort.empty()) {
        tk::log("addPortMapping: EXT_PORT_NO_WILDCARD");
        return refusal(upnpstatus::wildcardNotPermittedInExtPort, "no external port was given");
    }
    PortMap map = toPortMap(value);
    map.requester = requester();
    if (toUnsigned(value.leaseDuration) != 0) {
        tk::log("addPortMapping: ONLY_PERM_LEASES");
        return refusal(upnpstatus::onlyPermanentLeasesSupported,
                       "a mapping for a limited time is not supported");
    }
    const Id id = toId(key.externalPort, key.protocol);
    PortMap* const existing = portMaps.find(id);
    tk::log(existing ? "set map " : "add map ", key.externalPort, "->", value.internalPort, ", ",
            value.internalClient);
    return existing ? changeMap(*existing, std::move(map)) : addMap(id, std::move(map));
}

tk::Status WANIPConnection::addMap(const Id& id, PortMap map) {
    if (const tk::Status room = descriptions.roomFor(map, nullptr); !room.isOk()) {
        tk::log("add nat failed: ", room.reason());
        return refusal(upnpstatus::actionFailed, room.reason());
    }
    const tk::message reply = createNatRule(id, map, externalAddress);
    if (tk::isError(reply)) {
        tk::log("add nat failed: ", tk::getError(reply));
        return refusal(upnpstatus::actionFailed, tk::getError(reply));
    }
    map.natId = reply.get_u32(tk::field::objectId);
    map.since = static_cast<std::uint32_t>(tk::getRunner()->date());
    descriptions.take(map);
    portMaps.add(id, std::move(map));
    countMaps(showDummyRule);
    return {};
}

tk::Status WANIPConnection::changeMap(PortMap& existing, PortMap map) {
    if (map.internalClient != existing.internalClient) {
        tk::log("addPortMapping: CONFLICT_IN_ENTRY");
        return refusal(upnpstatus::conflictInMappingEntry,
                       "the port is mapped to " + ipToString(existing.internalClient) + " already");
    }
    if (const tk::Status room = descriptions.roomFor(map, &existing); !room.isOk()) {
        tk::log("set nat failed: ", room.reason());
        return refusal(upnpstatus::actionFailed, room.reason());
    }
    map.natId = existing.natId;
    map.since = existing.since;
    const tk::message reply = changeNatRule(map);
    if (tk::isError(reply)) {
        tk::log("set nat failed: ", tk::getError(reply));
        return refusal(upnpstatus::actionFailed, tk::getError(reply));
    }
    descriptions.giveBack(existing);
    descriptions.take(map);
    existing = std::move(map);
    return {};
}

void WANIPConnection::noteRefusal(const Arguments& in, const tk::Status& refusal) {
    const KeyArguments key = readKey(in);
    const PortMap wanted = toPortMap(readValue(in));
    const Id id = toId(key.externalPort, key.protocol);
    const bool isExplained = !refusal.reason().empty();
    refused.add({.time = tk::getRunner()->date(),
                 .requester = requester(),
                 .externalPort = id.port,
                 .protocol = ipProtocol(id),
                 .internalClient = wanted.internalClient,
                 .internalPort = wanted.internalPort,
                 .code = refusal.code(),
                 .reason = isExplained ? refusal.reason()
                                       : errorDescription(static_cast<UPNPStatus>(refusal.code()))});
}

UPNPStatus WANIPConnection::deletePortMapping(const Arguments& in, Arguments&) {
    const KeyArguments key = readKey(in);
    const Id id = toId(key.externalPort, key.protocol);
    const PortMap* const existing = portMaps.find(id);
    if (!existing) {
        tk::log("deletePortMapping: NO_SUCH_ENTRY");
        return upnpstatus::noSuchEntryInArray;
    }
    tk::log("del map ", key.externalPort);
    const tk::message reply = removeNatRule(existing->natId);
    if (tk::isError(reply)) {
        tk::log("remove nat failed: ", tk::getError(reply));
        return upnpstatus::actionFailed;
    }
    descriptions.giveBack(*existing);
    portMaps.erase(id);
    countMaps(showDummyRule);
    return upnpstatus::ok;
}

UPNPStatus WANIPConnection::getGenericPortMappingEntry(const Arguments& in, Arguments& out) {
    std::uint32_t index = toUnsigned(in.front());  // NewPortMappingIndex, the only argument
    if (showDummyRule && index == 0) {
        answerKey(out, Id{});
        answerValue(out, dummyMap());
        return upnpstatus::ok;
    }
    if (showDummyRule) --index;
    if (index >= portMaps.size()) return upnpstatus::specifiedArrayIndexInvalid;
    const auto& [id, map] = portMaps.at(index);
    answerKey(out, id);
    answerValue(out, map);
    return upnpstatus::ok;
}

UPNPStatus WANIPConnection::getSpecificPortMappingEntry(const Arguments& in, Arguments& out) {
    const KeyArguments key = readKey(in);
    if (key.remoteHost.empty() && key.externalPort == "0" && key.protocol == "TCP") {
        answerValue(out, dummyMap());  // even before a real mapping of that port. On purpose.
        return upnpstatus::ok;
    }
    if (!key.remoteHost.empty()) return upnpstatus::noSuchEntryInArray;
    const PortMap* const existing = portMaps.find(toId(key.externalPort, key.protocol));
    if (!existing) return upnpstatus::noSuchEntryInArray;
    answerValue(out, *existing);
    return upnpstatus::ok;
}

void WANIPConnection::removeNatRules() {
    for (const auto& [id, map] : portMaps.entries()) {
        const tk::message reply = removeNatRule(map.natId);
        if (tk::isError(reply)) tk::log("on cleanup remove nat failed: ", tk::getError(reply));
    }
    portMaps.clear();
}

}  // namespace gateway
