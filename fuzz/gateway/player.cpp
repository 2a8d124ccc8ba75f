#include "fuzz/gateway/player.h"

#include <arpa/inet.h>
#include <errno.h>

#include <algorithm>
#include <iterator>

#include "contract/interfaces.h"
#include "contract/mappings.h"
#include "contract/programs.h"
#include "contract/resolver.h"
#include "fuzz/gateway/requests.h"
#include "fuzz/target.h"
#include "http/httpmessage.h"
#include "tk/names.h"
#include "tracking/testing/recordmakers.h"

namespace fuzz {

namespace {

constexpr int floodSteps = 10;  // that a flood counts for
constexpr unsigned mostPieces = 64;
constexpr unsigned clients = 10;  // hosts
constexpr std::size_t longPath = std::size_t{30} * 1024;

}  // namespace

void Player::play() {
    static constexpr Step steps[] = {
        {'C', &Player::connect},
        {'M', &Player::connectOften},
        {'s', &Player::sendBytes},
        {'e', &Player::endSide},
        {'x', &Player::reset},
        {'w', &Player::narrow},
        {'G', &Player::get},
        {'A', &Player::callAction},
        {'U', &Player::subscribe},
        {'Y', &Player::subscribeOften},
        {'R', &Player::renew},
        {'V', &Player::unsubscribe},
        {'d', &Player::datagram},
        {'S', &Player::search},
        {'I', &Player::changeInterface},
        {'a', &Player::changeAddress},
        {'t', &Player::changeState},
        {'n', &Player::announceWalk},
        {'B', &Player::changeReplies},
        {'T', &Player::passTime},
        {'E', &Player::changeSettings},
        {'i', &Player::addItem},
        {'j', &Player::setItem},
        {'k', &Player::removeItem},
        {'l', &Player::list},
        {'P', &Player::changePeers},
        {'p', &Player::movePeer},
        {'q', &Player::endQuestion},
        {'F', &Player::failCall},
        {'o', &Player::reverse},
        {'N', &Player::restart},
    };
    while (!rest.empty() && stepsLeft > 0) {
        const char letter = rest.front();
        rest.remove_prefix(1);
        const auto* const step = std::find_if(std::begin(steps), std::end(steps),
                                              [&](const Step& each) { return each.letter == letter; });
        if (step == std::end(steps)) continue;
        (this->*step->take)();
        world.settle();
        world.check();
        --stepsLeft;
    }
}

/// One byte: a digit or a letter counts from 0 to 35, and any other for itself.
unsigned Player::number(unsigned limit) {
    if (rest.empty()) return 0;
    const auto byte = static_cast<unsigned char>(rest.front());
    rest.remove_prefix(1);
    if (byte >= '0' && byte <= '9') return (byte - unsigned{'0'}) % limit;
    if (byte >= 'a' && byte <= 'z') return (byte - unsigned{'a'} + 10) % limit;
    return byte % limit;
}

/// All bytes up to a semicolon.
std::string Player::text() {
    const std::size_t end = std::min(rest.find(';'), rest.size());
    std::string found(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return found;
}

std::uint32_t Player::host() {
    return htonl(0xC0A8010A + number(clients));  // 192.168.1.10 and those after it
}

std::string Player::address() {
    const char* const addresses[] = {"192.168.1.1",  "192.168.1.2",     "192.168.3.1", "198.51.100.1",
                                     "198.51.100.9", "203.0.113.1",     "0.0.0.0",     "127.0.0.1",
                                     "10.0.0.1",     "255.255.255.255", "224.0.0.1",   "1.0.0.0"};
    return addresses[number(std::size(addresses))];
}

const std::string* Player::argument() {
    const char* const values[] = {"",
                                  "TCP",
                                  "UDP",
                                  "0",
                                  "80",
                                  "8080",
                                  "65535",
                                  "65536",
                                  "1",
                                  "192.168.1.10",
                                  "-1",
                                  "true",
                                  "no",
                                  "255.255.255.255",
                                  "3600",
                                  "192.168.1.11",
                                  "%s%n\x7f\xc2\x85&gt;"};
    constexpr unsigned own = std::size(values);
    const unsigned choice = number(own + 4);
    if (choice < own)
        value = values[choice];
    else if (choice == own)
        value = text();
    else if (choice == own + 1)
        value.assign(std::size_t{60} * 1024, 'x');
    else if (choice == own + 2)
        value.assign(std::size_t{5} * 1024, '\n');
    else
        return nullptr;
    return &value;
}

Link* Player::chosen(const std::vector<Link*>& links) {
    const unsigned place = number(256);
    return links.empty() ? nullptr : links[links.size() - 1 - place % links.size()];  // 0 is the latest
}

void Player::connect() {
    const std::uint32_t from = host();
    world.network.connect(World::nameOf(interface()), from);
}

void Player::connectOften() {
    stepsLeft -= floodSteps;
    const std::uint32_t from = host();
    const std::string device = World::nameOf(interface());
    for (unsigned left = 8 * number(36); left > 0; --left) {
        world.network.connect(device, from);
        world.settle();
    }
}

void Player::sendBytes() {
    Link* const link = chosen(world.linksTo(false));
    const std::string bytes = text();
    if (link && !link->hostEnded && !link->hostReset && !link->processClosed) link->sent += bytes;
}

void Player::endSide() {
    if (Link* const link = chosen(world.linksTo(false))) link->hostEnded = true;
}

void Player::reset() {
    if (Link* const link = chosen(world.linksTo(false))) link->hostReset = true;
}

void Player::narrow() {
    Link* const link = chosen(world.linksTo(number(2) == 1));
    const unsigned room = number(36) * 16;
    if (link) link->room = room;
}

Link* Player::visit(std::uint32_t interface, const std::string& request) {
    const std::uint32_t from = host();
    const unsigned pieceBytes = number(36) * 7;
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
    const std::uint32_t to = interface();
    const std::string path = paths[number(std::size(paths))];
    visit(to, bare(number(3) == 2 ? "OPTIONS" : "GET", path, world.addressOf(to), "ACCEPT-LANGUAGE: en\r\n"));
}

void Player::callAction() {
    const std::uint32_t to = interface();
    const unsigned service = number(serviceCount);
    const unsigned action = number(actionCount);
    visit(to, soap(service, action, world.addressOf(to), [this] { return argument(); }));
}

void Player::subscribe() {
    const char* const urls[] = {"http://192.168.1.10/",      "http://192.168.1.11:5000/a",
                                "http://192.168.1.12:1/b",   "http://printer.example/e",
                                "http://tv.example:90/",     "http://127.0.0.1:2828/",
                                "http://255.255.255.255:9/", "http://192.168.1.10"};
    const char* const times[] = {"Second-1800", "Second-infinite", "Second--1", "Second-3600", ""};
    const std::uint32_t to = interface();
    const std::string path = std::string("/upnp/event/") + serviceName(number(serviceCount));
    const unsigned choice = number(std::size(urls) + 3);
    std::string url;
    if (choice < std::size(urls))
        url = urls[choice];
    else if (choice == std::size(urls) + 1)
        url = text();
    else
        url = "http://10.0.0." + std::to_string(number(256)) + ":8000/";
    if (choice == std::size(urls) + 2) url.append(longPath, 'p');
    const std::size_t deliveries = world.linksTo(true).size();
    const Link* const link = visit(to, bare("SUBSCRIBE", path, world.addressOf(to),
                                            "CALLBACK: <" + url + ">\r\nNT: upnp:event\r\nTIMEOUT: " +
                                                times[number(std::size(times))] + "\r\n"));
    const bool isReachable = !world.network.hasFailed && world.network.peers != Network::Peers::unreachable;
    require(!isGranted(link) || !isReachable || world.linksTo(true).size() > deliveries,
            "a subscriber is told all values at once");
}

/// From many hosts, each for itself.
void Player::subscribeOften() {
    stepsLeft -= floodSteps;
    const std::uint32_t to = interface();
    const std::string path = std::string("/upnp/event/") + serviceName(number(serviceCount));
    for (unsigned left = 4 * number(36); left > 0; --left) {
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
    const std::uint32_t to = interface();
    const std::string path = std::string("/upnp/event/") + serviceName(number(serviceCount));
    const std::vector<std::string> sids = world.subscribers();
    const unsigned choice = number(36);
    const std::string sid = sids.empty() ? "uuid:none" : sids[choice % sids.size()];
    const Link* const link =
        visit(to, bare(method, path, world.addressOf(to), "SID: " + sid + "\r\n" + more));
    if (method == "SUBSCRIBE" || !isGranted(link)) return;
    const std::vector<std::string> left = world.subscribers();
    require(std::find(left.begin(), left.end(), sid) == left.end(), "who has unsubscribed is no subscriber");
}

void Player::datagram() {
    const std::uint32_t to = interface();
    const std::uint32_t from = host();
    world.searchAnswers.clear();
    if (!world.network.sendDatagram(World::nameOf(to), from, text())) return;
    world.settle();
    for (const auto& [asker, answer] : world.searchAnswers)
        require(asker == from, "only the asker is answered");
}

/// A search that is as it should be is answered with all that it asks for.
void Player::search() {
    const char* const types[] = {"ssdp:all", "upnp:rootdevice",
                                 "urn:schemas-upnp-org:service:WANIPConnection:1",
                                 "urn:schemas-upnp-org:device:WANDevice:1", "urn:nothing"};
    const std::uint32_t to = interface();
    const std::uint32_t from = host();
    const std::string type = types[number(std::size(types))];
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

void Player::changeInterface() {
    const std::uint32_t id = interface();
    tk::message record = gateway::interfaceRecord(id, World::nameOf(id), "a name\x1b[0m");
    switch (number(6)) {
        case 0:
            world.router.interfaces[id] = record;
            break;
        case 1:
        case 2:
            record.insert_u32(contract::interfacefield::flags, id % 2 == 0 ? 0x80 : 0x02);
            world.router.interfaces.erase(id);
            break;
        case 3:
            record = {};
            record.insert_u32(tk::field::objectId, id);
            break;
        case 4:
            record.insert_string(contract::interfacefield::flags, "2");
            record.insert_u32(contract::interfacefield::name, 1);
            break;
        case 5:
            record.insert_string(contract::interfacefield::name,
                                 "an interface with a name that is far too long");
            break;
        default:
            break;
    }
    world.notify(contract::path::interfaces(), contract::interfaceChanged, record);
}

void Player::changeAddress() {
    const std::uint32_t id = number(36);
    const std::uint32_t of = interface();
    tk::message record = gateway::addressRecord(id, address().c_str(), of);
    world.router.addresses[id] = record;
    switch (number(6)) {
        case 1:
            record.insert_u32(tk::field::deleted, 1);
            world.router.addresses.erase(id);
            break;
        case 2:
            record.insert_bool(tk::field::disabled, true);
            break;
        case 3:
            record.remove(1);
            break;
        case 4:
            record.insert_string(1, "192.168.1.1");
            record.insert_string(5, "1");
            break;
        case 5:
            record.remove(5);
            record.insert_u32(10, of);
            break;
        default:
            break;
    }
    world.notify(contract::path::addresses(), tk::command::objectsChanged,
                 gateway::carrying({record, record}));
}

void Player::changeState() {
    const std::uint32_t id = interface();
    const unsigned bits = number(8);
    tk::message record = gateway::statusRecord(id, (bits & 1) != 0, (bits & 2) != 0);
    if (bits & 4) record.remove(tk::field::disabled);
    world.router.states[id] = record;
    world.notify(contract::path::interfaces(), tk::command::objectsChanged, gateway::carrying({record}));
}

/// A notification without records makes the daemon read them all.
void Player::announceWalk() {
    const tk::Path from[] = {
        contract::path::interfaces(), contract::path::addresses(), contract::path::nat(), {}};
    world.notify(from[number(std::size(from))], tk::command::objectsChanged, {});
}

void Player::changeReplies() {
    const auto question = static_cast<Question>(number(static_cast<unsigned>(Question::count)));
    world.router.end(question, static_cast<Reply>(number(static_cast<unsigned>(Reply::count))));
}

void Player::passTime() {
    constexpr std::uint64_t spans[] = {1,     10,    100,   990,     1000,    5999,    6000,
                                       10000, 29990, 30000, 1800000, 3570000, 90000000};
    world.pass(spans[number(std::size(spans))]);
}

void Player::changeSettings() {
    configured = true;
    const unsigned bits = number(16);
    tk::message settings;
    if (!(bits & 8)) settings.insert_bool(1, (bits & 1) != 0);
    settings.insert_bool(2, (bits & 2) == 0);
    settings.insert_bool(3, (bits & 4) == 0);
    (void)world.request(0, tk::command::set, settings);  // either answer is right
}

tk::message Player::item() {
    configured = true;
    tk::message values;
    values.insert_u32(1, interface());
    const unsigned kind = number(8);
    values.insert_u32(2, kind % 4);
    values.insert_bool(tk::field::disabled, kind >= 4);
    return values;
}

void Player::addItem() {
    (void)world.request(0, tk::command::addObject, item());  // either answer is right, as in the next two
}

void Player::setItem() {
    const std::uint32_t id = number(8);
    tk::message values = item();
    values.insert_u32(tk::field::objectId, id);
    (void)world.request(0, tk::command::setObject, values);
}

void Player::removeItem() {
    configured = true;
    tk::message values;
    values.insert_u32(tk::field::objectId, number(8));
    (void)world.request(0, tk::command::removeObject, values);
}

void Player::list() {
    const struct {
        std::uint32_t handler;
        std::uint32_t command;
    } rows[] = {{contract::handler::mappings, tk::command::getAll},
                {contract::handler::mappings, tk::command::getCount},
                {contract::handler::mappings, contract::recentRefusals},
                {0, tk::command::getAll},
                {0, tk::command::getObject},
                {0, tk::command::get},
                {0, tk::command::moveObject},
                {0, contract::interfaceChanged}};
    const auto& row = rows[number(std::size(rows))];
    tk::message request;
    request.insert_u32(tk::field::next, number(36) << 14);
    (void)world.request(row.handler, row.command, request);  // the answers have tests of their own
}

void Player::changePeers() {
    world.network.peers = static_cast<Network::Peers>(number(5));
}

void Player::movePeer() {
    Link* const link = chosen(world.linksTo(true));
    const unsigned move = number(6);
    const std::string bytes = move == 4 ? text() : std::string();
    if (!link || link->processClosed) return;
    const char* const replies[] = {"HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 500 No\r\n\r\n"};
    if (move == 0) link->state = Link::State::up;
    if (move == 1 && link->state == Link::State::connecting) link->state = Link::State::refused;
    if (move == 2) link->hostReset = true;
    if (move == 3) link->hostEnded = true;
    if (move == 4) link->sent += bytes;
    if (move == 5) link->sent += replies[number(2)];
}

void Player::endQuestion() {
    const std::vector<std::uint32_t>& asked = world.bus.asked;
    const unsigned place = number(36);
    tk::message end;
    switch (number(5)) {
        case 0:
            end.insert_be32(contract::resolvefield::address, htonl(0xC0A80114));
            break;
        case 1:
            end = tk::errorMsg(tk::error::failed, "no such\nname");
            break;
        case 2:
            end.insert_string(contract::resolvefield::address, "192.168.1.20");
            break;
        case 3:
            end = tk::errorMsg(tk::error::failed, "and yet");
            end.insert_be32(contract::resolvefield::address, htonl(0xC0A80115));
            break;
        default:
            break;
    }
    const std::uint32_t number = asked.empty() ? place : asked[asked.size() - 1 - place % asked.size()];
    world.endQuestion(number, end);  // perhaps once more, or after nobody waits for it
}

void Player::failCall() {
    constexpr int errors[] = {EMFILE,  ENOMEM,   EAGAIN,     EINTR, ECONNABORTED,
                              ENOBUFS, ENETDOWN, EADDRINUSE, EPERM, ENODEV};
    const auto call = static_cast<Call>(number(static_cast<unsigned>(Call::count)));
    const unsigned after = number(16);
    world.network.failOnce(call, after, errors[number(std::size(errors))]);
}

void Player::reverse() {
    world.network.isReversed = !world.network.isReversed;
}

void Player::restart() {
    world.start();
}

}  // namespace fuzz
