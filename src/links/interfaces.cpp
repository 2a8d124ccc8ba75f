#include "links/interfaces.h"

#include <linux/if_arp.h>

#include <set>
#include <utility>

#include "tk/answer.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/page.h"

namespace links {

namespace {

constexpr std::size_t pageSize = 64;

static_assert(ARPHRD_ETHER == 1);  // the bus uses the kernel's hardware types

contract::InterfaceRecord recordOf(std::uint32_t id, const Link& link) {
    contract::InterfaceRecord record;
    record.id = id;
    record.type = link.hardwareType;
    record.index = link.index;
    record.name = link.name;
    record.displayName = link.alias.empty() ? link.name : link.alias;
    record.disabled = !link.isUp();
    record.running = link.isRunning();
    return record;
}

tk::message noSuchInterface(std::uint32_t id) {
    return tk::errorMsg(tk::error::noSuchObject, "no interface " + std::to_string(id));
}

bool isSameDescription(const Link& left, const Link& right) {
    return left.alias == right.alias && left.hardwareType == right.hardwareType;
}

bool isSameStatus(const Link& left, const Link& right) {
    return left.isUp() == right.isUp() && left.isRunning() == right.isRunning();
}

}  // namespace

void Interfaces::apply(const Link& link) {
    take(link);
    forgetAbsent();
}

void Interfaces::take(const Link& link) {
    if (link.isLoopback()) return;
    const std::uint32_t id = ids.idOf(link.name);
    // To the bus a renamed interface, or a new one with an old name, is another interface.
    const auto known = byIndex.find(link.index);
    if (known != byIndex.end() && known->second != id) withdraw(known->second);
    const auto named = links.find(id);
    if (named != links.end() && named->second.index != link.index) withdraw(id);
    if (links.contains(id))
        update(id, link);
    else
        add(id, link);
}

void Interfaces::remove(std::uint32_t index) {
    if (const auto known = byIndex.find(index); known != byIndex.end()) withdraw(known->second);
}

void Interfaces::applyAll(const std::vector<Link>& current) {
    std::set<std::uint32_t> present;
    for (const Link& link : current) present.insert(link.index);
    std::vector<std::uint32_t> gone;
    for (const auto& [id, link] : links)
        if (!present.contains(link.index)) gone.push_back(id);
    for (const std::uint32_t id : gone) withdraw(id);
    for (const Link& link : current) take(link);
    forgetAbsent();  // once all present ones are known
    ids.storeWhatIsNew();
}

void Interfaces::forgetAbsent() {
    ids.forgetSurplus([this](std::uint32_t id) { return links.contains(id); });
}

void Interfaces::add(std::uint32_t id, const Link& link) {
    links[id] = link;
    byIndex[link.index] = id;
    tell(recordOf(id, link));
    tellStatus(id);  // a new record is not read for its status
    for (InterfaceWatcher* watcher : watchers) watcher->interfaceAdded(link.index, id);
}

void Interfaces::update(std::uint32_t id, const Link& link) {
    const Link former = std::exchange(links[id], link);
    if (!isSameDescription(former, link)) tell(recordOf(id, link));
    if (!isSameStatus(former, link)) tellStatus(id);
}

void Interfaces::withdraw(std::uint32_t id) {
    const Link link = links[id];
    for (InterfaceWatcher* watcher : watchers) watcher->interfaceGone(link.index);
    links.erase(id);
    byIndex.erase(link.index);
    contract::InterfaceRecord record = recordOf(id, link);
    record.flags = contract::goneFlags;
    tell(record);
}

void Interfaces::tell(const contract::InterfaceRecord& record) {
    tk::message notification = record.toMessage();
    tk::stamp(notification, path(), 0, tk::Kind::notification, contract::interfaceChanged);
    (void)sendMessage(std::move(notification));  // nobody waits for a notification
}

void Interfaces::tellStatus(std::uint32_t id) {
    notifyChange(id, recordOf(id, links[id]).toMessage());
}

tk::message Interfaces::cmdGetAll(const tk::message& request) {
    return pageOf(links, request, pageSize,
                  [](std::uint32_t id, const Link& link) { return recordOf(id, link).toMessage(); });
}

tk::message Interfaces::cmdUnknown(const tk::message& received, std::uint32_t command) {
    if (command == contract::listInterfaces) return cmdGetAll(received);
    return command == contract::tellSide ? tellSide(received) : Handler::cmdUnknown(received, command);
}

tk::message Interfaces::tellSide(const tk::message& request) const {
    const std::uint32_t id = request.get_u32(contract::sidefield::interface);
    const auto link = links.find(id);
    if (link == links.end()) return noSuchInterface(id);
    const std::uint32_t index = link->second.index;
    return contract::SideReply{zones.sideOf(index), zones.whyOf(index)}.toMessage();
}

tk::message Interfaces::cmdGetCount(const tk::message&) {
    return tk::countReply(links.size());
}

tk::message Interfaces::cmdGetObj(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const auto link = links.find(id);
    if (link == links.end()) return noSuchInterface(id);
    contract::InterfaceRecord record = recordOf(id, link->second);
    if ((request.get_u32(tk::field::options) & contract::withCounters) == 0) return record.toMessage();
    const tk::Result<Link> current = kernel.readLink(link->second.index);
    if (!current.isOk()) return tk::errorMsg(tk::error::failed, current.reason());
    record.counters = current->counters;
    return record.toMessage();
}

tk::message Interfaces::cmdSetObj(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const auto link = links.find(id);
    if (link == links.end()) return noSuchInterface(id);
    if (!request.has(tk::field::disabled)) return tk::errorMsg(tk::error::invalid, "nothing that can be set");
    const auto done = [this, request](tk::message outcome) { sendAnswer(request, std::move(outcome)); };
    const bool up = !request.get_bool(tk::field::disabled);
    const uid_t user = setting.requester.user();
    if (auto answer = setting.links.set(link->second, up, user, done)) return *std::move(answer);
    return answerLater();
}

}  // namespace links
