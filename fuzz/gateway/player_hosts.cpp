#include "fuzz/gateway/player.h"

#include <iterator>

#include "fuzz/gateway/requests.h"
#include "fuzz/target.h"
#include "http/httpmessage.h"

namespace fuzz {

namespace {

constexpr unsigned mostPieces = 64;

}  // namespace

void Player::connect() {
    const std::uint32_t from = script.host();
    world.network.connect(World::nameOf(script.interface()), from);
}

void Player::connectOften() {
    stepsLeft -= floodSteps;
    const std::uint32_t from = script.host();
    const std::string device = World::nameOf(script.interface());
    for (unsigned left = 8 * script.number(36); left > 0; --left) {
        world.network.connect(device, from);
        world.settle();
    }
}

void Player::sendBytes() {
    Link* const link = script.choose(world.linksTo(false));
    const std::string bytes = script.text();
    if (link && !link->hostEnded && !link->hostReset && !link->processClosed) link->sent += bytes;
}

void Player::endSide() {
    if (Link* const link = script.choose(world.linksTo(false))) link->hostEnded = true;
}

void Player::reset() {
    if (Link* const link = script.choose(world.linksTo(false))) link->hostReset = true;
}

void Player::narrow() {
    Link* const link = script.choose(world.linksTo(script.number(2) == 1));
    const unsigned room = script.number(36) * 16;
    if (link) link->room = room;
}

Link* Player::visit(std::uint32_t interface, const std::string& request) {
    const std::uint32_t from = script.host();
    const unsigned pieceBytes = script.number(36) * 7;
    Link* const link = world.network.connect(World::nameOf(interface), from);
    if (!link) return nullptr;
    if (pieceBytes == 0) link->sent = request;
    world.settle();
    for (std::size_t pieces = 1; link->sent.size() < request.size() && !link->processClosed; ++pieces) {
        link->sent +=
            request.substr(link->sent.size(), pieces == mostPieces ? std::string::npos : pieceBytes);
        world.settle();
    }
    return link;
}

bool Player::isGranted(const Link* link) {
    return link && link->answer.starts_with("HTTP/1.1 200 ");
}

void Player::get() {
    const char* const paths[] = {"/gateway.xml", "/osinfo.xml", "/wanipconn-2.xml", "/logo16.gif",
                                 "/../store/upnp"};
    const std::uint32_t to = script.interface();
    const std::string path = paths[script.number(std::size(paths))];
    visit(to, bare(script.number(3) == 2 ? "OPTIONS" : "GET", path, world.addressOf(to),
                   "ACCEPT-LANGUAGE: en\r\n"));
}

void Player::callAction() {
    const std::uint32_t to = script.interface();
    const unsigned service = script.number(serviceCount);
    const unsigned action = script.number(actionCount);
    visit(to, soap(service, action, world.addressOf(to), [this] { return script.argument(); }));
}

void Player::datagram() {
    const std::uint32_t to = script.interface();
    const std::uint32_t from = script.host();
    world.searchAnswers.clear();
    if (!world.network.sendDatagram(World::nameOf(to), from, script.text())) return;
    world.settle();
    for (const auto& [asker, answer] : world.searchAnswers)
        require(asker == from, "only the asker is answered");
}

/// A search that is as it should be is answered with all that it asks for.
void Player::search() {
    const char* const types[] = {"ssdp:all", "upnp:rootdevice",
                                 "urn:schemas-upnp-org:service:WANIPConnection:1",
                                 "urn:schemas-upnp-org:device:WANDevice:1", "urn:nothing"};
    const std::uint32_t to = script.interface();
    const std::uint32_t from = script.host();
    const std::string type = types[script.number(std::size(types))];
    world.searchAnswers.clear();
    const bool isHeard =
        world.network.sendDatagram(World::nameOf(to), from,
                                   "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: "
                                   "\"ssdp:discover\"\r\nMX: 1\r\nST: " +
                                       type + "\r\n\r\n");
    if (!isHeard) return;
    world.settle();
    Names answered;
    for (const auto& [asker, text] : world.searchAnswers) {
        const gateway::HTTPMessage answer(text);
        require(answer.complete && asker == from, "only the asker is answered");
        answered.emplace(answer.get("ST"), answer.get("USN"));
    }
    Names expected;
    for (const auto& [name, unique] : world.expectedNames())
        if (type == "ssdp:all" || type == name) expected.emplace(name, unique);
    require(world.network.hasFailed || answered == expected, "a search finds what is there, each once");
}

}  // namespace fuzz
