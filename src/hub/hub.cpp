#include "hub/hub.h"

#include <sys/socket.h>

#include <memory>
#include <string>
#include <utility>

#include "tk/frame.h"
#include "tk/log.h"
#include "tk/names.h"

namespace hub {

namespace {

/// What a requester gets instead of an end that does not fit into a frame.
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

void Hub::setAccess(Access table) {
    access = std::move(table);
    for (Peer* peer : peers.all()) withdrawRights(*peer);
}

/// True when the peer might make a request of the hub itself now that it made before.
bool Hub::mayStill(const Peer& peer, std::uint32_t command, tk::message content) const {
    content.insert_u32_array(tk::field::destination, {tk::program::hub});
    tk::stamp(content, {peer.identity()}, 0, tk::Kind::request, command);
    return access.check(peer.user().uid, content).isOk();
}

/// Takes from a peer what it once got and would not get now.
void Hub::withdrawRights(Peer& peer) {
    const std::uint32_t number = peer.clientNumber();
    subscriptions.dropIf(number, [this, &peer](const tk::Subscription& held) {
        return !mayStill(peer, tk::command::hubSubscribe, held.toMessage());
    });
    if (!mayStill(peer, tk::command::hubTrace, {})) tracers.drop(number);
    if (!peer.isProgram()) return;
    tk::message registration;
    registration.insert_u32(tk::hubfield::program, peer.identity());
    if (!mayStill(peer, tk::command::hubRegister, registration))
        peer.drop("its user may not be this program any more");
}

std::optional<uid_t> Hub::userOf(std::uint32_t program) const {
    const Peer* peer = peers.findProgram(program);
    return peer && peer->isOpen() ? std::optional(peer->user().uid) : std::nullopt;
}

void Hub::adopt(tk::Fd socket, const Credentials& credentials) {
    const tk::Status room = peers.checkRoom(credentials.uid, access.runsPrograms(credentials.uid));
    if (!room.isOk()) return turnAway(socket, credentials.uid, tk::error::busy, room.reason());
    peers.add(std::move(socket), credentials, *this);
}

void Hub::turnAway(const tk::Fd& socket, uid_t user, std::uint32_t code, const std::string& why) {
    refusedConnections.note("connection of user " + std::to_string(user) + " refused", user, why);
    tk::message told = tk::errorMsg(code, why);
    tk::stamp(told, {tk::program::hub}, 0, tk::Kind::error, 0);
    trace(told);
    std::string frame;
    (void)tk::flushLog();
    // The socket is new: either the frame fits its buffer, or the peer is gone and misses nothing.
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
    reloader = nullptr;
    awaited.clear();
    peers.clear();
}

void Hub::peerSent(Peer& peer, tk::message received) {
    peer.stampSender(received);
    // With the sender appended there may be one field more than a receiver accepts.
    if (received.fields().size() > tk::message::fieldLimit)
        return peer.drop("it sent a message of too many fields");
    if (tk::kindOf(received) == tk::Kind::request) return takeRequest(peer, received);
    if (isRefused(peer, received)) return;
    if (tk::kindOf(received) == tk::Kind::notification) return publish(received);
    takeEnd(peer, received);
}

/// True when a message that needs no answer must not be passed on.
bool Hub::isRefused(const Peer& from, const tk::message& sent) {
    const tk::Status allowed = access.check(from.user().uid, sent);
    if (!allowed.isOk()) noteRefused(from, "it " + allowed.reason());
    return !allowed.isOk();
}

void Hub::noteRefused(const Peer& from, const std::string& why) {
    const uid_t user = from.user().uid;
    refusedMessages.note("message of user " + std::to_string(user) + " refused", user, why);
}

/// Logs that a program left or a peer had to be dropped. A client that comes, asks and goes is no event.
void Hub::tellEnd(const Peer& peer, const std::string& reason) {
    const std::string event = std::to_string(peer.identity()) + " left";
    if (peer.isProgram()) return leftPrograms.note(event, peer.user().uid, reason);
    if (peer.wasDropped()) droppedClients.note(event, peer.user().uid, reason);
}

void Hub::peerEnded(Peer& peer, const std::string& reason) {
    const std::uint32_t number = peer.clientNumber();
    const std::uint32_t identity = peer.identity();
    tellEnd(peer, reason);
    const std::unique_ptr<Peer> ended = peers.take(number);  // destroyed when all is cleaned up
    subscriptions.drop(number);
    tracers.drop(number);
    pending.dropOfRequester(number);
    awaited.drop(number);
    // What it made goes first: whoever hears of its end finds nothing of it any more.
    services.disconnected({number});
    if (identity != number) services.disconnected({identity});
    for (const tk::message& request : pending.takeOfCallee(number))
        refuse(request, tk::error::disconnected, "the program left before it answered");
    if (identity != number && watcher) watcher->programLeft();
}

void Hub::takeRequest(Peer& from, const tk::message& request) {
    trace(request);
    route(from, request);
}

void Hub::takeEnd(Peer& from, const tk::message& end) {
    trace(end);
    const tk::Path& path = end.get_u32_array(tk::field::destination);
    if (tk::Handler* handler = services.find(path)) {
        if (pending.finish(ownRequester, from.clientNumber(), end)) (void)handler->handleReply(end);
        return;
    }
    Peer* to = peers.findAt(path);
    if (to && pending.finish(to->clientNumber(), from.clientNumber(), end)) deliverEnd(*to, end);
}

void Hub::sendEnd(const tk::message& end) {
    trace(end);
    if (tk::Handler* handler = services.find(end.get_u32_array(tk::field::destination)))
        return void(handler->handleReply(end));
    if (Peer* to = peers.findAt(end.get_u32_array(tk::field::destination))) deliverEnd(*to, end);
}

void Hub::deliverEnd(Peer& to, const tk::message& end) {
    if (to.send(end) || !to.isOpen()) return;
    const tk::message told = tooLarge(end);
    trace(told);
    (void)to.send(told);  // if the connection breaks now, the loop tells
}

void Hub::publish(const tk::message& notification) {
    trace(notification);
    const tk::Path& from = notification.get_u32_array(tk::field::sender);
    for (const auto& [number, charge] : subscriptions.of(from, notification.get_u32(tk::field::command)))
        if (Peer* to = peers.find(number)) (void)to->send(notification);
}

void Hub::trace(const tk::message& passed) {
    if (!tracers.isActive()) return;
    const tk::message shown = Trace::wrap(passed);
    for (const std::uint32_t number : tracers.peers())
        if (Peer* to = peers.find(number)) (void)to->send(shown);
}

tk::message Hub::exchange(const tk::message& request, const tk::Path& from, std::uint32_t command,
                          std::uint32_t) {
    tk::message sent = request;
    ownNumbers = tk::nextNumber(ownNumbers);
    tk::stamp(sent, from, ownNumbers, tk::Kind::request, command);
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

bool Hub::isHeard(const tk::Path& from, std::uint32_t command) const {
    return tracers.isActive() || !subscriptions.of(from, command).empty();
}

void Hub::sendOwn(tk::message request) {
    const tk::Path from = request.get_u32_array(tk::field::sender);
    ownNumbers = tk::nextNumber(ownNumbers);
    tk::stamp(request, from, ownNumbers, tk::Kind::request, request.get_u32(tk::field::command));
    trace(request);
    const tk::Path& to = request.get_u32_array(tk::field::destination);
    if (to.empty() || to.front() == tk::program::hub || services.has(to.front()))
        return refuse(request, tk::error::unreachable, nobodyThere);
    if (Peer* callee = peers.findProgram(to.front())) return forward(ownRequester, *callee, request);
    activate(ownRequester, request);
}

}  // namespace hub
