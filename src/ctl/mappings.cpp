#include "ctl/mappings.h"

#include <algorithm>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>

#include <CLI/App.hpp>

#include "contract/natrules.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/commands.h"
#include "ctl/context.h"
#include "ctl/interfaces.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "net/convert.h"
#include "tk/names.h"

namespace ctl {

namespace {

using contract::NatTraffic;

/// What has passed by each rule, by its id.
std::unordered_map<std::uint32_t, NatTraffic> trafficOfRules(Session& session) {
    tk::message query;
    query.insert_u32(tk::field::options, contract::withTraffic);
    std::unordered_map<std::uint32_t, NatTraffic> traffic;
    for (const tk::message& rule : session.list(contract::path::nat(), query))
        traffic[rule.get_u32(tk::field::objectId)] = NatTraffic::fromMessage(rule);
    return traffic;
}

bool comesBefore(const Mapping& left, const Mapping& right) {
    return std::tie(left.interface, left.externalPort, left.protocol) <
           std::tie(right.interface, right.externalPort, right.protocol);
}

void listMappings(Context& context) {
    Session& session = context.session();
    const std::vector<Interface> interfaces = readInterfaces(session);
    Json list = Json::array();
    Table table({"INTERFACE", "PROTOCOL", "PORT", "TO", "ENABLED", "DESCRIPTION", "ASKED BY", "SINCE",
                 "PACKETS", "BYTES"});
    bool areAllEnabled = true;
    for (const Mapping& mapping : mappingsOf(session)) {
        areAllEnabled = areAllEnabled && mapping.enabled;
        list.push_back(mappingToJson(mapping));
        const std::string name = interfaceName(interfaces, mapping.interface);
        table.add({name.empty() ? std::to_string(mapping.interface) : name, protocolText(mapping.protocol),
                   std::to_string(mapping.externalPort),
                   gateway::ipToString(mapping.internalClient) + ':' + std::to_string(mapping.internalPort),
                   yesNo(mapping.enabled), beginningOf(mapping.description),
                   gateway::ipToString(mapping.requestedBy), timeText(mapping.since),
                   std::to_string(mapping.packets), std::to_string(mapping.bytes)});
    }
    table.keepWhole("TO");
    table.keepWhole("ASKED BY");
    table.dropToFit(context.terminal, {"SINCE"});
    if (areAllEnabled) table.dropToFit(context.terminal, {"ENABLED"});  // else it tells something
    table.dropToFit(context.terminal, {"INTERFACE", "PACKETS", "ENABLED"});
    context.print(list, table);
}

}  // namespace

std::vector<Mapping> mappingsOf(Session& session) {
    std::vector<Mapping> mappings;
    for (const tk::message& record : session.list(contract::path::mappings()))
        mappings.push_back({contract::MappingRecord::fromMessage(record)});
    if (mappings.empty()) return mappings;
    const auto traffic = trafficOfRules(session);
    for (Mapping& mapping : mappings) {
        const auto rule = traffic.find(mapping.id);
        if (rule == traffic.end()) continue;
        mapping.packets = rule->second.packets;
        mapping.bytes = rule->second.bytes;
    }
    std::sort(mappings.begin(), mappings.end(), comesBefore);
    return mappings;
}

std::vector<contract::MappingRefusal> refusalsOf(Session& session) {
    const tk::message reply = session.request(contract::path::mappings(), contract::recentRefusals);
    std::vector<contract::MappingRefusal> refusals;
    for (const tk::message& record : reply.get_message_array(tk::field::objects))
        refusals.push_back(contract::MappingRefusal::fromMessage(record));
    return refusals;
}

Json mappingToJson(const Mapping& mapping) {
    Json object;
    object["interface"] = mapping.interface;
    object["externalPort"] = mapping.externalPort;
    object["protocol"] = protocolText(mapping.protocol);
    object["internalClient"] = gateway::ipToString(mapping.internalClient);
    object["internalPort"] = mapping.internalPort;
    object["enabled"] = mapping.enabled;
    object["description"] = mapping.description;
    object["requestedBy"] = gateway::ipToString(mapping.requestedBy);
    object["since"] = timeText(mapping.since);
    object["packets"] = mapping.packets;
    object["bytes"] = mapping.bytes;
    return object;
}

void addUpnpMappingsCommand(CLI::App& upnp, Context& context) {
    CLI::App& command =
        addCommand(upnp, context, "mappings",
                   "List the ports that hosts in the LAN have mapped, and the traffic that used them",
                   [&context] { listMappings(context); });
    addExample(command, "--json");
}

}  // namespace ctl
