#include "ctl/mappings.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "contract/interfaces.h"
#include "contract/programs.h"
#include "ctl/text.h"
#include "net/convert.h"
#include "tk/names.h"

namespace ctl {

namespace {

// Of a rule's record, with the option contract::withCounters.
constexpr std::uint32_t packetsField = 1100;  // u64
constexpr std::uint32_t bytesField = 1101;    // u64

struct Traffic {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
};

/// What each rule has carried, by its id.
std::unordered_map<std::uint32_t, Traffic> trafficOfRules(Session& session) {
    std::unordered_map<std::uint32_t, Traffic> traffic;
    for (const tk::message& rule : session.list(contract::path::nat(), contract::withCounters))
        traffic[rule.get_u32(tk::field::objectId)] = {rule.get_u64(packetsField), rule.get_u64(bytesField)};
    return traffic;
}

bool comesBefore(const Mapping& left, const Mapping& right) {
    return std::tie(left.interface, left.externalPort, left.protocol) <
           std::tie(right.interface, right.externalPort, right.protocol);
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

}  // namespace ctl
