// Where a request goes: to the hub itself, a handler of this process, a program that is there, or one to be
// started.

#include <string>
#include <utility>

#include "router/hub.h"
#include "tk/names.h"

namespace router {

namespace {

constexpr std::uint32_t expiryTicks = 6000;  // 60 s: what is pending twice over that is ended

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
        const tk::message answer = services.serve(request);
        if (!answer.has(tk::field::later)) sendEnd(tk::endOf(request, answer));
        return;
    }
    if (HubPeer* callee = programPeer(to.front())) return forward(from.clientNumber(), *callee, request);
    activate(from.clientNumber(), request);
}

void Hub::afterCommand(HubPeer& from, std::uint32_t command) {
    if (command == tk::command::hubTrace) tracers.add(from.clientNumber());
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
    if (isAwaited && !std::exchange(expires, true)) expiry.arm(expiryTicks);
    if (to.send(request)) return;
    if (isAwaited) (void)pending.finish(from, to.clientNumber(), request);  // it is there
    refuse(request, tk::error::disconnected, "the program cannot take the request");
}

void Hub::activate(std::uint32_t from, const tk::message& request) {
    const std::uint32_t program = request.get_u32_array(tk::field::destination).front();
    std::string reason = "nobody at this destination";
    if (!starter || !starter->start(program, reason)) return refuse(request, tk::error::unreachable, reason);
    AwaitedProgram::Owner& owner = *this;
    AwaitedProgram& waiting = awaited.try_emplace(program, program, owner).first->second;
    if (!waiting.add(from, request))
        refuse(request, tk::error::busy, "too many requests wait for this program");
}

void Hub::releaseAwaited(HubPeer& program) {
    const auto waiting = awaited.find(program.identity());
    if (waiting == awaited.end()) return;
    const auto requests = waiting->second.take();
    awaited.erase(waiting);
    for (const auto& [requester, request] : requests)
        if (requester == ownRequester || peers.contains(requester)) forward(requester, program, request);
}

/// Ends what was never answered. Requesters have given it up long before; here it would hold its place.
void Hub::expire() {
    for (const tk::message& request : pending.takeOld())
        refuse(request, tk::error::timedOut, "the program did not answer");
    expires = pending.size() != 0;
    if (expires) expiry.arm(expiryTicks);
}

void Hub::programFailed(std::uint32_t program, const std::string& reason) {
    const auto waiting = awaited.find(program);
    if (waiting == awaited.end()) return;
    const auto requests = waiting->second.take();
    awaited.erase(waiting);
    for (const auto& [requester, request] : requests) refuse(request, tk::error::unreachable, reason);
}

void Hub::awaitedTooLong(std::uint32_t program) {
    programFailed(program, "the program was started, but did not come to the bus in time");
}

}  // namespace router
