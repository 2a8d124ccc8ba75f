// Where requests go: to the hub itself, to a handler of this process, to a program on the bus, or to one that
// has to be started.

#include "hub/hub.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tk/bus.h"
#include "tk/names.h"

namespace hub {

namespace {

/// The routing of a request whose paths are too long, cut so that its end fits into a frame.
tk::message withShortPaths(const tk::message& request) {
    tk::message routing = tk::routingOf(request);
    for (const std::uint32_t id : {tk::field::destination, tk::field::sender}) {
        tk::Path& path = routing.get_u32_array_ref(id);
        path.resize(std::min(path.size(), Hub::requestPathLimit));
    }
    return routing;
}

}  // namespace

void Hub::refuse(const tk::message& request, std::uint32_t code, const std::string& text) {
    sendEnd(tk::endOf(request, tk::errorMsg(code, text)));
}

void Hub::route(Peer& from, const tk::message& request) {
    const tk::Path& to = request.get_u32_array(tk::field::destination);
    if (to.empty()) return refuse(request, tk::error::invalid, "the request names no destination");
    if (to.size() > requestPathLimit || request.get_u32_array(tk::field::sender).size() > requestPathLimit)
        return refuse(withShortPaths(request), tk::error::invalid, "the path is too long");
    if (const tk::Status allowed = access.check(from.user().uid, request); !allowed.isOk()) {
        noteRefused(from, "it " + allowed.reason());
        return refuse(request, tk::error::notAllowed,
                      "user " + std::to_string(from.user().uid) + " " + allowed.reason());
    }
    if (to.front() == tk::program::hub) {
        const tk::message answer = command(from, request);
        sendEnd(tk::endOf(request, answer));
        if (!tk::isError(answer)) afterCommand(from, request.get_u32(tk::field::command));
        return;
    }
    if (services.has(to.front())) {
        const tk::message answer = services.serve(request, from.user().uid);
        if (!answer.has(tk::field::later)) sendEnd(tk::endOf(request, answer));
        return;
    }
    if (Peer* callee = peers.findProgram(to.front())) return forward(from.clientNumber(), *callee, request);
    activate(from.clientNumber(), request);
}

void Hub::afterCommand(Peer& from, std::uint32_t command) {
    if (command == tk::command::hubTrace) tracers.add(from.clientNumber());
    if (command == tk::command::hubUnregister) giveUp(from);
    if (command != tk::command::hubRegister) return;
    if (starter) starter->registered(from.identity());
    releaseAwaited(from);
}

/// Whoever makes a request pays for it while it waits for its program to read it: only a program itself can
/// fill its account.
void Hub::forward(std::uint32_t from, Peer& to, const tk::message& request) {
    using Added = PendingRequests::Added;
    tk::Budget& payer = peers.payer(from);
    const std::uint32_t number = request.get_u32(tk::field::number);
    const bool isAwaited = number != 0;  // nobody waits for the end of number 0
    const Added added = isAwaited ? pending.add(from, to.clientNumber(), request, payer) : Added::yes;
    if (added == Added::duplicate)
        return refuse(request, tk::error::invalid, "a request of this number is under way");
    if (added == Added::full) return refuseFull(from, request, "too many requests are under way");
    if (isAwaited) expireLater();
    const tk::Channel::Sent sent = to.sendRequest(payer, request);
    if (sent == tk::Channel::Sent::yes) return;
    if (isAwaited) pending.drop(from, number);
    if (sent == tk::Channel::Sent::noRoom)
        return refuseFull(from, request, "too much waits for this program to read it");
    refuse(request, tk::error::disconnected, "the program cannot take the request");
}

void Hub::activate(std::uint32_t from, const tk::message& request) {
    const std::uint32_t program = request.get_u32_array(tk::field::destination).front();
    const tk::Status started = starter ? starter->start(program) : tk::Status::failure(nobodyThere);
    if (!started.isOk()) return refuse(request, tk::error::unreachable, started.reason());
    if (awaited.add(program, from, request.serialise(), peers.payer(from))) return expireLater();
    refuseFull(from, request, "too much waits for programs to start");
}

void Hub::refuseFull(std::uint32_t requester, const tk::message& request, const std::string& text) {
    if (const Peer* peer = peers.find(requester)) noteRefused(*peer, text);
    refuse(request, tk::error::busy, text);
}

void Hub::releaseAwaited(Peer& program) {
    for (auto& [requester, flat, charge, round] : awaited.take(program.identity())) {
        charge.set(0);  // charged anew where it waits next
        if (requester == ownRequester || peers.find(requester))
            forward(requester, program, tk::message(flat));
    }
}

void Hub::expireLater() {
    if (!std::exchange(expires, true)) expiry.arm(expiryTicks);
}

/// Ends requests that were never answered. Their requesters gave up long ago, but here they take up room.
void Hub::expire() {
    const std::vector<tk::message> unanswered = pending.takeOld();
    const std::vector<AwaitedRequests::Request> awaiting = awaited.takeOld();
    for (const tk::message& request : unanswered)
        refuse(request, tk::error::timedOut, "the program did not answer");
    for (const AwaitedRequests::Request& request : awaiting)
        refuse(tk::message(request.flat), tk::error::unreachable,
               "the program was started, but did not come to the bus in time");
    expires = pending.size() != 0 || !awaited.isEmpty();
    if (expires) expiry.arm(expiryTicks);
}

void Hub::programFailed(std::uint32_t program, const std::string& reason) {
    for (const AwaitedRequests::Request& waited : awaited.take(program))
        refuse(tk::message(waited.flat), tk::error::unreachable, reason);
}

}  // namespace hub
