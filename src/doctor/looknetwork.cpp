#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <sstream>

#include <nlohmann/json.hpp>

#include "contract/ports.h"
#include "doctor/collect.h"
#include "machine/tool.h"
#include "net/convert.h"
#include "tk/file.h"

namespace doctor {

namespace {

using Json = nlohmann::json;

// Of the Internet, and beyond all private ranges. It is only looked up, never sent to.
constexpr const char* somewhere = "192.31.196.1";

int readSetting(const std::string& name, int absent) {
    constexpr std::size_t limit = 64;
    const auto text = tk::readFile("/proc/sys/net/ipv4/" + name, limit);
    if (!text.isOk()) return absent;
    int value = absent;
    std::from_chars(text->data(), text->data() + text->size(), value);
    return value;
}

InterfaceSettings settingsOf(const std::string& interface) {
    const int common = readSetting("conf/all/rp_filter", 0);
    return {readSetting("conf/" + interface + "/forwarding", 1) != 0,
            std::max(common, readSetting("conf/" + interface + "/rp_filter", 0))};
}

/// The interface by which answers of a host leave; empty when they cannot.
std::string answersLeaveBy(const std::string& client, const std::string& internal) {
    const auto text =
        machine::outputOf({"ip", "-4", "-j", "route", "get", somewhere, "from", client, "iif", internal});
    if (!text.isOk()) return {};
    const Json routes = Json::parse(*text, nullptr, /*allow_exceptions=*/false);
    if (!routes.is_array() || routes.empty() || !routes[0].is_object()) return {};
    return routes[0].value("dev", "");
}

bool rulesLookAtMarks() {
    const auto text = machine::outputOf({"ip", "-4", "-j", "rule", "show"});
    return text.isOk() && text->find("\"fwmark\"") != std::string::npos;
}

/// "192.0.2.1%lan0:2828": the address and the device.
void readPlace(std::string place, SocketFact& out) {
    place.resize(std::min(place.rfind(':'), place.size()));
    const std::size_t percent = place.find('%');
    out.address = place.substr(0, percent);
    if (percent != std::string::npos) out.device = place.substr(percent + 1);
}

/// users:(("upnpd",pid=1,fd=7),...): the first of them.
void readHolder(const std::string& text, SocketFact& out) {
    constexpr std::string_view pid = "pid=";
    const std::size_t open = text.find('"'), close = text.find('"', open + 1), number = text.find(pid);
    if (open == std::string::npos || close == std::string::npos || number == std::string::npos) return;
    out.program = text.substr(open + 1, close - open - 1);
    std::from_chars(text.data() + number + pid.size(), text.data() + text.size(), out.pid);
}

BridgeFact parseBridge(const Json& link) {
    const Json data = link.value("linkinfo", Json::object()).value("info_data", Json::object());
    return {link.at("ifname"), data.value("mcast_snooping", 0) != 0, data.value("mcast_querier", 0) != 0,
            false};
}

/// A bridge learns by queries which of its ports lead to a querier.
void noteQueriers(const Json& groups, std::vector<BridgeFact>& bridges) {
    for (const Json& part : groups) {
        const Json routers = part.value("router", Json::object());
        for (BridgeFact& bridge : bridges)
            for (const Json& port : routers.value(bridge.name, Json::array()))
                bridge.hasOtherQuerier |= port.value("type", "") == "temp";
    }
}

}  // namespace

void lookAtForwarding(const BusFacts& bus, MachineFacts& machine) {
    machine.forwards = machine::isForwarding();
    for (const RoleFact& role : bus.roles)
        if (!role.name.empty()) machine.settings[role.name] = settingsOf(role.name);
    machine.marksChooseRoutes = rulesLookAtMarks();
    if (!machine.forwards) return;  // there are no ways through the router then
    Facts facts{bus, machine};
    facts.bus.flows.clear();  // the made-up ones lead from each side to each other
    for (const MappedFlow& flow : facts.flowsToTry()) {
        if (flow.protocol != IPPROTO_TCP) continue;  // routes are the same for all protocols
        const AnswerRoute answer{flow.external,
                                 answersLeaveBy(gateway::ipToString(htonl(flow.client)), flow.internal)};
        if (std::find(machine.answers.begin(), machine.answers.end(), answer) == machine.answers.end())
            machine.answers.push_back(answer);
    }
}

void lookAtSockets(MachineFacts& machine) {
    const auto text = machine::outputOf({"ss", "-Hlntup",
                                         "sport = :" + std::to_string(contract::ssdpPort) +
                                             " or sport = :" + std::to_string(contract::httpPort)});
    if (text.isOk())
        machine.sockets = parseSockets(*text);
    else
        machine.unseen.push_back(unseenBy(text.status(), "the holders of ports", "iproute2"));
}

void lookAtBridges(MachineFacts& machine) {
    const auto links = machine::outputOf({"ip", "-j", "-d", "link", "show", "type", "bridge"});
    const auto groups = machine::outputOf({"bridge", "-j", "-d", "mdb", "show"});
    if (!links.isOk() || !groups.isOk()) {
        machine.unseen.push_back(unseenBy((links.isOk() ? groups : links).status(), "bridges", "iproute2"));
        return;
    }
    auto bridges = parseBridges(*links, *groups);
    if (bridges.isOk())
        machine.bridges = bridges.take();
    else
        machine.unseen.push_back({"bridges", bridges.reason(), ""});
}

std::vector<SocketFact> parseSockets(const std::string& text) {
    std::vector<SocketFact> sockets;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string kind, state, received, sent, place, peer, holder;
        words >> kind >> state >> received >> sent >> place >> peer >> holder;
        const bool isTcp = kind == "tcp";
        const std::string port = ':' + std::to_string(isTcp ? contract::httpPort : contract::ssdpPort);
        if ((!isTcp && kind != "udp") || !place.ends_with(port) || place.starts_with('[')) continue;
        SocketFact socket;
        socket.isTcp = isTcp;
        readPlace(place, socket);
        readHolder(holder, socket);
        sockets.push_back(socket);
    }
    return sockets;
}

tk::Result<std::vector<BridgeFact>> parseBridges(const std::string& links, const std::string& groups) {
    try {
        std::vector<BridgeFact> bridges;
        for (const Json& link : Json::parse(links))
            if (!link.empty()) bridges.push_back(parseBridge(link));
        noteQueriers(Json::parse(groups), bridges);
        return bridges;
    } catch (const Json::exception& error) {
        return tk::Status::failure(std::string("ip or bridge prints something unexpected: ") + error.what());
    }
}

}  // namespace doctor
