// How the input moves the world. What always holds of it is in world_checks.cpp.

#include "fuzz/gateway/world.h"

#include <arpa/inet.h>

#include <algorithm>
#include <string_view>

#include "contract/gateway.h"
#include "contract/interfaces.h"
#include "contract/ports.h"
#include "contract/programs.h"
#include "fuzz/target.h"
#include "http/httpmessage.h"
#include "net/convert.h"
#include "tk/names.h"
#include "tracking/testing/recordmakers.h"
#include "upnp/event.h"

namespace fuzz {

namespace {

constexpr int turnLimit = 10000;  // of the loop, until it must have come to rest

struct Interface {
    std::uint32_t id;
    const char* address;
};
constexpr Interface interfaces[] = {
    {1, "192.168.1.1"}, {2, "198.51.100.1"}, {3, "192.168.3.1"}, {4, "203.0.113.1"}};

/// What follows a header's name in an advert. There are many adverts: this costs less than to read all of it.
std::string headerOf(std::string_view text, std::string_view name) {
    const std::size_t found = text.find(name);
    if (found == std::string_view::npos) return {};
    const std::size_t start = found + name.size();
    return std::string(text.substr(start, text.find('\r', start) - start));
}

/// The name of a message's subscription.
std::string sidOf(const gateway::HTTPMessage& notify) {
    return notify.get("SID");
}

}  // namespace

World::World(std::string folder) : folder(std::move(folder)) {
    for (const Interface& each : interfaces) {
        if (each.id <= 2) router.interfaces[each.id] = gateway::interfaceRecord(each.id, nameOf(each.id));
        router.states[each.id] = gateway::statusRecord(each.id, false, true);
        router.addresses[each.id * 10] = gateway::addressRecord(each.id * 10, each.address, each.id);
    }
    network.onDatagram = [this](const Network::Datagram& datagram) { datagramSent(datagram); };
    network.onReceive = [this](Link& link) { received(link); };
    network.onSend = [this](Link& link) { sent(link); };
    network.onClose = [this](int descriptor) { closed(descriptor); };
}

World::~World() {
    stop();
    check();
    // When the daemon is gone, only the loop's own may be left: the wish to end the program, and the look at what rests.
    const std::size_t most = clock.now() < network.restsUntil() ? 2 : 1;
    require(looper.runner().timerCount() <= most, "the end leaves no timer");
    network.onClose = [](int) {};  // what it notes in goes before the loop and its descriptors
}

void World::start() {
    stop();
    daemon = std::make_unique<gateway::Gateway>(folder);
    looper.addHandler(0, daemon.get());
    looper.addHandler(contract::handler::mappings, &daemon->mappingList());
    daemon->init();
    settle();
}

void World::stop() {
    if (!daemon) return;
    daemon.reset();
    looper.removeHandler(0);
    looper.removeHandler(contract::handler::mappings);
    for (const auto& [id, rule] : router.rules)
        require(router.abandoned.contains(id), "the end leaves no rule");
    router.rules.clear();  // the router removes what the daemon could not
}

void World::settle() {
    for (int turns = 0; turns < turnLimit; ++turns) {
        looper.turn(0);
        for (; !bus.ends.empty(); bus.ends.pop_front()) looper.dispatch(tk::message(bus.ends.front()));
        if (!network.isAnythingReady() && looper.runner().untilNextTimer() != 0) return;
    }
    require(false, "the loop comes to rest");
}

void World::pass(std::uint64_t milliseconds) {
    const std::uint64_t end = clock.now() + milliseconds;
    while (clock.now() < end) {
        const std::uint64_t left = end - clock.now();
        const int next = looper.runner().untilNextTimer();
        clock.advance(next < 0 ? left : std::min(left, static_cast<std::uint64_t>(next)));
        settle();
    }
}

void World::notify(const tk::Path& from, std::uint32_t command, tk::message content) {
    tk::stamp(content, from, 0, tk::Kind::notification, command);
    looper.dispatch(content);
    settle();
}

tk::message World::request(std::uint32_t handler, std::uint32_t command, tk::message content) {
    constexpr std::uint32_t number = 77;
    content.insert_u32_array(tk::field::destination, {contract::program::gateway, handler});
    tk::stamp(content, {tk::program::firstClient}, number, tk::Kind::request, command);
    bus.posted.clear();
    looper.dispatch(content);
    tk::message answer;
    std::size_t answers = 0;
    for (const tk::message& posted : bus.posted) {
        if (tk::kindOf(posted) == tk::Kind::notification) continue;
        require(posted.get_u32(tk::field::number) == number, "an answer names its request");
        answer = tk::withoutRouting(posted);
        ++answers;
    }
    require(answers == 1, "a request on the bus is answered once");
    settle();
    return answer;
}

void World::endQuestion(std::uint32_t number, tk::message content) {
    const tk::Kind kind = tk::isError(content) ? tk::Kind::error : tk::Kind::reply;
    tk::stamp(content, {contract::program::resolver}, number, kind, 0);
    looper.dispatch(content);
    settle();
}

std::string World::addressOf(std::uint32_t interface) const {
    const gateway::Device* const device = daemon ? daemon->interfaces().deviceOf(interface) : nullptr;
    return gateway::ipToString(device ? device->address : 0);
}

std::vector<Link*> World::linksTo(bool subscribers) const {
    std::vector<Link*> found;
    for (const auto& link : network.all())
        if (link->isOutgoing == subscribers) found.push_back(link.get());
    return found;
}

std::vector<std::string> World::subscribers() const {
    std::vector<std::string> found;
    for (const gateway::Service* service : services())
        for (const auto& [sid, subscription] : service->subscriptions) found.push_back(sid);
    return found;
}

bool World::isEnabled() const {
    return isRunning() && daemon->getObject(tk::unassigned).get_bool(contract::settingfield::enabled);
}

std::vector<const gateway::Device*> World::devices() const {
    std::vector<const gateway::Device*> found;
    for (std::uint32_t id = 0; isRunning() && id < interfaceLimit; ++id)
        if (const gateway::Device* device = daemon->interfaces().deviceOf(id)) found.push_back(device);
    return found;
}

std::vector<const gateway::Service*> World::services() const {
    if (!isRunning()) return {};
    std::vector<const gateway::Service*> found{&daemon->rootService()};
    for (const gateway::Device* device : daemon->interfaces().externalDevices())
        found.insert(found.end(), {device->commonConfig.get(), device->ipConnection.get()});
    return found;
}

void World::datagramSent(const Network::Datagram& datagram) {
    if (datagram.text.empty()) {
        unheard[datagram.descriptor] = clock.now();
        return;
    }
    if (datagram.to != inet_addr(contract::ssdpGroup)) {
        searchAnswers.emplace_back(datagram.to, datagram.text);
        return;
    }
    const std::string_view text = datagram.text;
    const bool isAdvert = text.starts_with("NOTIFY * HTTP/1.1\r\n") && text.ends_with("\r\n\r\n");
    require(isAdvert, "an advert is whole");
    const std::pair name(headerOf(text, "\r\nNT: "), headerOf(text, "\r\nUSN: "));
    if (headerOf(text, "\r\nNTS: ") == "ssdp:alive")
        heard[datagram.descriptor][name] = {headerOf(text, "\r\nLOCATION: "), clock.now()};
    else
        heard[datagram.descriptor].erase(name);
}

/// True when something that was to be sent from this socket lately has not reached the hosts. Once all that they had
/// heard until then has ended, they must have heard everything anew.
bool World::isUnheard(int socket) {
    const auto failed = unheard.find(socket);
    if (failed == unheard.end()) return false;
    const std::uint64_t failedAt = failed->second;
    if (clock.now() < failedAt + advertTime) return true;
    std::erase_if(heard[socket], [failedAt](const auto& entry) { return entry.second.at <= failedAt; });
    unheard.erase(failed);
    return false;
}

void World::received(Link& link) {
    constexpr std::size_t requestLimit = std::size_t{128} * 1024;
    if (link.isOutgoing) return;
    Visit& visit = visits[&link];
    if (visit.isComplete || visit.isHopeless) return;
    visit.isComplete = gateway::HTTPMessage(std::string_view(link.sent).substr(0, link.taken)).complete;
    visit.isHopeless = !visit.isComplete && link.taken > requestLimit;
    visit.completeAt = clock.now();
}

void World::sent(Link& link) {
    if (link.isOutgoing) return notified(link);
    require(visits[&link].isComplete, "nothing is answered before it is complete");
}

/// A subscriber has received a message, or a part of it.
void World::notified(Link& link) {
    const gateway::HTTPMessage notify(link.answer);
    if (!notify.complete) return;
    bool isSubscribed = false;
    for (const gateway::Service* service : services()) {
        const auto subscription = service->subscriptions.find(sidOf(notify));
        if (subscription == service->subscriptions.end()) continue;
        const gateway::Subscription& to = *subscription->second;
        isSubscribed = to.address == link.host && to.port == link.port &&
                       notify.title == "NOTIFY " + to.path + " HTTP/1.1";
    }
    require(isSubscribed, "only a subscriber is notified, where it wants to be");
    const std::uint32_t number = gateway::toUnsigned(notify.get("SEQ"));
    std::uint32_t& next = sequence[sidOf(notify)];
    require(number >= next, "the numbers of events rise");
    next = number + 1;
    if (network.peers == Network::Peers::answer) link.sent += "HTTP/1.1 200 OK\r\n\r\n";
}

void World::closed(int descriptor) {
    const bool isSilent = isUnheard(descriptor) || heard[descriptor].empty();
    require(isSilent, "what is announced is withdrawn before the interface falls silent");
    heard.erase(descriptor);
    unheard.erase(descriptor);
    for (auto& [link, visit] : visits) visit.isOrphaned |= visit.listener == descriptor && !visit.isJudged;
}

}  // namespace fuzz
