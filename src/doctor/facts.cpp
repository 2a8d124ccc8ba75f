#include "doctor/facts.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace doctor {

namespace {

constexpr std::size_t flowsAtMost = 256;     // more would hardly meet other rules
constexpr std::uint16_t madeUpPort = 51413;  // one that no rule is likely to name
constexpr std::uint32_t hostBits = 0xFE;     // a host that is hardly the router

/// A host of a network other than the router.
std::uint32_t someHost(const machine::Address& address) {
    const std::uint32_t network = ntohl(address.network.address), own = ntohl(address.address);
    const unsigned length = address.network.length;
    constexpr unsigned longest = 30;
    if (length > longest) return own ^ 1;
    const std::uint32_t last = network | ((std::uint32_t{1} << (32 - length)) - 2);
    const std::uint32_t host = length <= 24 ? (network | hostBits) : last;
    return host == own ? host - 1 : host;
}

}  // namespace

std::vector<RoleFact> Facts::rolesOf(contract::Role role) const {
    std::vector<RoleFact> found;
    for (const RoleFact& fact : bus.roles)
        if (fact.role == role && !fact.isDisabled && !fact.name.empty()) found.push_back(fact);
    return found;
}

const ProgramFact* Facts::program(std::uint32_t number) const {
    for (const ProgramFact& fact : bus.programs)
        if (fact.number == number) return &fact;
    return nullptr;
}

std::vector<machine::Address> Facts::addressesOf(const std::string& interface) const {
    std::vector<machine::Address> found;
    for (const machine::Address& address : machine.links.addresses)
        if (address.interface == interface && address.scope != "host") found.push_back(address);
    return found;
}

std::vector<MappedFlow> Facts::flowsToTry() const {
    std::vector<MappedFlow> flows;
    for (MappedFlow flow : bus.flows) {
        for (const machine::Address& address : machine.links.addresses) {
            if (address.address == htonl(flow.externalAddress)) flow.external = address.interface;
            if (address.network.contains(htonl(flow.client))) flow.internal = address.interface;
        }
        if (!flow.external.empty() && !flow.internal.empty() && flows.size() < flowsAtMost)
            flows.push_back(flow);
    }
    if (!flows.empty()) return flows;
    for (const RoleFact& external : rolesOf(contract::Role::external))
        for (const RoleFact& internal : rolesOf(contract::Role::internal))
            for (const machine::Address& from : addressesOf(external.name))
                for (const machine::Address& to : addressesOf(internal.name))
                    for (const std::uint8_t protocol : {std::uint8_t{IPPROTO_TCP}, std::uint8_t{IPPROTO_UDP}})
                        flows.push_back({external.name, internal.name, ntohl(from.address), madeUpPort,
                                         protocol, someHost(to), madeUpPort});
    return flows;
}

}  // namespace doctor
