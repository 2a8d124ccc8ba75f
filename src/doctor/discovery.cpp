#include <algorithm>

#include "contract/ports.h"
#include "contract/programs.h"
#include "doctor/judgements.h"
#include "tk/characters.h"

namespace doctor {

namespace {

bool covers(const SocketFact& socket, const std::string& interface) {
    return socket.device.empty() || socket.device == interface;
}

/// True when the socket is, or may be, the gateway daemon's: only root is told who holds a socket.
bool mayBeDaemons(const Facts& facts, const SocketFact& socket) {
    if (socket.pid == 0) return true;
    const ProgramFact* daemon = facts.program(contract::program::gateway);
    return daemon ? socket.pid == daemon->pid : socket.program == "upnpd";
}

std::string holderText(const SocketFact& socket) {
    return socket.program + " (process " + std::to_string(socket.pid) + ')';
}

/// Looks at the holders of one port where an interface is concerned.
void judgePort(const Facts& facts, const std::string& interface, bool isTcp, Findings& findings) {
    const SocketFact* own = nullptr;
    const SocketFact* other = nullptr;
    for (const SocketFact& socket : facts.machine.sockets) {
        if (socket.isTcp != isTcp || !covers(socket, interface)) continue;
        (mayBeDaemons(facts, socket) ? own : other) = &socket;
    }
    const std::string port =
        isTcp ? "TCP " + std::to_string(contract::httpPort) : "UDP " + std::to_string(contract::ssdpPort);
    if (other && own)
        findings.push_back(
            {"port-shared",
             Severity::note,
             port,
             holderText(*other) + " also listens at " + port + '.',
             "It announces or serves something of its own. On " + interface + " both get the searches.",
             {}});
    else if (other && facts.bus.settings.enabled)
        findings.push_back({"port-taken",
                            Severity::error,
                            port,
                            holderText(*other) + " holds " + port + '.',
                            "upnpd cannot serve " + interface + " there.",
                            {"# stop that program, or let it use another port or interface; then:",
                             "tkctl upnp set enabled=no", "tkctl upnp set enabled=yes"}});
}

/// The bridge that an interface is or is in; null when there is none.
const BridgeFact* bridgeOf(const Facts& facts, const std::string& interface) {
    const machine::Link* link = facts.machine.links.find(interface);
    for (const BridgeFact& bridge : facts.machine.bridges)
        if (bridge.name == interface || (link && !link->master.empty() && bridge.name == link->master))
            return &bridge;
    return nullptr;
}

void judgeSnooping(const Facts& facts, const std::string& interface, Findings& findings) {
    const BridgeFact* bridge = bridgeOf(facts, interface);
    if (!bridge || !bridge->isSnooping || bridge->isQuerier || bridge->hasOtherQuerier) return;
    findings.push_back(
        {"snooping-without-querier",
         Severity::warning,
         bridge->name,
         bridge->name + " snoops multicast, but nobody in its network asks who listens (no querier).",
         "Bridges and switches that snoop forget after some minutes who listens to searches and adverts.",
         {"ip link set " + bridge->name + " type bridge mcast_querier 1"}});
}

void judgeGateway(const OtherGateway& gateway, Findings& findings) {
    findings.push_back(
        {"other-gateway",
         Severity::error,
         gateway.interface,
         "Another gateway answers searches on " + gateway.interface + ": " + gateway.address + ", \"" +
             tk::printable(gateway.server) + "\".",
         "A client takes the one that answers first. Mappings at the other one do not lead through this "
         "router.",
         {"# switch UPnP off on " + gateway.address + ", or give its network no part of this LAN"}});
}

}  // namespace

void judgePorts(const Facts& facts, Findings& findings) {
    for (const RoleFact& role : facts.rolesOf(contract::Role::internal))
        for (const bool isTcp : {false, true}) judgePort(facts, role.name, isTcp, findings);
}

void judgeDiscovery(const Facts& facts, Findings& findings) {
    for (const RoleFact& role : facts.rolesOf(contract::Role::internal))
        judgeSnooping(facts, role.name, findings);
    for (const OtherGateway& gateway : facts.machine.gateways) judgeGateway(gateway, findings);
}

}  // namespace doctor
