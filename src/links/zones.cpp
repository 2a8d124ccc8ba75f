#include "links/zones.h"

#include <arpa/inet.h>
#include <net/if_arp.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "tk/file.h"
#include "tk/log.h"

namespace links {

namespace {

constexpr std::size_t sessionBytes = std::size_t{1024} * 1024;
// A network with a longer prefix has no addresses to spare for its ends.
constexpr std::uint32_t longestWithEnds = 30;

Prefix networkOf(const LinkAddress& address) {
    return prefixOf(ntohl(address.peer), address.prefixLength);
}

/// The devices that carry PPPoE sessions: a title, then lines of a number, a hardware address and, at
/// their end, a name.
std::set<std::string> pppoeDevices(const std::string& path) {
    std::set<std::string> devices;
    const tk::Result<std::string> text = tk::readFile(path, sessionBytes);
    if (!text.isOk()) return devices;  // a kernel without it has no sessions
    std::string_view rest = *text;
    for (bool isTitle = true; !rest.empty(); isTitle = false) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        const std::size_t blank = line.rfind(' ');
        if (!isTitle && blank != std::string_view::npos) devices.emplace(line.substr(blank + 1));
    }
    return devices;
}

std::string lowerDeviceOf(const Link& link) {
    return "it is the lower device of " + link.name;
}

/// True when the network gives its first and its last address to no host.
bool hasEnds(const Prefix& network) {
    return lengthOf(network) <= longestWithEnds;
}

/// True when nothing that decides a side differs. Carriers come and go all the time.
bool standsAlike(const Link& left, const Link& right) {
    return left.index == right.index && left.name == right.name && left.isUp() == right.isUp() &&
           left.lower == right.lower && left.master == right.master &&
           left.hardwareType == right.hardwareType && left.isLoopback() == right.isLoopback();
}

}  // namespace

Zones::Zones(LanConfig config, std::string pppoeSessions)
    : config(std::move(config)), pppoeSessions(std::move(pppoeSessions)) {}

void Zones::setConfig(LanConfig configured) {
    config = std::move(configured);
    settle();
}

void Zones::start(InsideWatcher& target) {
    watcher = &target;
    inside = {};
    settle();
}

void Zones::apply(const Link& link) {
    Link& known = links[link.index];
    const bool isNews = !standsAlike(known, link);
    known = link;
    if (isNews) settle();
}

void Zones::removeLink(std::uint32_t index) {
    links.erase(index);
    exits.erase(index);
    std::erase_if(held, [index](const LinkAddress& address) { return address.index == index; });
    settle();
}

void Zones::apply(const LinkAddress& address) {
    const bool isNews = held.erase(address) == 0;
    held.insert(address);
    if (isNews) settle();
}

void Zones::remove(const LinkAddress& address) {
    held.erase(address);
    settle();
}

void Zones::applyAll(const std::vector<Link>& allLinks, const std::vector<LinkAddress>& addresses) {
    links.clear();
    for (const Link& link : allLinks) links[link.index] = link;
    std::erase_if(exits, [this](const auto& exit) { return !links.contains(exit.first); });
    held = std::set<LinkAddress>(addresses.begin(), addresses.end());
    settle();
}

void Zones::addExits(const std::map<std::uint32_t, Prefix>& more) {
    exits.insert(more.begin(), more.end());
    settle();
}

/// Finds out what is inside now, and tells the watcher if that is new.
void Zones::settle() {
    if (!watcher) return;
    if (dependsOnRoutes()) {
        markExits();
        while (markLowerDevices()) continue;
    }
    Inside now;
    for (const auto& [index, link] : links)
        if (sideOf(link) == Side::inside) now.interfaces.insert(index);
    now.addresses = insideAddresses();
    if (now == inside) return;
    inside = std::move(now);
    watcher->insideChanged(inside);
}

bool Zones::mark(const Link& link, const std::string& why) {
    if (link.isLoopback() || !marks.try_emplace(link.name, why).second) return false;
    tk::log("interface ", link.name, " is outside: ", why);
    return true;
}

bool Zones::isMarked(std::uint32_t index) const {
    const auto link = links.find(index);
    return link != links.end() && marks.contains(link->second.name);
}

void Zones::markExits() {
    for (const auto& [index, destination] : exits)
        if (const auto link = links.find(index); link != links.end())
            (void)mark(link->second, "it carries, or has carried, a route to " + prefixText(destination));
}

/// Goes one step down. True when that found something new, with perhaps more below.
bool Zones::markLowerDevices() {
    bool isNews = false;
    for (const auto& [index, link] : links) {
        if (marks.contains(link.name)) isNews = markBelow(link) || isNews;
        if (const auto master = links.find(link.master); master != links.end() && isMarked(link.master))
            isNews = mark(link, lowerDeviceOf(master->second)) || isNews;
    }
    return isNews;
}

bool Zones::markBelow(const Link& link) {
    const std::string why = lowerDeviceOf(link);
    bool isNews = false;
    if (const auto lower = links.find(link.lower); lower != links.end()) isNews = mark(lower->second, why);
    if (link.hardwareType != ARPHRD_PPP) return isNews;
    // Nothing tells which of the sessions belongs to this interface.
    const std::set<std::string> devices = pppoeDevices(pppoeSessions);
    for (const auto& [index, device] : links)
        if (devices.contains(device.name)) isNews = mark(device, why) || isNews;
    return isNews;
}

std::vector<AddressRange> Zones::insideAddresses() const {
    std::vector<SidedNetwork> networks;
    for (const Prefix& network : config.networks) networks.push_back({network, true});
    for (const LinkAddress& address : held) {
        const auto link = links.find(address.index);
        if (link == links.end()) continue;
        const Side side = sideOf(link->second);
        // An outside network stays outside while its interface is down.
        if (side == Side::outside || (side == Side::inside && link->second.isUp()))
            networks.push_back({networkOf(address), side == Side::inside});
    }
    return insideRanges(std::move(networks));
}

Side Zones::sideOf(const Link& link) const {
    if (link.isLoopback()) return Side::neither;
    if (dependsOnRoutes()) return marks.contains(link.name) ? Side::outside : Side::inside;
    const std::vector<std::string>& names = *config.interfaces;
    return std::find(names.begin(), names.end(), link.name) != names.end() ? Side::inside : Side::outside;
}

Side Zones::sideOf(std::uint32_t index) const {
    const auto link = links.find(index);
    return link == links.end() ? Side::neither : sideOf(link->second);
}

std::string Zones::whyOf(std::uint32_t index) const {
    const auto link = links.find(index);
    if (link == links.end()) return "there is no such interface";
    if (link->second.isLoopback()) return "it is the router's way to itself";
    if (!dependsOnRoutes())
        return sideOf(link->second) == Side::inside
                   ? "it is among the interfaces of [lan] in router.toml"
                   : "it is not among the interfaces of [lan] in router.toml";
    const auto why = marks.find(link->second.name);
    return why == marks.end() ? "it carries no route beyond the private ranges" : why->second;
}

bool Zones::isInside(std::uint32_t address) const {
    return contains(inside.addresses, ntohl(address));
}

std::string Zones::whyOutside(std::uint32_t address) const {
    const LinkAddress* nearest = nullptr;
    for (const LinkAddress& candidate : held)
        if (networkOf(candidate).contains(ntohl(address)) && links.contains(candidate.index) &&
            (!nearest || candidate.prefixLength > nearest->prefixLength))
            nearest = &candidate;
    if (!nearest) return "it is in no network inside";
    const Link& link = links.find(nearest->index)->second;
    return "it is in the network of " + link.name +
           (sideOf(link) == Side::outside ? ", which is outside" : ", which is down");
}

bool Zones::isOwn(std::uint32_t address) const {
    return std::any_of(held.begin(), held.end(),
                       [address](const LinkAddress& own) { return own.address == address; });
}

std::vector<std::uint32_t> Zones::outsideHoldersOf(std::uint32_t address) const {
    std::vector<std::uint32_t> holders;
    for (const LinkAddress& own : held)
        if (own.address == address && sideOf(own.index) == Side::outside) holders.push_back(own.index);
    return holders;
}

bool Zones::isNetworkAddress(std::uint32_t address) const {
    const auto isFirst = [host = ntohl(address)](const Prefix& network) {
        return hasEnds(network) && network.network == host;
    };
    return std::any_of(config.networks.begin(), config.networks.end(), isFirst) ||
           std::any_of(held.begin(), held.end(),
                       [&isFirst](const LinkAddress& own) { return isFirst(networkOf(own)); });
}

bool Zones::isBroadcastAddress(std::uint32_t address) const {
    const auto isLast = [host = ntohl(address)](const Prefix& network) {
        return hasEnds(network) && network.last() == host;
    };
    return std::any_of(config.networks.begin(), config.networks.end(), isLast) ||
           std::any_of(held.begin(), held.end(), [&](const LinkAddress& own) {
               return own.broadcast == address || isLast(networkOf(own));
           });
}

}  // namespace links
