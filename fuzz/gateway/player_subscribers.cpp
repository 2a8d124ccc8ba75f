#include "fuzz/gateway/player.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>

#include "fuzz/gateway/requests.h"
#include "fuzz/target.h"

namespace fuzz {

namespace {

constexpr std::size_t longPath = std::size_t{30} * 1024;

}  // namespace

std::string Player::eventPath() {
    return std::string("/upnp/event/") + serviceName(script.number(serviceCount));
}

void Player::subscribe() {
    const char* const urls[] = {"http://192.168.1.10/",      "http://192.168.1.11:5000/a",
                                "http://192.168.1.12:1/b",   "http://printer.example/e",
                                "http://tv.example:90/",     "http://127.0.0.1:2828/",
                                "http://255.255.255.255:9/", "http://192.168.1.10"};
    const char* const times[] = {"Second-1800", "Second-infinite", "Second--1", "Second-3600", ""};
    const std::uint32_t to = script.interface();
    const std::string path = eventPath();
    const unsigned choice = script.number(std::size(urls) + 3);
    std::string url;
    if (choice < std::size(urls))
        url = urls[choice];
    else if (choice == std::size(urls) + 1)
        url = script.text();
    else
        url = "http://10.0.0." + std::to_string(script.number(256)) + ":8000/";
    if (choice == std::size(urls) + 2) url.append(longPath, 'p');
    const std::size_t deliveries = world.linksTo(true).size();
    const Link* const link = visit(to, bare("SUBSCRIBE", path, world.addressOf(to),
                                            "CALLBACK: <" + url + ">\r\nNT: upnp:event\r\nTIMEOUT: " +
                                                times[script.number(std::size(times))] + "\r\n"));
    const bool isReachable = !world.network.hasFailed && world.network.peers != Network::Peers::unreachable;
    require(!isGranted(link) || !isReachable || world.linksTo(true).size() > deliveries,
            "a subscriber is told all values at once");
}

/// From many hosts, each for itself.
void Player::subscribeOften() {
    stepsLeft -= floodSteps;
    const std::uint32_t to = script.interface();
    const std::string path = eventPath();
    for (unsigned left = 4 * script.number(36); left > 0; --left) {
        const std::string url = "http://10.1.0." + std::to_string(left) + "/";
        if (Link* const link = world.network.connect(World::nameOf(to), htonl(0x0A010000 + left)))
            link->sent =
                bare("SUBSCRIBE", path, world.addressOf(to), "CALLBACK: <" + url + ">\r\nNT: upnp:event\r\n");
        world.settle();
    }
}

void Player::renew() {
    nameSubscription("SUBSCRIBE", "TIMEOUT: Second-1800\r\n");
}

void Player::unsubscribe() {
    nameSubscription("UNSUBSCRIBE", "");
}

void Player::nameSubscription(const std::string& method, const std::string& more) {
    const std::uint32_t to = script.interface();
    const std::string path = eventPath();
    const std::vector<std::string> sids = world.subscribers();
    const unsigned choice = script.number(36);
    const std::string sid = sids.empty() ? "uuid:none" : sids[choice % sids.size()];
    const Link* const link =
        visit(to, bare(method, path, world.addressOf(to), "SID: " + sid + "\r\n" + more));
    if (method == "SUBSCRIBE" || !isGranted(link)) return;
    const std::vector<std::string> left = world.subscribers();
    require(std::find(left.begin(), left.end(), sid) == left.end(), "who has unsubscribed is no subscriber");
}

void Player::changePeers() {
    world.network.peers = static_cast<Network::Peers>(script.number(5));
}

void Player::movePeer() {
    Link* const link = script.choose(world.linksTo(true));
    const unsigned move = script.number(6);
    const std::string bytes = move == 4 ? script.text() : std::string();
    if (!link || link->processClosed) return;
    const char* const replies[] = {"HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 500 No\r\n\r\n"};
    if (move == 0) link->state = Link::State::up;
    if (move == 1 && link->state == Link::State::connecting) link->state = Link::State::refused;
    if (move == 2) link->hostReset = true;
    if (move == 3) link->hostEnded = true;
    if (move == 4) link->sent += bytes;
    if (move == 5) link->sent += replies[script.number(2)];
}

}  // namespace fuzz
