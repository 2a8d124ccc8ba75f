// The hub's own commands, at path {0}.

#include "hub/hub.h"

#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "contract/programs.h"
#include "tk/names.h"
#include "tk/status.h"
#include "tk/subscription.h"

namespace hub {

namespace {

/// The subscription in a request, or the bus error that refuses it.
tk::Result<tk::Subscription> subscriptionIn(const tk::message& request) {
    const std::optional<tk::Subscription> wanted = tk::Subscription::fromMessage(request);
    if (!wanted) return tk::Status::failure("a subscription names a path and a command", tk::error::invalid);
    if (wanted->path.size() > Hub::subscriptionPathLimit)
        return tk::Status::failure("the path is too long", tk::error::invalid);
    if (!wanted->filter.empty()) return tk::Status::failure("filters are not supported", tk::error::refused);
    return *wanted;
}

/// Why a program cannot be registered. `holder` is null for a service of this process.
std::string isRunning(std::uint32_t program, const Peer* holder) {
    const std::string what = "program " + std::to_string(program) + " is running already";
    return holder ? what + ", as process " + std::to_string(holder->user().pid) + ": end that one first"
                  : what;
}

tk::message programRecord(std::uint32_t number, const Credentials& user) {
    tk::message record;
    record.insert_u32(tk::hubfield::number, number);
    record.insert_u32(tk::hubfield::pid, static_cast<std::uint32_t>(user.pid));
    record.insert_u32(tk::hubfield::uid, user.uid);
    return record;
}

}  // namespace

tk::message Hub::command(Peer& from, const tk::message& request) {
    if (request.get_u32_array(tk::field::destination).size() > 1)
        return tk::errorMsg(tk::error::unreachable, "no such handler");
    switch (request.get_u32(tk::field::command)) {
        case tk::command::hubRegister:
            return registerProgram(from, request);
        case tk::command::hubUnregister:
            return unregisterProgram(from, request);
        case tk::command::hubSubscribe:
            return subscribe(from, request);
        case tk::command::hubUnsubscribe:
            return unsubscribe(from, request);
        case tk::command::hubTrace:
            return {};  // begins after its own reply
        case tk::command::hubPrograms:
            return listPrograms();
        case tk::command::hubReload:
            return reload(from);
        default:
            return tk::errorMsg(tk::error::noSuchCommand, "no such command");
    }
}

tk::message Hub::registerProgram(Peer& from, const tk::message& request) {
    const std::uint32_t program = request.get_u32(tk::hubfield::program);
    if (program == tk::program::hub || program >= tk::program::firstClient)
        return tk::errorMsg(tk::error::invalid, "a program number lies between 1 and " +
                                                    std::to_string(tk::program::firstClient - 1));
    if (from.isProgram() && from.identity() != program)
        return tk::errorMsg(tk::error::exists,
                            "this connection is registered as program " + std::to_string(from.identity()));
    if (from.isRetired()) return tk::errorMsg(tk::error::exists, "this connection has given its program up");
    Peer* holder = peers.findProgram(program);
    if (holder == &from) return {};
    // The kernel may know of the former holder's end before the loop does.
    if (holder && holder->hasHungUp()) {
        peerEnded(*holder, "it closed the connection");
        // Some users may be a program only while they are it.
        if (const tk::Status allowed = access.check(from.user().uid, request); !allowed.isOk())
            return tk::errorMsg(tk::error::notAllowed,
                                "user " + std::to_string(from.user().uid) + " " + allowed.reason());
    }
    if (services.has(program) || peers.findProgram(program))
        return tk::errorMsg(tk::error::exists, isRunning(program, peers.findProgram(program)));
    if (watcher) watcher->programComes(program, from.user().uid);
    peers.enrol(from, program);
    return {};
}

/// Decides whether a program may give up its number. It does so after the reply, which still goes to its
/// name.
tk::message Hub::unregisterProgram(const Peer& from, const tk::message& request) const {
    const std::uint32_t program = request.get_u32(tk::hubfield::program);
    if (from.hasResigned(program)) return {};
    if (!from.isProgram() || from.identity() != program)
        return tk::errorMsg(tk::error::invalid,
                            "this connection is not registered as program " + std::to_string(program));
    // Their ends go to the program's name, which nobody will have then, or somebody else.
    if (pending.hasOf(from.clientNumber()) || awaited.hasOf(from.clientNumber()))
        return tk::errorMsg(tk::error::busy, "requests of this program are under way");
    return {};
}

void Hub::giveUp(Peer& from) {
    if (!from.isProgram()) return;  // it did so before
    const std::uint32_t program = from.identity();
    tellEnd(from, "it has given its number up");
    peers.resign(from);
    services.disconnected({program});
    if (watcher) watcher->programLeft();
}

tk::message Hub::subscribe(Peer& from, const tk::message& request) {
    const tk::Result<tk::Subscription> wanted = subscriptionIn(request);
    if (!wanted.isOk()) return tk::errorMsg(wanted.status().code(), wanted.reason());
    if (!subscriptions.add(from.clientNumber(), *wanted, from.budget())) {
        noteRefused(from, "too many subscriptions");
        return tk::errorMsg(tk::error::busy, "too many subscriptions");
    }
    return {};
}

tk::message Hub::unsubscribe(Peer& from, const tk::message& request) {
    const tk::Result<tk::Subscription> wanted = subscriptionIn(request);
    if (!wanted.isOk()) return tk::errorMsg(wanted.status().code(), wanted.reason());
    subscriptions.remove(from.clientNumber(), *wanted);
    return {};
}

tk::message Hub::listPrograms() const {
    tk::message reply;
    std::vector<tk::message>& records = reply.get_message_array_ref(tk::field::objects);
    records.push_back(programRecord(contract::program::network, {::getpid(), ::geteuid(), ::getegid()}));
    for (const Peer* peer : peers.all())
        if (peer->isProgram()) records.push_back(programRecord(peer->identity(), peer->user()));
    return reply;
}

tk::message Hub::reload(const Peer& from) const {
    if (!reloader) return tk::errorMsg(tk::error::failed, "there is no configuration to read");
    const tk::Result<std::vector<std::string>> changed =
        reloader->reload("user " + std::to_string(from.user().uid));
    if (!changed.isOk()) return tk::errorMsg(tk::error::failed, changed.reason());
    std::vector<tk::message> sections;
    for (const std::string& name : *changed)
        sections.emplace_back().insert_string(tk::hubfield::section, name);
    tk::message reply;
    if (!sections.empty()) reply.insert_message_array(tk::hubfield::sections, std::move(sections));
    return reply;
}

}  // namespace hub
