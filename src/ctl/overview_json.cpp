// An overview as scripts see it.

#include "ctl/overview.h"

#include "contract/programs.h"
#include "ctl/gatewayjson.h"
#include "ctl/text.h"
#include "net/convert.h"

namespace ctl {

namespace {

Json interfaceAt(const ServedInterface& entry, std::uint32_t address) {
    Json object;
    object["interface"] = entry.interface;
    object["name"] = entry.name;
    object["address"] = gateway::ipToString(address);
    return object;
}

Json discoverableToJson(const Overview& overview) {
    Json list = Json::array();
    for (const ServedInterface* entry : inForce(overview, contract::Role::internal))
        for (const std::uint32_t address : entry->addresses) {
            Json object = interfaceAt(*entry, address);
            object["url"] = descriptionUrl(address);
            list.push_back(std::move(object));
        }
    return list;
}

Json externalToJson(const Overview& overview) {
    Json list = Json::array();
    for (const ServedInterface* entry : inForce(overview, contract::Role::external))
        for (const std::uint32_t address : entry->addresses) list.push_back(interfaceAt(*entry, address));
    return list;
}

Json refusalToJson(const contract::MappingRefusal& refusal) {
    Json object;
    object["time"] = timeText(refusal.time);
    object["requestedBy"] = gateway::ipToString(refusal.requester);
    object["externalPort"] = refusal.externalPort;
    object["protocol"] = protocolText(refusal.protocol);
    object["internalClient"] = gateway::ipToString(refusal.internalClient);
    object["internalPort"] = refusal.internalPort;
    object["code"] = refusal.code;
    object["reason"] = refusal.reason;
    object["times"] = refusal.count;
    return object;
}

Json programToJson(const RunningProgram& program) {
    Json object;
    object["number"] = program.number;
    object["name"] = programText(program.number);
    object["pid"] = program.pid;
    object["user"] = userName(program.uid);
    return object;
}

Json servedToJson(const ServedInterface& entry) {
    return itemToJson(entry.item, {entry.interface, entry.role, entry.isDisabled}, entry.name);
}

template <typename List, typename Convert>
Json listToJson(const List& list, Convert convert) {
    Json out = Json::array();
    for (const auto& entry : list) out.push_back(convert(entry));
    return out;
}

}  // namespace

Json overviewToJson(const Overview& overview) {
    Json object;
    object["running"] = overview.routerFailure.empty();
    object["enabled"] = overview.settings ? Json(overview.settings->enabled) : Json();
    object["settings"] = overview.settings ? settingsToJson(*overview.settings) : Json();
    object["interfaces"] = listToJson(overview.served, servedToJson);
    object["discoverable"] = discoverableToJson(overview);
    object["external"] = externalToJson(overview);
    object["mappings"] = listToJson(overview.mappings, mappingToJson);
    object["refused"] = listToJson(overview.refusals, refusalToJson);
    object["programs"] = overview.programs ? listToJson(*overview.programs, programToJson) : Json::array();
    object["problems"] = problemsOf(overview);
    return object;
}

}  // namespace ctl
