// What the hub does at its own commands, and at another table of rights.

#include "fuzz/hub/model.h"

#include <unistd.h>

#include <utility>

#include "fuzz/hub/rights.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/subscription.h"

namespace fuzz {

using tk::message;
namespace error = tk::error;

void HubModel::command(Peer& from, const message& request) {
    if (request.get_u32_array(tk::field::destination).size() > 1) return refuse(request, error::unreachable);
    const std::uint32_t number = request.get_u32(tk::field::command);
    std::uint32_t code = 0;
    message reply;
    if (number == 1) code = registration(from, request);
    if (number == 2 || number == 3) code = subscription(from, request);
    if (number == 6) code = resignation(from, request);
    if (number == 7) reply = programs();
    if (number == 8) setTable(nextTable);
    if (number < 1 || number == 5 || number > 8) code = error::noSuchCommand;
    if (code != 0) return refuse(request, code);
    answer(request, reply);
    afterCommand(from, number);
}

std::uint32_t HubModel::registration(Peer& from, const message& request) {
    const std::uint32_t program = request.get_u32(1);
    if (program == 0 || program >= 1000) return error::invalid;
    if (from.program == program) return 0;
    if (from.program || from.former || program == router || findProgram(program)) return error::exists;
    from.program = program;
    return 0;
}

std::uint32_t HubModel::resignation(const Peer& from, const message& request) const {
    const std::uint32_t program = request.get_u32(1);
    if (from.former && from.former == program) return 0;
    if (!from.program || from.program != program) return error::invalid;
    return waits(from.number) ? error::busy : 0;
}

std::uint32_t HubModel::subscription(Peer& from, const message& request) {
    const auto wanted = tk::Subscription::fromMessage(request);
    if (!wanted || wanted->path.size() > 16) return error::invalid;
    if (!wanted->filter.empty()) return error::refused;
    const Heard heard{wanted->path, wanted->command};
    if (request.get_u32(tk::field::command) == 3) {
        from.subscriptions.erase(heard);
        return 0;
    }
    if (from.subscriptions.contains(heard)) return 0;
    if (from.subscriptions.size() >= waitingLimit || room != Room::some) return error::busy;
    from.subscriptions.insert(heard);
    return 0;
}

message HubModel::programs() const {
    std::vector<message> list;
    const auto add = [&list](std::uint32_t number, pid_t pid, uid_t uid) {
        message& record = list.emplace_back();
        record.insert_u32(1, number);
        record.insert_u32(2, static_cast<std::uint32_t>(pid));
        record.insert_u32(3, uid);
    };
    add(router, ::getpid(), ::geteuid());
    for (const Peer& peer : peers)
        if (peer.isOpen && peer.program) add(peer.program, 0, peer.user);
    message reply;
    reply.insert_message_array(tk::field::objects, list);
    return reply;
}

/// What follows the reply to a command.
void HubModel::afterCommand(Peer& from, std::uint32_t number) {
    if (number == 4) from.traces = true;
    if (number == 6 && from.program) {
        gone.push_back(from.program);
        ++left;
        from.former = std::exchange(from.program, 0);
    }
    if (number != 1) return;
    registered.push_back(from.program);
    const auto released = awaited.extract(from.program);
    if (released.empty()) return;
    for (const Awaited& each : released.mapped())
        if (each.requester == 0 || find(each.requester)) forward(each.requester, from, each.request);
}

void HubModel::setTable(std::vector<hub::UserRights> rights) {
    table = std::move(rights);
    const auto still = [this](const Peer& peer, std::uint32_t number, message content) {
        content.insert_u32_array(tk::field::destination, {0});
        tk::stamp(content, {peer.name()}, 0, tk::Kind::request, number);
        return may(table, peer.user, content);
    };
    for (Peer& peer : peers) {
        if (!peer.isOpen) continue;
        std::erase_if(peer.subscriptions, [&](const Heard& heard) {
            message path;
            path.insert_u32_array(1, heard.first);
            return !still(peer, 2, path);
        });
        peer.traces = peer.traces && still(peer, 4, {});
        message program;
        program.insert_u32(1, peer.program);
        if (peer.program && !still(peer, 1, program)) drop(peer);
    }
}

}  // namespace fuzz
