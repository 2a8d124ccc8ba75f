#include "fuzz/hub/world.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include <gtest/gtest.h>

#include "fuzz/target.h"
#include "hub/budgets.h"
#include "tk/bus.h"
#include "tk/fd.h"
#include "tk/names.h"

namespace fuzz {

namespace {

using hub::testing::TestClient;

// As little as the kernel allows, so that the hub itself soon keeps what a peer does not read.
constexpr int socketBytes = 1;
constexpr int turnsPerStep = 3;  // to read and handle, to hear of ends, and to see that nothing follows
// A peer that leaves more of its own unread is not served any more: no step leaves so much.
constexpr std::size_t unreadLimit = std::size_t{1024} * 1024;
// What one account may be over its limit: a frame that cannot be refused any more, and connections.
constexpr std::size_t overdraft = std::size_t{128} * 1024;
// What the kernel may hold of what a peer has not read.
constexpr std::size_t kernelBytes = std::size_t{32} * 1024;
// What the hub keeps for a request or a subscription: at least, and at most beside the frame's own size.
constexpr std::size_t smallestCost = 64;
constexpr std::size_t largestExtra = 8192;
constexpr std::uint32_t ownRequester = 0;  // the number that the hub's own handlers have

/// Without the text of an error, also of one that is shown to a tracer.
tk::message withoutText(tk::message source) {
    const std::vector<tk::message> nested = source.get_message_array(1);
    if (tk::kindOf(source) == tk::Kind::notification && nested.size() == 1)
        source.insert_message_array(1, {withoutText(nested[0])});
    if (tk::kindOf(source) == tk::Kind::error) source.remove(tk::field::errorText);
    return source;
}

bool isRefusalOf(const tk::message& end, std::uint32_t code) {
    return tk::kindOf(end) == tk::Kind::error && end.get_u32(tk::field::errorCode) == code;
}

/// True when the hub has closed the connection, even if something is left to read.
bool hasEnded(int socket) {
    pollfd state{socket, POLLRDHUP, 0};
    return ::poll(&state, 1, 0) == 1;
}

bool isReadable(int socket) {
    char byte;
    return ::recv(socket, &byte, 1, MSG_DONTWAIT | MSG_PEEK) > 0;
}

void show(const char* what, const tk::message& passed) {
    std::fprintf(stderr, "%s: kind %u, number %u, command %#x, code %#x", what,
                 passed.get_u32(tk::field::kind), passed.get_u32(tk::field::number),
                 passed.get_u32(tk::field::command), passed.get_u32(tk::field::errorCode));
    for (const std::uint32_t id : {tk::field::sender, tk::field::destination}) {
        std::fputs(id == tk::field::sender ? ", from" : ", to", stderr);
        for (const std::uint32_t element : passed.get_u32_array(id)) std::fprintf(stderr, " %u", element);
    }
    std::fprintf(stderr, ", %zu bytes\n", passed.serialise().size());
}

}  // namespace

tk::message HubWorld::Router::handle(const tk::message&) {
    tk::message reply;
    reply.insert_u32(1, world.bus.hub.requester().user());
    return reply;
}

tk::message HubWorld::Router::handleReply(const tk::message& end) {
    require(end.get_u32_array(tk::field::destination).at(0) == path().at(0), "an end reaches its program");
    world.ownEnds.push_back(end);
    return {};
}

tk::message HubWorld::Router::cmdDisconnected(const tk::Path& client) {
    if (this == &world.interfaces) world.gone.push_back(client.at(0));
    return {};
}

HubWorld::HubWorld()
    : socketsAtFirst(bus.looper.runner().socketCount()), timersAtFirst(bus.looper.runner().timerCount()) {
    bus.hub.addService(interfaces, {20, 0});
    bus.hub.addService(rules, {20, 5});
    bus.hub.setStarter(this);
    bus.hub.setProgramWatcher(this);
    bus.hub.setReloader(this);
}

HubWorld::~HubWorld() {
    filling.clear();
    bus.hub.close();
}

tk::Status HubWorld::start(std::uint32_t program) {
    return isStartable(program) ? tk::Status() : tk::Status::failure("nobody can start it");
}

tk::Result<std::vector<std::string>> HubWorld::reload(const std::string&) {
    bus.hub.setAccess(hub::Access(model.nextTable));
    return std::vector<std::string>();
}

void HubWorld::settle() {
    for (int i = 0; i < turnsPerStep; ++i) bus.looper.turn(0);
}

/// What can be seen without reading is the same; a poor user's connections may have been dropped.
void HubWorld::agree() {
    for (std::size_t i = 0; i < actors.size(); ++i) {
        HubModel::Peer& peer = model.peers[i];
        if (isPoor() && peer.user == poorUser && peer.isOpen && hasEnded(actors[i].socket)) model.drop(peer);
    }
    model.endStep();
    require(bus.hub.peerCount() == model.openCount(), "who breaks no rule stays, and who breaks one goes");
    agreeOnOwn();
    for (const std::uint32_t program : {80U, 14U, 81U, 24U})
        require(bus.hub.awaits(program) == model.isAwaited(program), "what waits for a program waits");
    for (const tk::Path& from : {tk::Path{80, 0}, tk::Path{20, 0}})
        require(bus.hub.isHeard(from, tk::command::objectsChanged) ==
                    model.isHeard(from, tk::command::objectsChanged),
                "only subscribers and tracers hear");
    agreeOnAccounts();
    for (std::size_t i = 0; i < actors.size(); ++i)
        if (model.peers[i].unread > unreadLimit) read(i);
}

/// What pays for the peers, also for those that have left, and for the hub's own handlers.
std::map<const tk::Budget*, HubWorld::Account> HubWorld::accounts() {
    std::map<const tk::Budget*, Account> found;
    found[&bus.hub.budgetOf(0, ownRequester)].limit = hub::Budgets::rootLimit;
    for (std::size_t i = 0; i < actors.size(); ++i) {
        const HubModel::Peer& peer = model.peers[i];
        Account& account = found[&bus.hub.budgetOf(peer.user, peer.number)];
        account.limit = peer.user == 0 ? hub::Budgets::rootLimit : hub::Budgets::userLimit;
        // Of who has left, a request may still wait for its program to read it.
        if (peer.isOpen) account.kept += keptFor(i);
    }
    if (isPoor()) found[&bus.hub.budgetOf(poorUser, 0)].kept += filling.front().bytes();
    return found;
}

void HubWorld::agreeOnAccounts() {
    for (const auto& [budget, account] : accounts()) {
        require(budget->usedBytes() <= account.limit + overdraft, "nobody takes more than its account");
        require(budget->usedBytes() >= account.kept, "what is kept is charged to whom it is kept for");
    }
}

/// What the hub keeps for an open peer at least.
std::size_t HubWorld::keptFor(std::size_t number) const {
    const HubModel::Peer& peer = model.peers[number];
    const std::size_t kept = model.keptFor(peer);
    const bool isOrWasProgram =
        peer.program != 0 || peer.former != 0;  // who asks it pays for what it has not read
    const std::size_t elsewhere = kernelBytes + actors[number].inboxBytes;
    return kept + (peer.unread > elsewhere && !isOrWasProgram ? peer.unread - elsewhere : 0);
}

void HubWorld::agreeOnOwn() {
    require(gone == model.gone, "the handlers hear of each end once, and of no other");
    require(registrations == model.registered, "the starter hears of each registration");
    require(left == model.left, "the watcher hears of each program that leaves");
    require(ownEnds.size() == model.ownEnds.size(), "each request of a handler ends once");
    for (std::size_t i = 0; i < ownEnds.size(); ++i) {
        const auto& [content, isOfHub] = model.ownEnds[i];
        require((isOfHub ? withoutText(ownEnds[i]) : ownEnds[i]) == content, "the handler gets its end");
    }
    ownEnds.clear();
    model.ownEnds.clear();
}

void HubWorld::connect(uid_t user) {
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0, "socket pair");
    require(::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &socketBytes, sizeof socketBytes) == 0, "buffer");
    bus.hub.adopt(tk::Fd(ends[0]), {0, user, 0});
    actors.emplace_back();
    actors.back().client = std::make_unique<TestClient>(tk::Fd(ends[1]));
    actors.back().socket = ends[1];
    model.connect(user);
    agree();
}

void HubWorld::leave(std::size_t peer) {
    actors[peer].client.reset();
    settle();
    model.end(model.peers[peer]);
    agree();
}

void HubWorld::write(std::size_t peer, std::string_view bytes) {
    while (!bytes.empty() && isOpen(peer)) {
        const std::size_t count = std::min(HubModel::untilFrameEnds(model.peers[peer], bytes), bytes.size());
        writeFrame(peer, bytes.substr(0, count));
        bytes.remove_prefix(count);
    }
}

/// Writes bytes of one frame. A poor user's peer reads at once, as its answer tells whether there was room.
void HubWorld::writeFrame(std::size_t peer, std::string_view bytes) {
    const bool isOfPoor = model.peers[peer].user == poorUser;
    // It may be a registration, at which each request that waits for it would need room once more.
    if (!isOfPoor && model.isAwaitedBy(poorUser)) empty();
    const bool mayBeFull = isPoor() && isOfPoor;
    if (mayBeFull) fetch(actors[peer]);
    const std::size_t before = actors[peer].inbox.size();
    const std::size_t used = bus.hub.budgetOf(poorUser, 0).usedBytes();
    require(actors[peer].client->isWritable(), "an open peer is served");
    actors[peer].client->sendBytes(std::string(bytes));
    settle();
    using Room = HubModel::Room;
    Room room = used + smallestCost > hub::Budgets::userLimit ? Room::none : Room::some;
    if (mayBeFull && seesRefusal(peer, before)) room = Room::refused;
    const std::size_t most = model.peers[peer].unfinished.size() + bytes.size() + largestExtra;
    require(room == Room::some || used + most > hub::Budgets::userLimit,
            "there is room until the account is full");
    model.sent(model.peers[peer], bytes, mayBeFull ? room : Room::some);
    agree();
}

/// True when the peer was refused for want of room, or dropped, since it had read so many messages.
bool HubWorld::seesRefusal(std::size_t peer, std::size_t before) {
    fetch(actors[peer]);
    const std::vector<tk::message>& inbox = actors[peer].inbox;
    return hasEnded(actors[peer].socket) ||
           std::any_of(inbox.begin() + static_cast<std::ptrdiff_t>(before), inbox.end(),
                       [](const tk::message& end) { return isRefusalOf(end, tk::error::busy); });
}

void HubWorld::fetch(Actor& actor) {
    while (isReadable(actor.socket)) {
        std::vector<tk::message> arrived = actor.client->take();
        for (const tk::message& one : arrived) actor.inboxBytes += one.serialise().size();
        std::move(arrived.begin(), arrived.end(), std::back_inserter(actor.inbox));
        settle();
    }
}

void HubWorld::read(std::size_t number) {
    Actor& actor = actors[number];
    HubModel::Peer& peer = model.peers[number];
    if (!actor.client) return;
    fetch(actor);
    actor.inboxBytes = 0;
    for (tk::message& arrived : std::exchange(actor.inbox, {})) take(actor, peer, std::move(arrived));
    require(!peer.isOpen || peer.expected.empty(), "everything arrives");
    peer.unread = 0;
    require(hasEnded(actor.socket) != peer.isOpen, "an ended connection is closed");
}

void HubWorld::take(Actor& actor, HubModel::Peer& peer, tk::message arrived) {
    require(!peer.expected.empty(), "nothing arrives that should not");
    const HubModel::Expected next = std::move(peer.expected.front());
    peer.expected.pop_front();
    const bool isRight = (next.isOfHub ? withoutText(arrived) : arrived) == next.content;
    if (!isRight) show("arrived", arrived);
    if (!isRight) show("expected", next.content);
    require(isRight, "the right message arrives");
    const tk::Kind kind = tk::kindOf(arrived);
    if (next.isOfHub && kind == tk::Kind::error)
        require(!tk::getError(arrived).empty(), "a refusal says why");
    if (kind == tk::Kind::request) {
        actor.requests.push_back(std::move(arrived));
        return;
    }
    if (kind == tk::Kind::notification) return;
    if (const std::uint32_t ended = arrived.get_u32(tk::field::number); ended != 0)
        require(peer.waiting[ended]-- > 0, "each request ends once");
}

void HubWorld::post(const tk::message& stamped) {
    bus.hub.post(stamped);
    settle();
    model.post(stamped);
    agree();
}

void HubWorld::setTable(const std::vector<hub::UserRights>& table) {
    bus.hub.setAccess(hub::Access(table));
    settle();
    model.setTable(table);
    agree();
}

void HubWorld::programFailed(std::uint32_t program) {
    bus.hub.programFailed(program, "it ended");
    settle();
    model.programFailed(program);
    agree();
}

void HubWorld::advance(std::uint32_t ticks) {
    bus.clock.advance(std::uint64_t{ticks} * tk::tickMilliseconds);
    settle();
    model.advance(ticks);
    agree();
}

void HubWorld::leaveRoom(std::size_t bytes) {
    filling.clear();
    tk::Budget& account = bus.hub.budgetOf(poorUser, 0);
    const std::size_t kept = std::min(account.usedBytes() + bytes, hub::Budgets::userLimit);
    filling.emplace_back(account, hub::Budgets::userLimit - kept);
}

void HubWorld::finish() {
    filling.clear();
    for (int round = 0; round < 3; ++round) {
        for (std::size_t i = 0; i < actors.size(); ++i) read(i);
        advance(hub::Hub::expiryTicks);
    }
    for (std::size_t i = 0; i < actors.size(); ++i) {
        read(i);
        for (const auto& [number, count] : model.peers[i].waiting)
            require(!isOpen(i) || count == 0, "each request ends");
    }
    for (std::size_t i = 0; i < actors.size(); ++i)
        if (isOpen(i)) leave(i);
    for (const auto& [budget, account] : accounts())
        require(budget->usedBytes() == 0, "nothing is charged for nobody");
    bus.hub.close();
    require(bus.looper.runner().socketCount() == socketsAtFirst, "no descriptor is watched any more");
    require(bus.looper.runner().timerCount() == timersAtFirst, "no timer is armed any more");
}

}  // namespace fuzz
