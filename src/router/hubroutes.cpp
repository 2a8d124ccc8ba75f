// Where a request goes: to the hub itself, a handler of this process, a program that is there, or one to be
// started.

#include <algorithm>
#include <string>
#include <utility>

#include "router/hub.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace router {

namespace {

/// The routing of a request whose paths are too long, so that there is room for its end in a frame.
tk::message withShortPaths(const tk::message& request) {
    tk::message routing = tk::routingOf(request);
    for (const std::uint32_t id : {tk::field::destination, tk::field::sender}) {
        tk::Path& path = routing.get_u32_array_ref(id);
        path.resize(std::min(path.size(), Hub::requestPathLimit));
    }
    return routing;
}

}  // namespace

HubPeer* Hub::programPeer(std::uint32_t program) {
    const auto number = programs.find(program);
    return number == programs.end() ? nullptr : peers[number->second].get();
}

HubPeer* Hub::peerOf(const tk::Path& path) {
    if (path.empty()) return nullptr;
    // A program still hears what was asked for under its number as a client, before it registered.
    const auto client = peers.find(path.front());
    return client != peers.end() ? client->second.get() : programPeer(path.front());
}

void Hub::refuse(const tk::message& request, std::uint32_t code, const std::string& text) {
    sendEnd(tk::endOf(request, tk::errorMsg(code, text)));
}

void Hub::route(HubPeer& from, const tk::message& request) {
    const tk::Path& to = request.get_u32_array(tk::field::destination);
    if (to.empty()) return refuse(request, tk::error::invalid, "the request names no destination");
    if (to.size() > requestPathLimit || request.get_u32_array(tk::field::sender).size() > requestPathLimit)
        return refuse(withShortPaths(request), tk::error::invalid, "the path is too long");
    if (to.front() == tk::program::hub) {
        const tk::message answer = command(from, request);
        sendEnd(tk::endOf(request, answer));
        if (!tk::isError(answer)) afterCommand(from, request.get_u32(tk::field::command));
        return;
    }
    if (!access.maySend(from.user().uid, request))
        return refuse(request, tk::error::notAllowed,
                      "user " + std::to_string(from.user().uid) + " may not change anything here");
    if (services.has(to.front())) {
        const tk::message answer = services.serve(request, from.user().uid);
        if (!answer.has(tk::field::later)) sendEnd(tk::endOf(request, answer));
        return;
    }
    if (HubPeer* callee = programPeer(to.front())) return forward(from.clientNumber(), *callee, request);
    activate(from.clientNumber(), request);
}

void Hub::afterCommand(HubPeer& from, std::uint32_t command) {
    if (command == tk::command::hubTrace) tracers.add(from.clientNumber());
    if (command == tk::command::hubUnregister) giveUp(from);
    if (command != tk::command::hubRegister) return;
    if (starter) starter->registered(from.identity());
    releaseAwaited(from);
}

void Hub::forward(std::uint32_t from, HubPeer& to, const tk::message& request) {
    const bool isAwaited = request.get_u32(tk::field::number) != 0;  // nobody waits for the end of number 0
    const auto added =
        isAwaited ? pending.add(from, to.clientNumber(), request) : PendingRequests::Added::yes;
    if (added == PendingRequests::Added::duplicate)
        return refuse(request, tk::error::invalid, "a request of this number is under way");
    if (added == PendingRequests::Added::full)
        return refuse(request, tk::error::busy, "too many requests are under way");
    if (isAwaited) expireLater();
    if (to.send(request)) return;
    if (isAwaited) (void)pending.finish(from, to.clientNumber(), request);  // it is there
    refuse(request, tk::error::disconnected, "the program cannot take the request");
}

void Hub::activate(std::uint32_t from, const tk::message& request) {
    const std::uint32_t program = request.get_u32_array(tk::field::destination).front();
    std::string reason = "nobody at this destination";
    if (!starter || !starter->start(program, reason)) return refuse(request, tk::error::unreachable, reason);
    const uid_t user = from == ownRequester ? 0 : peers[from]->user().uid;
    AwaitedProgram::Request waiting{from, user, request.serialise()};
    if (!hasRoomFor(waiting))
        return refuse(request, tk::error::busy, "too many bytes wait for programs to start");
    if (!awaited[program].add(std::move(waiting)))
        return refuse(request, tk::error::busy, "too many requests wait for this program");
    expireLater();
}

bool Hub::hasRoomFor(const AwaitedProgram::Request& request) const {
    const auto fits = [&request](std::size_t limit, std::size_t waiting) {
        return request.flat.size() <= limit - std::min(limit, waiting);
    };
    const auto isOfUser = [&request](const auto& other) { return other.user == request.user; };
    return fits(awaitedBytesPerPeer, awaitedBytesOf(request.requester)) &&
           (request.user == 0 || fits(awaitedBytesPerUser, awaitedBytes(isOfUser))) &&
           fits(awaitedBytesInAll, awaitedBytes([](const auto&) { return true; }));
}

std::size_t Hub::awaitedBytesOf(std::uint32_t requester) const {
    return awaitedBytes([requester](const auto& request) { return request.requester == requester; });
}

std::size_t Hub::awaitedBytes(const std::function<bool(const AwaitedProgram::Request&)>& counts) const {
    std::size_t sum = 0;
    for (const auto& [program, waiting] : awaited) sum += waiting.bytes(counts);
    return sum;
}

void Hub::releaseAwaited(HubPeer& program) {
    const auto waiting = awaited.find(program.identity());
    if (waiting == awaited.end()) return;
    const auto requests = waiting->second.take();
    awaited.erase(waiting);
    for (const auto& [requester, user, flat, round] : requests)
        if (requester == ownRequester || peers.contains(requester))
            forward(requester, program, tk::message(flat));
}

void Hub::expireLater() {
    if (!std::exchange(expires, true)) expiry.arm(expiryTicks);
}

/// Ends what was never answered. Requesters have given it up long before; here it would hold its place.
void Hub::expire() {
    const std::vector<tk::message> unanswered = pending.takeOld();
    const std::vector<AwaitedProgram::Request> awaiting = takeOldAwaited();
    for (const tk::message& request : unanswered)
        refuse(request, tk::error::timedOut, "the program did not answer");
    for (const AwaitedProgram::Request& request : awaiting)
        refuse(tk::message(request.flat), tk::error::unreachable,
               "the program was started, but did not come to the bus in time");
    expires = pending.size() != 0 || !awaited.empty();
    if (expires) expiry.arm(expiryTicks);
}

std::vector<AwaitedProgram::Request> Hub::takeOldAwaited() {
    std::vector<AwaitedProgram::Request> requests;
    for (auto& [program, waiting] : awaited)
        for (auto& old : waiting.takeOld()) requests.push_back(std::move(old));
    forgetEmptyAwaited();
    return requests;
}

/// A program that nobody waits for is not asked for again.
void Hub::forgetEmptyAwaited() {
    std::erase_if(awaited, [](const auto& entry) { return entry.second.isEmpty(); });
}

void Hub::programFailed(std::uint32_t program, const std::string& reason) {
    const auto waiting = awaited.find(program);
    if (waiting == awaited.end()) return;
    const auto requests = waiting->second.take();
    awaited.erase(waiting);
    for (const auto& waited : requests) refuse(tk::message(waited.flat), tk::error::unreachable, reason);
}

}  // namespace router
