// What always holds, however the router, the hosts and time behave.

#include "fuzz/gateway/world.h"

#include <algorithm>

#include "contract/mappings.h"
#include "fuzz/target.h"
#include "http/httpmessage.h"
#include "net/convert.h"
#include "upnp/event.h"

namespace fuzz {

namespace {

using gateway::Device;
using gateway::HTTPMessage;
using gateway::Service;

// The documented limits.
constexpr std::size_t connectionLimit = 512;
constexpr std::size_t connectionSourceLimit = 128;
constexpr std::size_t waitingLimit = 64;
constexpr std::size_t waitingSourceLimit = 16;
constexpr std::size_t subscriptionLimit = 100;
constexpr std::size_t subscriberDeliveryLimit = 64;
constexpr std::size_t deliveryLimit = 1000 + subscriptionLimit * 10;
constexpr std::size_t lineLimit = 4096;
constexpr std::size_t requestLimit = std::size_t{128} * 1024;
constexpr std::size_t usualPathLength = 1024;
constexpr std::size_t longPathsLimit = std::size_t{256} * 1024;
constexpr std::size_t hostDescriptionLimit = std::size_t{1024} * 1024;
constexpr std::size_t descriptionLimit = hostDescriptionLimit * 16;
constexpr std::size_t descriptionFloor = std::size_t{16} * 1024;
constexpr std::uint64_t requestTime = 10000;  // milliseconds, as all that follow
constexpr std::uint64_t questionTime = 6000;
constexpr std::uint64_t deliveryTime = 30000;

/// True when the bytes are one whole response and nothing more.
bool isOneResponse(const std::string& bytes) {
    const HTTPMessage response(bytes);
    const bool isWhole = response.complete && (response.has("CONTENT-LENGTH") || response.body.empty());
    const std::string status = response.title.substr(0, std::min<std::size_t>(response.title.size(), 13));
    const char* const known[] = {"HTTP/1.1 200 ", "HTTP/1.1 400 ", "HTTP/1.1 404 ",
                                 "HTTP/1.1 412 ", "HTTP/1.1 500 ", "HTTP/1.1 501 "};
    return isWhole && std::find(std::begin(known), std::end(known), status) != std::end(known);
}

void requireSame(std::vector<int> owned, const std::vector<int>& seen, const char* what) {
    std::sort(owned.begin(), owned.end());
    require(owned == seen, what);
}

/// What a device, its type, and its services are called.
void addNames(Names& names, const std::string& udn, const std::string& type, const std::string& service) {
    const std::string uuid = "uuid:" + udn;
    names.emplace(uuid, uuid);
    for (const std::string& each : {type, service}) names.emplace(each, uuid + "::" + each);
}

}  // namespace

void World::check() {
    checkLog();
    checkLoop();
    checkVisits();
    if (!isRunning()) return;
    checkRetired();
    checkTree();
    checkRoles();
    checkRules();
    checkServices();
    checkLimits();
    bus.requests.clear();
    network.hasFailed = false;
}

void World::checkLog() {
    std::size_t start = 0;
    for (std::size_t i = 0; i < network.output.size(); ++i) {
        const auto code = static_cast<unsigned char>(network.output[i]);
        if (code != '\n') {
            require(code >= 0x20 && code != 0x7F, "a log line has no control character");
            continue;
        }
        require(i - start < lineLimit, "a log line is short");
        start = i + 1;
    }
    require(start == network.output.size(), "a log line is whole");
    network.output.clear();
}

const gateway::HTTPServer::Connections& World::connections() const {
    static const gateway::HTTPServer::Connections none;
    return isRunning() ? daemon->webServer().open() : none;
}

/// The loop watches what somebody owns, and nothing else; and nothing else is open.
void World::checkLoop() {
    std::vector<int> owned;
    std::vector<int> watched;
    std::size_t timers = 0;
    for (const Device* device : devices()) {
        const bool isInternal = device->startedAs == gateway::Role::internal;
        timers += isInternal ? 1 : 0;
        for (const int socket : {device->ssdpSocket, device->httpSocket}) {
            require(isInternal || socket == 0, "only a started internal interface has sockets");
            if (socket > 0) owned.push_back(socket);
        }
    }
    watched = owned;
    const std::vector<int> resting = network.restingListeners();
    for (const Service* service : services()) {
        timers += service->subscriptions.size() + service->events.size();
        for (const auto& [descriptor, event] : service->events) {
            owned.push_back(descriptor);
            const Link* const link = network.linkOf(descriptor);
            require(link != nullptr, "a delivery has a connection");
            if (!link->processSawEnd) watched.push_back(descriptor);
        }
    }
    timers += connections().size();
    for (const auto& [descriptor, connection] : connections()) {
        require(descriptor == connection->descriptor(), "a connection is found by its descriptor");
        owned.push_back(descriptor);
        if (!connection->isWaiting()) watched.push_back(descriptor);
    }
    const tk::Runner& runner = looper.runner();
    require(runner.socketCount() == watched.size(), "the loop watches as many sockets as are owned");
    std::erase_if(watched,
                  [&](int each) { return std::find(resting.begin(), resting.end(), each) != resting.end(); });
    requireSame(owned, network.openDescriptors(), "every open descriptor has an owner");
    requireSame(watched, network.watchedDescriptors(), "the kernel watches what the loop watches");
    // The loop's own: while UPnP is off, it may be about to end; and it looks again at what rests.
    const bool mayRest = clock.now() < network.restsUntil();
    require(resting.empty() || mayRest, "a listener rests for a moment");
    const std::size_t most = timers + (isEnabled() ? 0 : 1) + (mayRest ? 1 : 0);
    require(timers <= runner.timerCount() && runner.timerCount() <= most,
            "every timer has an owner, and every owner its timers");
}

/// A connection refers to an interface that is there, or to one that is kept for it.
void World::checkRetired() const {
    const std::vector<const Device*> present = devices();
    std::set<const Device*> retired;
    for (const auto& [descriptor, connection] : connections()) {
        const Device* const device = &connection->device();
        if (std::find(present.begin(), present.end(), device) == present.end()) retired.insert(device);
    }
    require(retired.size() == daemon->interfaces().retiredCount(),
            "a removed interface is kept while it is used");
}

Names World::expectedNames() const {
    const std::string rootUdn = "UUID-VANTOREL-INTERNET-GATEWAY-DEVICE-";
    Names names;
    if (!isRunning()) return names;
    const std::string identity = daemon->UDN.substr(rootUdn.size());
    addNames(names, rootUdn + identity, "urn:schemas-upnp-org:device:InternetGatewayDevice:1",
             "urn:schemas-microsoft-com:service:OSInfo:1");
    names.emplace("upnp:rootdevice", "uuid:" + rootUdn + identity + "::upnp:rootdevice");
    for (const Device* device : devices()) {
        if (device->startedAs != gateway::Role::external) continue;
        const std::string suffix = identity + "-" + std::to_string(device->id());
        addNames(names, "UUID-VANTOREL-WAN-DEVICE-" + suffix, "urn:schemas-upnp-org:device:WANDevice:1",
                 "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1");
        addNames(names, "UUID-VANTOREL-WAN-CONNECTION-DEVICE-" + suffix,
                 "urn:schemas-upnp-org:device:WANConnectionDevice:1",
                 "urn:schemas-upnp-org:service:WANIPConnection:1");
    }
    return names;
}

/// What is described, found and announced is what the interfaces say.
void World::checkTree() {
    const Names expected = expectedNames();
    const gateway::AdvertTargets& targets = daemon->announced().targets();
    require(Names(targets.begin(), targets.end()) == expected, "searches find the tree as it is");
    const auto external = daemon->interfaces().externalDevices();
    require(daemon->devices.size() == external.size(),
            "the description has a device for each external interface");
    for (const Device* device : devices()) {
        const bool isExternal = device->startedAs == gateway::Role::external;
        require(isExternal == (device->ipConnection != nullptr),
                "only a started external interface has services");
        require(isExternal == (device->commonConfig != nullptr), "and it has both");
        if (device->startedAs == gateway::Role::none) continue;
        require(isEnabled(), "a role is started only while UPnP is on");
        if (device->ssdpSocket > 0 && !isUnheard(device->ssdpSocket)) checkAnnounced(*device, expected);
    }
}

/// Who listens on this interface knows what is there and where, and that will last.
void World::checkAnnounced(const Device& device, const Names& expected) const {
    const auto announced = heard.find(device.ssdpSocket);
    require(announced != heard.end(), "what is there was announced");
    const std::string location = "http://" + gateway::ipToString(device.address) + ":2828/gateway.xml";
    Names names;
    for (const auto& [name, advert] : announced->second) {
        names.insert(name);
        require(advert.location == location, "an advert leads to the interface that it was sent on");
        require(clock.now() < advert.at + advertTime, "an advert is renewed before it ends");
    }
    require(names == expected, "what was announced is what is there");
}

/// While UPnP is on, each item's interface has the item's role, and all others have none.
void World::checkRoles() const {
    std::map<std::uint32_t, contract::RoleItem> items;
    const tk::message list = daemon->cmdGetAll({});
    for (const tk::message& record : list.get_message_array(tk::field::objects)) {
        const auto item = contract::RoleItem::fromMessage(record, {});
        items[item.interface] = item;
    }
    for (const Device* device : devices()) {
        const contract::RoleItem item = items[device->id()];
        if (item.disabled) continue;  // counts for an interface that comes later. On purpose.
        const bool isStarted =
            isEnabled() && (item.type == contract::Role::external ||
                            (item.type == contract::Role::internal && device->address != 0));
        require(device->startedAs == (isStarted ? item.type : contract::Role::none),
                "an interface has the role of its item");
        const bool isOwn = device->addresses.contains(device->address);
        require(isOwn || (device->address == 0 && device->addresses.empty()),
                "an interface serves one of its addresses");
    }
}

/// The mappings are the rules.
void World::checkRules() const {
    std::set<std::uint32_t> mapped;
    std::size_t withoutId = 0;
    for (const Device* device : daemon->interfaces().externalDevices()) {
        for (const auto& [id, map] : device->ipConnection->mappings()) {
            withoutId += map.natId == 0 ? 1 : 0;
            if (map.natId == 0) continue;
            require(mapped.insert(map.natId).second, "each mapping has a rule of its own");
            if (router.uncertain.contains(map.natId)) continue;
            const auto rule = router.rules.find(map.natId);
            require(rule != router.rules.end(), "each mapping has a rule");
            const contract::NatTarget target{map.internalClient, map.internalPort};
            require(rule->second.key.port == id.port &&
                        rule->second.key.protocol == gateway::ipProtocol(id) &&
                        rule->second.target == target && rule->second.disabled == !map.enabled,
                    "a rule does what its mapping says");
        }
    }
    require(withoutId <= router.withoutId, "a mapping without a rule's id was answered so");
    for (const Device* device : daemon->interfaces().externalDevices())
        checkDescriptions(*device->ipConnection);
    for (const auto& [id, rule] : router.rules)
        require(mapped.contains(id) || router.abandoned.contains(id), "no rule is left behind");
}

/// What is kept of mappings is limited, and counted.
void World::checkDescriptions(const gateway::WANIPConnection& service) const {
    std::map<std::uint32_t, std::size_t> shares;
    std::size_t total = 0;
    for (const auto& [id, map] : service.mappings()) shares[map.requester] += map.description.size();
    for (const auto& [host, share] : shares) {
        require(share <= hostDescriptionLimit, "a host has a limit of descriptions");
        if (share > descriptionFloor) total += share;
    }
    require(total <= descriptionLimit, "descriptions have a limit");
    const std::size_t count = gateway::toUnsigned(service.getVar("PortMappingNumberOfEntries"));
    const std::size_t size = service.mappings().size();
    require(count == size || count == size + 1, "the number of mappings counts them, and perhaps the dummy");
}

void World::checkServices() const {
    for (const Service* service : services()) {
        std::set<std::uint32_t> addresses;
        std::size_t longPaths = 0;
        require(service->subscriptions.size() <= subscriptionLimit, "a service has a limit of subscribers");
        for (const auto& [sid, subscription] : service->subscriptions) {
            require(&subscription->service == service && subscription->sid == sid,
                    "a subscriber knows its service");
            require(addresses.insert(subscription->address).second, "an address subscribes once");
            if (subscription->path.size() > usualPathLength) longPaths += subscription->path.size();
        }
        require(longPaths <= longPathsLimit, "long callback paths have a limit");
        checkDeliveries(*service);
    }
}

void World::checkDeliveries(const Service& service) const {
    std::map<std::string, std::size_t> deliveries;
    for (const auto& [descriptor, event] : service.events) {
        const Link& link = *network.linkOf(descriptor);
        require(clock.now() < link.openedAt + deliveryTime, "a delivery ends in time");
        require(++deliveries[event->subscriber()] <= subscriberDeliveryLimit, "a subscriber has its share");
    }
    require(service.events.size() <= deliveryLimit, "deliveries have a limit");
}

void World::checkLimits() const {
    std::map<std::uint32_t, std::size_t> bySource;
    std::map<std::uint32_t, std::size_t> waitingBySource;
    std::size_t waiting = 0;
    for (const auto& [descriptor, connection] : connections()) {
        require(++bySource[connection->source()] <= connectionSourceLimit,
                "a host has a limit of connections");
        require(connection->received().size() <= requestLimit, "what is kept of a request has a limit");
        if (!connection->isWaiting()) continue;
        require(++waitingBySource[connection->source()] <= waitingSourceLimit,
                "a host has a limit of questions");
        ++waiting;
    }
    require(waiting <= waitingLimit, "questions have a limit");
    require(connections().size() <= connectionLimit, "connections have a limit");
    const auto& refusals = daemon->interfaces().refusedMappings().all();
    require(refusals.size() <= contract::refusalLimit, "refusals have a limit");
    for (const contract::MappingRefusal& refusal : refusals)
        require(refusal.reason.size() <= contract::refusalReasonLength, "a reason has a limit");
}

/// Each complete request is answered once, and in time; and nothing else is.
void World::checkVisits() {
    for (const auto& link : network.all()) {
        Visit& visit = visits[link.get()];
        if (visit.isJudged) continue;
        if (link->isOutgoing) {
            const bool isWhole = link->answer.empty() || HTTPMessage(link->answer).complete;
            require(isWhole || link->sendFailed, "a delivery is one whole message");
            visit.isJudged = link->processClosed;
            continue;
        }
        if (!link->processClosed) {
            if (!network.isKeptWaiting(*link)) checkOpen(*link, visit);
            continue;
        }
        checkClosed(*link, visit);
        visit.isJudged = true;
    }
}

void World::checkOpen(const Link& link, Visit& visit) const {
    require(isRunning(), "the end leaves no connection");
    const auto entry = connections().find(link.descriptor);
    require(entry != connections().end(), "a connection is accepted and known");
    visit.listener = entry->second->device().httpSocket;
    require(link.answer.empty(), "an answered connection is closed");
    require(entry->second->isWaiting() == visit.isComplete, "a complete request is answered, or waits");
    if (visit.isComplete) {
        require(clock.now() < visit.completeAt + questionTime, "a request waits for a limited time");
    } else {
        require(clock.now() < link.openedAt + requestTime, "a request may take 10 s");
        require(link.taken == link.sent.size(), "what was sent is read");
    }
}

void World::checkClosed(const Link& link, const Visit& visit) const {
    if (!link.answer.empty() && !link.sendFailed)
        require(isOneResponse(link.answer), "a request gets one whole answer");
    if (link.answer.empty())
        require(mayEndUnanswered(link, visit), "a request is not dropped without reason");
}

bool World::mayEndUnanswered(const Link& link, const Visit& visit) const {
    if (link.sendFailed || link.hostReset || network.hasFailed || !link.isAccepted) return true;
    if (visit.isOrphaned) return true;
    const bool isLate = clock.now() >= link.openedAt + requestTime;
    if (!visit.isComplete && (isLate || link.processSawEnd)) return true;
    std::size_t all = 0;
    std::size_t own = 0;
    for (const auto& other : network.all()) {
        if (other->isOutgoing || other->processClosed) continue;
        ++all;
        own += other->host == link.host ? 1U : 0U;
    }
    if (!visit.isComplete && own >= connectionSourceLimit) return true;
    // Also one that waits for a name makes room. The one that it did so for may have ended since.
    return all + 1 >= connectionLimit;
}

}  // namespace fuzz
