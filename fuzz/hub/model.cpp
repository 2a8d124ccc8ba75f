#include "fuzz/hub/model.h"

#include <algorithm>

#include "fuzz/hub/rights.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace fuzz {

namespace {

using tk::message;
namespace error = tk::error;

constexpr std::size_t fieldLimit = 1024;
constexpr std::size_t nestingLimit = 16;
constexpr std::uint64_t expiryTicks = 6100;
constexpr std::size_t lengthBytes = 4;
// What is charged for each at least, without paths.
constexpr std::size_t connectionCost = 4096;
constexpr std::size_t subscriptionCost = 256;
constexpr std::size_t requestCost = 1024;

std::size_t frameLimitOf(uid_t user) {
    return std::size_t{user == 0 ? 16U : 1U} * 1024 * 1024;
}

/// The length that a frame begins with; empty while it has not arrived.
std::optional<std::size_t> lengthIn(std::string_view frame) {
    if (frame.size() < lengthBytes) return std::nullopt;
    std::size_t length = 0;
    for (std::size_t i = lengthBytes; i-- > 0;) length = length << 8 | static_cast<unsigned char>(frame[i]);
    return length;
}

std::size_t depthOf(const message& source) {
    std::size_t deepest = 0;
    for (const message::Field& field : source.fields())
        for (const message& inner : source.get_message_array(field.id))
            deepest = std::max(deepest, depthOf(inner));
    return deepest + 1;
}

message shown(const message& passed) {
    message inner;
    const bool fits = depthOf(passed) < nestingLimit;
    for (const message::Field& field : passed.fields())
        if (fits || (field.id >= 0xFF0001 && field.id <= 0xFF0009)) inner.insert(field);
    message wrapper;
    wrapper.insert_message_array(1, {inner});
    tk::stamp(wrapper, {0}, 0, tk::Kind::notification, tk::command::hubTraced);
    return wrapper;
}

message refusal(const message& request, std::uint32_t code) {
    message content;
    content.insert_u32(tk::field::errorCode, code);
    return tk::endOf(request, content);
}

message shortened(const message& request) {
    message routing = tk::routingOf(request);
    for (const std::uint32_t id : {tk::field::destination, tk::field::sender})
        if (tk::Path& path = routing.get_u32_array_ref(id); path.size() > 256) path.resize(256);
    return routing;
}

}  // namespace

bool isServed(const tk::Path& path) {
    return !path.empty() && path.size() <= 2 && path[0] == HubModel::router &&
           (path.size() < 2 || path[1] == 0 || path[1] == 5);
}

bool isStartable(std::uint32_t program) {
    return program == 80 || program == 14 || program == 81;
}

void HubModel::connect(uid_t user) {
    Peer& peer = peers.emplace_back();
    peer.user = user;
    peer.number = static_cast<std::uint32_t>(999 + peers.size());
}

std::size_t HubModel::untilFrameEnds(const Peer& peer, std::string_view next) {
    const std::size_t have = peer.unfinished.size();
    if (have < lengthBytes) {
        const std::string begin = peer.unfinished + std::string(next.substr(0, lengthBytes - have));
        const auto length = lengthIn(begin);
        if (!length || *length > frameLimitOf(peer.user)) return lengthBytes - have;
        return *length + lengthBytes - have;
    }
    return *lengthIn(peer.unfinished) + lengthBytes - have;
}

void HubModel::sent(Peer& peer, std::string_view bytes, Room left) {
    if (peer.isDropped || !peer.isOpen) return;
    peer.unfinished += bytes;
    const auto length = lengthIn(peer.unfinished);
    if (!length) return;
    if (*length > frameLimitOf(peer.user)) return drop(peer);
    if (peer.unfinished.size() < *length + lengthBytes) return;
    message received;
    const bool isSound = message::parse(std::string_view(peer.unfinished).substr(lengthBytes), received);
    peer.unfinished.clear();
    room = left;
    isSound ? take(peer, std::move(received)) : drop(peer);
    room = Room::some;
}

/// Handles a message whose frame is complete.
void HubModel::take(Peer& from, message received) {
    const tk::Kind kind = tk::kindOf(received);
    const bool isEnd = kind == tk::Kind::reply || kind == tk::Kind::error;
    tk::Path sender = received.get_u32_array(tk::field::sender);
    if (sender.empty()) sender.resize(1);
    sender[0] = isEnd && from.former ? from.former : from.name();
    if (sender[0] >= 1000) sender.resize(1);
    received.insert_u32_array(tk::field::sender, sender);
    if (received.fields().size() > fieldLimit) return drop(from);
    if (kind == tk::Kind::request) {
        const std::uint32_t number = received.get_u32(tk::field::number);
        if (number != 0) ++from.waiting[number];
        trace({received});
        return route(from, received);
    }
    if (!may(table, from.user, received)) return;
    isEnd ? takeEnd(from, received) : publish(received);
}

void HubModel::route(Peer& from, const message& request) {
    const tk::Path& to = request.get_u32_array(tk::field::destination);
    if (to.empty()) return refuse(request, error::invalid);
    if (to.size() > 256 || request.get_u32_array(tk::field::sender).size() > 256)
        return refuse(shortened(request), error::invalid);
    if (!may(table, from.user, request)) return refuse(request, error::notAllowed);
    if (to[0] == 0) return command(from, request);
    if (to[0] == router) return serve(from, request);
    if (Peer* callee = findProgram(to[0])) return forward(from.number, *callee, request);
    activate(from.number, request);
}

void HubModel::serve(Peer& from, const message& request) {
    if (!isServed(request.get_u32_array(tk::field::destination))) return refuse(request, error::unreachable);
    message reply;
    reply.insert_u32(1, from.user);
    answer(request, reply);
}

void HubModel::forward(std::uint32_t requester, Peer& callee, const message& request) {
    const std::uint32_t number = request.get_u32(tk::field::number);
    const Key key{requester, number};
    if (number != 0 && pending.contains(key)) return refuse(request, error::invalid);
    const auto under = static_cast<std::size_t>(std::count_if(
        pending.begin(), pending.end(), [&](const auto& each) { return each.first.first == requester; }));
    const bool isFull = number != 0 ? under >= waitingLimit || room != Room::some : room == Room::refused;
    if (isFull) return refuse(request, error::busy);
    if (number != 0) {
        pending[key] = {callee.number, request, round};
        if (!expiresAt) expiresAt = now + expiryTicks;
    }
    give(callee, {request});
}

void HubModel::activate(std::uint32_t requester, const message& request) {
    const std::uint32_t program = request.get_u32_array(tk::field::destination)[0];
    if (!isStartable(program)) return refuse(request, error::unreachable);
    if (room != Room::some) return refuse(request, error::busy);
    awaited[program].push_back({requester, request, round, request.serialise().size()});
    if (!expiresAt) expiresAt = now + expiryTicks;
}

void HubModel::answer(const message& request, const message& reply) {
    giveEnd({tk::endOf(request, reply), true});
}

void HubModel::refuse(const message& request, std::uint32_t code) {
    giveEnd({refusal(request, code), true});
}

void HubModel::giveEnd(const Expected& end) {
    trace(end);
    const tk::Path& path = end.content.get_u32_array(tk::field::destination);
    if (isServed(path)) return ownEnds.push_back(end);
    if (Peer* to = findAt(path)) give(*to, end);
}

void HubModel::takeEnd(const Peer& from, const message& end) {
    trace({end});
    const tk::Path& path = end.get_u32_array(tk::field::destination);
    Peer* to = isServed(path) ? nullptr : findAt(path);
    if (!to && !isServed(path)) return;
    const auto asked = pending.find({to ? to->number : 0, end.get_u32(tk::field::number)});
    if (asked == pending.end() || asked->second.callee != from.number) return;
    if (asked->second.request.get_u32_array(tk::field::sender) != path) return;
    pending.erase(asked);
    to ? give(*to, {end}) : ownEnds.push_back({end});
}

void HubModel::publish(const message& notification) {
    trace({notification});
    const Heard heard{notification.get_u32_array(tk::field::sender),
                      notification.get_u32(tk::field::command)};
    for (Peer& peer : peers)
        if (peer.isOpen && peer.subscriptions.contains(heard)) give(peer, {notification});
}

void HubModel::trace(const Expected& passed) {
    for (Peer& peer : peers)
        if (peer.isOpen && peer.traces) give(peer, {shown(passed.content), passed.isOfHub});
}

void HubModel::give(Peer& to, const Expected& what) {
    if (!to.isOpen || to.isDropped) return;
    to.unread += what.content.serialise().size();
    to.expected.push_back(what);
}

void HubModel::drop(Peer& peer) {
    if (peer.isDropped || !peer.isOpen) return;
    peer.isDropped = true;
    dropped.push_back(&peer);
}

void HubModel::endStep() {
    for (Peer* each : std::exchange(dropped, {})) end(*each);
}

void HubModel::end(Peer& peer) {
    if (!peer.isOpen) return;
    peer.isOpen = false;
    const std::uint32_t number = peer.number;
    const std::uint32_t program = std::exchange(peer.program, 0);
    peer.subscriptions.clear();
    std::erase_if(pending, [number](const auto& each) { return each.first.first == number; });
    for (auto& [name, waiting] : awaited)
        std::erase_if(waiting, [number](const Awaited& each) { return each.requester == number; });
    std::erase_if(awaited, [](const auto& each) { return each.second.empty(); });
    gone.push_back(number);
    if (program) gone.push_back(program);
    if (program) ++left;
    std::vector<message> unanswered;
    for (const auto& [key, each] : pending)
        if (each.callee == number) unanswered.push_back(each.request);
    std::erase_if(pending, [number](const auto& each) { return each.second.callee == number; });
    for (const message& each : unanswered) refuse(each, error::disconnected);
}

void HubModel::programFailed(std::uint32_t program) {
    const auto failed = awaited.extract(program);
    if (failed.empty()) return;
    for (const Awaited& each : failed.mapped()) refuse(each.request, error::unreachable);
}

void HubModel::advance(std::uint64_t ticks) {
    now += ticks;
    if (expiresAt && *expiresAt <= now) expire();
}

void HubModel::expire() {
    std::vector<std::pair<message, std::uint32_t>> old;
    for (const auto& [key, each] : pending)
        if (each.round != round) old.emplace_back(each.request, error::timedOut);
    std::erase_if(pending, [this](const auto& each) { return each.second.round != round; });
    for (auto& [program, waiting] : awaited) {
        for (const Awaited& each : waiting)
            if (each.round != round) old.emplace_back(each.request, error::unreachable);
        std::erase_if(waiting, [this](const Awaited& each) { return each.round != round; });
    }
    std::erase_if(awaited, [](const auto& each) { return each.second.empty(); });
    ++round;
    for (const auto& [request, code] : old) refuse(request, code);
    expiresAt.reset();
    if (!pending.empty() || !awaited.empty()) expiresAt = now + expiryTicks;
}

void HubModel::post(message stamped) {
    if (tk::kindOf(stamped) == tk::Kind::notification) return publish(stamped);
    const tk::Path from = stamped.get_u32_array(tk::field::sender);
    tk::stamp(stamped, from, ++ownNumber, tk::Kind::request, stamped.get_u32(tk::field::command));
    trace({stamped});
    const tk::Path& to = stamped.get_u32_array(tk::field::destination);
    if (to.empty() || to[0] == 0 || to[0] == router) return refuse(stamped, error::unreachable);
    if (Peer* callee = findProgram(to[0])) return forward(0, *callee, stamped);
    activate(0, stamped);
}

bool HubModel::isHeard(const tk::Path& from, std::uint32_t number) const {
    return std::any_of(peers.begin(), peers.end(), [&](const Peer& peer) {
        return peer.isOpen && (peer.traces || peer.subscriptions.contains({from, number}));
    });
}

std::size_t HubModel::openCount() const {
    return static_cast<std::size_t>(
        std::count_if(peers.begin(), peers.end(), [](const Peer& peer) { return peer.isOpen; }));
}

bool HubModel::waits(std::uint32_t requester) const {
    const bool isPending = std::any_of(pending.begin(), pending.end(),
                                       [&](const auto& each) { return each.first.first == requester; });
    return isPending || awaits(requester);
}

bool HubModel::awaits(std::uint32_t requester) const {
    return std::any_of(awaited.begin(), awaited.end(), [&](const auto& each) {
        return std::any_of(each.second.begin(), each.second.end(),
                           [&](const Awaited& one) { return one.requester == requester; });
    });
}

std::size_t HubModel::keptFor(const Peer& peer) const {
    std::size_t kept = connectionCost;
    if (peer.unfinished.size() > std::string().capacity()) kept += peer.unfinished.size();
    for (const Heard& heard : peer.subscriptions)
        kept += subscriptionCost + heard.first.size() * sizeof(std::uint32_t);
    for (const auto& [key, each] : pending)
        if (key.first == peer.number) kept += requestCost;
    for (const auto& [program, waiting] : awaited)
        for (const Awaited& each : waiting)
            if (each.requester == peer.number) kept += each.bytes;
    return kept;
}

bool HubModel::isAwaitedBy(uid_t user) const {
    return std::any_of(peers.begin(), peers.end(), [&](const Peer& peer) {
        return peer.isOpen && peer.user == user && awaits(peer.number);
    });
}

HubModel::Peer* HubModel::find(std::uint32_t number) {
    for (Peer& peer : peers)
        if (peer.isOpen && peer.number == number) return &peer;
    return nullptr;
}

HubModel::Peer* HubModel::findProgram(std::uint32_t program) {
    for (Peer& peer : peers)
        if (program && peer.isOpen && peer.program == program) return &peer;
    return nullptr;
}

HubModel::Peer* HubModel::findAt(const tk::Path& path) {
    if (path.empty()) return nullptr;
    Peer* client = find(path[0]);
    return client ? client : findProgram(path[0]);
}

}  // namespace fuzz
