#include "hub/hub.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "tk/frame.h"
#include "tk/names.h"

namespace router {

namespace {

// With the sender appended, a message may have one field more than a receiver accepts.
constexpr std::size_t fieldLimit = 1024;

/// What a requester is told in place of an end that has no room in a frame.
tk::message tooLarge(const tk::message& end) {
    tk::message told = tk::errorMsg(tk::error::failed, "the answer is too large");
    told.insert_u32_array(tk::field::destination, end.get_u32_array(tk::field::destination));
    tk::stamp(told, end.get_u32_array(tk::field::sender), end.get_u32(tk::field::number), tk::Kind::error,
              end.get_u32(tk::field::command));
    return told;
}

}  // namespace

Hub::Hub() = default;

Hub::~Hub() = default;

void Hub::addService(tk::Handler& handler, const tk::Path& path) {
    handler.attach(*this, path);
    services.add(handler);
}

void Hub::adopt(tk::Fd socket, const Credentials& credentials) {
    if (const std::string reason = whyFullFor(credentials.uid); !reason.empty())
        return turnAway(socket, credentials.uid, tk::error::busy, reason);
    budgets.forgetUnused();
    const std::uint32_t number = newClientNumber();
    HubPeer::Owner& owner = *this;
    const HubPeer::Terms terms{credentials, number, budgets.of(credentials.uid, number)};
    peers[number] = std::make_unique<HubPeer>(std::move(socket), terms, owner);
}

/// One that no connection has, also when all have been given out once.
std::uint32_t Hub::newClientNumber() {
    while (nextClient < tk::program::firstClient || peers.contains(nextClient))
        nextClient = std::max(nextClient + 1, tk::program::firstClient);
    return nextClient++;
}

/// Why there is no room for another connection of `user`; empty where there is.
std::string Hub::whyFullFor(uid_t user) const {
    const auto own = static_cast<std::size_t>(std::count_if(
        peers.begin(), peers.end(), [user](const auto& entry) { return entry.second->user().uid == user; }));
    if (user != 0 && own >= peerLimitPerUser) return "too many connections of one user";
    const std::size_t room = access.runsPrograms(user) ? peerLimit : peerLimit - reservedPeers;
    return peers.size() >= room ? "too many connections" : "";
}

void Hub::turnAway(const tk::Fd& socket, uid_t user, std::uint32_t code, const std::string& why) {
    refusedConnections.note("connection of user " + std::to_string(user) + " refused", user, why);
    tk::message told = tk::errorMsg(code, why);
    tk::stamp(told, {tk::program::hub}, 0, tk::Kind::error, 0);
    trace(told);
    std::string frame;
    // The socket is new: the frame fits its buffer, or the peer is gone and misses nothing.
    if (tk::appendFrame(frame, told))
        (void)::send(socket.get(), frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void Hub::close() {
    expiry.disarm();
    for (RefusalLog* each : {&refusedConnections, &refusedMessages, &droppedClients, &leftPrograms})
        each->close();
    services.clear();
    starter = nullptr;
    watcher = nullptr;
    awaited.clear();
    programs.clear();
    peers.clear();
}

void Hub::peerSent(HubPeer& peer, tk::message received) {
    peer.stampSender(received);
    if (received.fields().size() > fieldLimit) return peer.drop("it sent a message of too many fields");
    if (tk::kindOf(received) == tk::Kind::request) return takeRequest(peer, received);
    if (isRefused(peer, received)) return;
    if (tk::kindOf(received) == tk::Kind::notification) return publish(received);
    takeEnd(peer, received);
}

/// True when what needs no answer is not passed on.
bool Hub::isRefused(const HubPeer& from, const tk::message& sent) {
    const std::string why = access.whyRefused(from.user().uid, sent);
    if (!why.empty()) noteRefused(from, "it " + why);
    return !why.empty();
}

void Hub::noteRefused(const HubPeer& from, const std::string& why) {
    const uid_t user = from.user().uid;
    refusedMessages.note("message of user " + std::to_string(user) + " refused", user, why);
}

/// A client that comes, asks and goes is no event; a program is, and so is a peer that had to be dropped.
void Hub::tellEnd(const HubPeer& peer, const std::string& reason) {
    const std::string event = std::to_string(peer.identity()) + " left";
    if (peer.isProgram()) return leftPrograms.note(event, peer.user().uid, reason);
    if (peer.wasDropped()) droppedClients.note(event, peer.user().uid, reason);
}

void Hub::peerEnded(HubPeer& peer, const std::string& reason) {
    const std::uint32_t number = peer.clientNumber();
    const std::uint32_t identity = peer.identity();
    tellEnd(peer, reason);
    const std::unique_ptr<HubPeer> ended = std::move(peers[number]);  // destroyed when all is cleaned up
    peers.erase(number);
    if (ended->isProgram()) programs.erase(identity);
    subscriptions.drop(number);
    tracers.drop(number);
    pending.dropOfRequester(number);
    for (auto& [program, waiting] : awaited) waiting.drop(number);
    forgetEmptyAwaited();
    // What it made goes before anybody is told: whoever hears of its end finds nothing of it any more.
    services.disconnected({number});
    if (identity != number) services.disconnected({identity});
    for (const tk::message& request : pending.takeOfCallee(number))
        refuse(request, tk::error::disconnected, "the program left before it answered");
}

void Hub::takeRequest(HubPeer& from, const tk::message& request) {
    trace(request);
    route(from, request);
}

void Hub::takeEnd(HubPeer& from, const tk::message& end) {
    trace(end);
    const tk::Path& path = end.get_u32_array(tk::field::destination);
    if (tk::Handler* handler = services.find(path)) {
        if (pending.finish(ownRequester, from.clientNumber(), end)) (void)handler->handleReply(end);
        return;
    }
    HubPeer* to = peerOf(path);
    if (to && pending.finish(to->clientNumber(), from.clientNumber(), end)) deliverEnd(*to, end);
}

void Hub::sendEnd(const tk::message& end) {
    trace(end);
    if (tk::Handler* handler = services.find(end.get_u32_array(tk::field::destination)))
        return void(handler->handleReply(end));
    if (HubPeer* to = peerOf(end.get_u32_array(tk::field::destination))) deliverEnd(*to, end);
}

void Hub::deliverEnd(HubPeer& to, const tk::message& end) {
    if (to.send(end) || !to.isOpen()) return;
    const tk::message told = tooLarge(end);
    trace(told);
    (void)to.send(told);  // a peer whose connection breaks now is served from the loop
}

void Hub::publish(const tk::message& notification) {
    trace(notification);
    const tk::Path& from = notification.get_u32_array(tk::field::sender);
    for (const auto& [number, charge] : subscriptions.of(from, notification.get_u32(tk::field::command)))
        (void)peers[number]->send(notification);
}

void Hub::trace(const tk::message& passed) {
    if (!tracers.isActive()) return;
    const tk::message shown = HubTrace::wrap(passed);
    for (const std::uint32_t number : tracers.peers()) (void)peers[number]->send(shown);
}

tk::message Hub::exchange(const tk::message& request, const tk::Path& from, std::uint32_t command,
                          std::uint32_t) {
    tk::message sent = request;
    tk::stamp(sent, from, ++ownNumbers, tk::Kind::request, command);
    trace(sent);
    const tk::Path& to = sent.get_u32_array(tk::field::destination);
    const bool isLocal = !to.empty() && services.has(to.front());
    tk::message end =
        tk::endOf(sent, isLocal ? services.serve(sent, 0)
                                : tk::errorMsg(tk::error::refused, "the router waits for nobody"));
    trace(end);
    return end;
}

void Hub::post(tk::message stamped) {
    switch (tk::kindOf(stamped)) {
        case tk::Kind::notification:
            return publish(stamped);
        case tk::Kind::reply:
        case tk::Kind::error:
            return sendEnd(stamped);
        case tk::Kind::request:
            return sendOwn(std::move(stamped));
    }
}

void Hub::sendOwn(tk::message request) {
    const tk::Path from = request.get_u32_array(tk::field::sender);
    if (++ownNumbers == 0) ownNumbers = 1;  // 0 stands for "no number"
    tk::stamp(request, from, ownNumbers, tk::Kind::request, request.get_u32(tk::field::command));
    trace(request);
    const tk::Path& to = request.get_u32_array(tk::field::destination);
    if (to.empty() || to.front() == tk::program::hub || services.has(to.front()))
        return refuse(request, tk::error::unreachable, "nobody at this destination");
    if (HubPeer* callee = programPeer(to.front())) return forward(ownRequester, *callee, request);
    activate(ownRequester, request);
}

}  // namespace router
