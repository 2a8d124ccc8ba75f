#include "machine/links.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include <nlohmann/json.hpp>

#include "machine/tool.h"
#include "tk/file.h"

namespace machine {

namespace {

using Json = nlohmann::json;

constexpr const char* pppoeFile = "/proc/net/pppoe";
constexpr std::size_t pppoeLimit = std::size_t{1024} * 1024;

std::string textIn(const Json& object, const char* key) {
    return object.value(key, std::string());
}

bool hasFlag(const Json& object, const char* flag) {
    const Json flags = object.value("flags", Json::array());
    return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

/// The entries of a list. The tool fills it with empty objects where a filter left something out.
std::vector<Json> entriesOf(const Json& list) {
    std::vector<Json> entries;
    for (const Json& entry : list)
        if (!entry.empty()) entries.push_back(entry);
    return entries;
}

Link readLink(const Json& entry) {
    const Json info = entry.value("linkinfo", Json::object());
    Link link;
    link.name = entry.at("ifname").get<std::string>();
    link.index = entry.at("ifindex").get<std::uint32_t>();
    link.isUp = hasFlag(entry, "UP");
    link.hasCarrier = hasFlag(entry, "LOWER_UP");
    link.type = textIn(entry, "link_type");
    link.kind = textIn(info, "info_kind");
    link.master = textIn(entry, "master");
    // The other end of a veth pair is no interface below it.
    if (link.kind != "veth") link.lower = textIn(entry, "link");
    return link;
}

std::optional<std::uint32_t> addressIn(const Json& object, const char* key) {
    return parseIPv4(textIn(object, key));
}

void readAddresses(const Json& entry, std::vector<Address>& out) {
    for (const Json& info : entriesOf(entry.value("addr_info", Json::array()))) {
        const auto local = addressIn(info, "local");
        if (!local) continue;  // of another family
        Address& address = out.emplace_back();
        address.interface = entry.at("ifname").get<std::string>();
        address.address = *local;
        address.peer = addressIn(info, "address");
        address.network = networkOf(address.peer.value_or(*local), info.at("prefixlen").get<unsigned>());
        address.scope = textIn(info, "scope");
        address.isLeased = info.value("dynamic", false);
    }
}

void readRoute(const Json& entry, std::vector<Route>& out) {
    const auto destination = parseNetwork(entry.at("dst").get<std::string>());
    if (!destination) return;  // of another family
    Route route;
    route.destination = *destination;
    route.type = entry.value("type", std::string("unicast"));
    route.table = entry.value("table", std::string("main"));
    route.metric = entry.value("metric", std::uint32_t{0});
    const std::vector<Json> hops = entriesOf(entry.value("nexthops", Json::array({entry})));
    for (const Json& hop : hops) {
        route.device = textIn(hop, "dev");
        route.gateway = addressIn(hop, "gateway");
        out.push_back(route);
    }
}

/// Parses a list and hands each entry on.
/// Errors: when the text is no JSON, or an entry lacks something.
template <typename Read>
tk::Status readEach(const std::string& text, const Read& read) {
    try {
        if (text.empty()) return {};  // an older tool prints nothing in place of an empty list
        for (const Json& entry : entriesOf(Json::parse(text))) read(entry);
        return {};
    } catch (const Json::exception& error) {
        return tk::Status::failure(std::string("ip prints something unexpected: ") + error.what());
    }
}

template <typename Value>
tk::Result<std::vector<Value>> orFailure(tk::Status status, std::vector<Value> values) {
    return status.isOk() ? tk::Result<std::vector<Value>>(std::move(values)) : std::move(status);
}

/// Runs ip and parses what it prints.
template <typename Value>
tk::Status readFrom(const std::vector<std::string>& arguments,
                    tk::Result<std::vector<Value>> (*parse)(const std::string& text),
                    std::vector<Value>& out) {
    const tk::Result<std::string> text = outputOf(arguments);
    if (!text.isOk()) return text.status();
    tk::Result<std::vector<Value>> values = parse(*text);
    if (!values.isOk()) return values.status();
    out = values.take();
    return {};
}

}  // namespace

const Link* Links::find(const std::string& name) const {
    const auto found =
        std::find_if(links.begin(), links.end(), [&](const Link& l) { return l.name == name; });
    return found == links.end() ? nullptr : &*found;
}

const Link& ownerOf(const Links& links, const Link& link) {
    const Link* owner = link.master.empty() ? nullptr : links.find(link.master);
    return owner && (owner->kind == "bridge" || owner->kind == "bond" || owner->kind == "team") ? *owner
                                                                                                : link;
}

tk::Result<std::vector<Link>> parseLinks(const std::string& text) {
    std::vector<Link> links;
    tk::Status status = readEach(text, [&](const Json& entry) { links.push_back(readLink(entry)); });
    return orFailure(std::move(status), std::move(links));
}

tk::Result<std::vector<Address>> parseAddresses(const std::string& text) {
    std::vector<Address> addresses;
    tk::Status status = readEach(text, [&](const Json& entry) { readAddresses(entry, addresses); });
    return orFailure(std::move(status), std::move(addresses));
}

tk::Result<std::vector<Route>> parseRoutes(const std::string& text) {
    std::vector<Route> routes;
    tk::Status status = readEach(text, [&](const Json& entry) { readRoute(entry, routes); });
    return orFailure(std::move(status), std::move(routes));
}

std::vector<std::string> parsePPPoE(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    std::vector<std::string> names;
    std::getline(lines, line);  // the headings
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string session;
        std::string address;
        std::string device;
        if (words >> session >> address >> device) names.push_back(device);
    }
    return names;
}

bool isForwarding(const std::string& file) {
    constexpr std::size_t limit = 16;  // bytes
    const auto text = tk::readFile(file, limit);
    return !text.isOk() || !text->starts_with('0');
}

tk::Result<Links> readLinks() {
    Links read;
    tk::Status status = readFrom({"ip", "-j", "-d", "link", "show"}, parseLinks, read.links);
    if (status.isOk())
        status = readFrom({"ip", "-4", "-j", "address", "show"}, parseAddresses, read.addresses);
    if (status.isOk())
        status = readFrom({"ip", "-4", "-j", "route", "show", "table", "all"}, parseRoutes, read.routes);
    if (!status.isOk()) return status;
    // Absent where the kernel has no PPP over Ethernet.
    if (const auto text = tk::readFile(pppoeFile, pppoeLimit); text.isOk())
        read.pppoeInterfaces = parsePPPoE(*text);
    return read;
}

}  // namespace machine
