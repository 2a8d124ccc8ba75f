#include "nat/nat.h"

#include <algorithm>
#include <span>
#include <utility>

#include "contract/natrules.h"
#include "tk/bus.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/page.h"

namespace router {

namespace {

constexpr std::uint32_t storeRevision = 1;
constexpr std::size_t pageSize = 1024;
constexpr std::size_t removedPerNotification = 1024;
// A transaction has to fit the socket's buffer, which is small where the kernel refuses to make it larger.
constexpr std::size_t removedPerTransaction = 2048;
constexpr std::uint32_t retryTicks = 100;  // 1 s

/// The element of a rule in the kernel: none without a rule, or for a disabled one.
std::vector<NatElement> elementsOf(const NatRule* rule) {
    if (!rule || rule->disabled) return {};
    return {rule->element};
}

tk::message invalid(const std::string& reason) {
    return tk::errorMsg(tk::error::invalid, reason);
}

tk::message deletedRecord(std::uint32_t id) {
    tk::message record;
    record.insert_u32(tk::field::objectId, id);
    record.insert_u32(tk::field::deleted, 1);
    return record;
}

}  // namespace

Nat::Nat(const std::string& storePath, const NatPolicy& policy, const RouterPorts& ports, NatKernel& kernel,
         const Requester& requester, std::size_t storedLimit)
    : store(storePath, storeRevision),
      policy(policy),
      ports(ports),
      storedLimit(storedLimit),
      kernel(kernel),
      requester(requester) {}

void Nat::load() {
    for (const auto& [id, record] : store.all()) {
        NatRule rule;
        rule.id = id;
        std::string reason;
        if (!readRule(record, true, rule, reason)) {
            tk::log("nat: stored rule ", id, " ignored: ", reason);
            continue;
        }
        // The policy had its say when the rule was made; at this time of a start routes may still be missing.
        if (!rule.disabled && !kernel.commit({}, elementsOf(&rule), reason)) {
            tk::log("nat: stored rule ", id, " cannot be enabled: ", reason);
            rule.disabled = true;
        }
        rules.put(rule);
    }
}

void Nat::withdraw() {
    refusals.close();
    std::vector<NatElement> left;
    for (const auto& [id, rule] : rules.all())
        if (!rule.disabled) left.push_back(rule.element);
    std::span<const NatElement> rest(left);
    while (!rest.empty()) {
        const auto part = rest.first(std::min(rest.size(), removedPerTransaction));
        rest = rest.subspan(part.size());
        std::string reason;
        if (!kernel.commit(part, {}, reason)) return tk::log("nat: the rules cannot be taken out: ", reason);
    }
}

tk::message Nat::checkRoom(const NatRule* former, const NatRule& changed) const {
    if (!former && !changed.dynamic && rules.countStored() >= storedLimit)
        return tk::errorMsg(tk::error::busy, "there are " + std::to_string(rules.countStored()) +
                                                 " stored rules already, and " + std::to_string(storedLimit) +
                                                 " is the most");
    std::size_t total = rules.all().size();
    const std::size_t ofTarget = rules.countTo(changed.element.target);
    if (former && former->element.target == changed.element.target) return {};  // no rule more for anybody
    if (former) --total;
    std::string reason;
    if (policy.hasRoom(total, ofTarget, changed.element, reason)) return {};
    return tk::errorMsg(tk::error::busy, reason);
}

/// What a program may ask for is less than what root may.
tk::message Nat::checkProgram(const NatRule* former, const NatRule& rule) const {
    if (!rule.dynamic)
        return tk::errorMsg(tk::error::notAllowed, "only root may make a rule that is not dynamic");
    std::string reason;
    const bool isNew = !former || former->element.destination != rule.element.destination;
    if (policy.allowsDestination(rule.element, isNew, reason) && ports.areFreeFor(rule.element, reason))
        return {};
    return tk::errorMsg(tk::error::refused, reason);
}

tk::message Nat::checkOwner(const NatRule& rule, const tk::message& request) const {
    if (!isAskedByProgram()) return {};
    if (rule.dynamic && rule.owner == request.get_u32_array(tk::field::sender).front()) return {};
    return tk::errorMsg(tk::error::notAllowed, "the rule is not yours");
}

/// Tells the log what a program asked for in vain.
tk::message Nat::refuse(const tk::message& refusal) {
    if (!isAskedByProgram()) return refusal;
    const std::string event = "rule of user " + std::to_string(requester.user()) + " refused";
    refusals.note(event, requester.user(), tk::getError(refusal));
    return refusal;
}

tk::message Nat::check(const NatRule* former, const NatRule& rule, bool isProgram) const {
    tk::message refusal = checkRoom(former, rule);
    if (tk::isError(refusal)) return refusal;
    const bool onlyDisables = rule.disabled && former && former->element == rule.element;
    if (onlyDisables) return {};  // always possible, whatever the policy has become
    std::string reason;
    if (!policy.allows(rule.element, reason)) return tk::errorMsg(tk::error::refused, reason);
    if (isProgram) refusal = checkProgram(former, rule);
    if (tk::isError(refusal) || rule.disabled) return refusal;
    const NatRule* other = rules.findMatch(rule.element);
    if (other && other->id != rule.id)
        return tk::errorMsg(
            tk::error::exists,
            destinationText(rule.element) + " is mapped already, by rule " + std::to_string(other->id));
    return {};
}

bool Nat::stage(const NatRule* former, const NatRule* changed, bool& staged) {
    const NatRule* known = changed ? changed : former;
    staged = !known->dynamic;
    if (!staged) return true;
    return changed ? store.stage(changed->id, recordOf(*changed)) : store.stageRemoval(known->id);
}

/// Brings one change about: the store is prepared first, then the kernel decides, then the store follows it.
tk::message Nat::apply(const NatRule* former, const NatRule* changed) {
    bool staged = false;
    if (!stage(former, changed, staged)) return tk::errorMsg(tk::error::failed, store.error());
    const std::vector<NatElement> removed = elementsOf(former);
    const std::vector<NatElement> added = elementsOf(changed);
    std::string reason;
    if (removed != added && !kernel.commit(removed, added, reason)) {
        if (staged) store.discard();
        return tk::errorMsg(tk::error::failed, reason);
    }
    if (!staged || store.commit()) return {};
    // Not stored after all: the kernel goes back. Should it refuse that, its state is what the bus goes on
    // telling.
    if (removed != added && !kernel.commit(added, removed, reason)) return {};
    return tk::errorMsg(tk::error::failed, store.error());
}

tk::message Nat::cmdAddObj(const tk::message& request) {
    NatRule rule;
    std::string reason;
    if (!readRule(request, true, rule, reason)) return invalid(reason);
    rule.dynamic = request.get_bool(tk::field::dynamic);
    if (rule.dynamic) rule.owner = request.get_u32_array(tk::field::sender).front();
    tk::message refusal = check(nullptr, rule, isAskedByProgram());
    if (tk::isError(refusal)) return refuse(refusal);
    rule.id = rules.newId();
    refusal = apply(nullptr, &rule);
    if (tk::isError(refusal)) return refusal;
    rules.put(rule);
    notifyChange(rule.id, recordOf(rule));
    tk::message reply;
    reply.insert_u32(tk::field::objectId, rule.id);
    return reply;
}

tk::message Nat::cmdSetObj(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const NatRule* known = rules.find(id);
    if (!known) return tk::errorMsg(tk::error::noSuchObject, "no rule " + std::to_string(id));
    tk::message refusal = checkOwner(*known, request);
    if (tk::isError(refusal)) return refuse(refusal);
    NatRule changed = *known;
    std::string reason;
    if (!readRule(request, false, changed, reason)) return invalid(reason);
    refusal = check(known, changed, isAskedByProgram());
    if (tk::isError(refusal)) return refuse(refusal);
    refusal = apply(known, &changed);
    if (tk::isError(refusal)) return refusal;
    rules.put(changed);
    notifyChange(id, recordOf(changed));
    return {};
}

tk::message Nat::cmdRemoveObj(const tk::message& request) {
    if (!request.has(tk::field::objectId)) return invalid("the request names no rule");
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const NatRule* known = rules.find(id);
    if (!known) return {};  // it is gone, as was asked for
    tk::message refusal = checkOwner(*known, request);
    if (tk::isError(refusal)) return refuse(refusal);
    refusal = apply(known, nullptr);
    if (tk::isError(refusal)) return refusal;
    rules.remove(id);
    tellRemoved({id});
    return {};
}

tk::message Nat::cmdDisconnected(const tk::Path& client) {
    const std::set<std::uint32_t>& owned = rules.of(client.front());
    if (owned.empty()) return {};
    orphans.insert(owned.begin(), owned.end());
    return removeOrphans();
}

tk::message Nat::removeOrphans() {
    std::string reason;
    while (!orphans.empty())
        if (!removeSomeOrphans(reason)) {
            orphanTimer.arm(retryTicks);
            return tk::errorMsg(tk::error::failed, reason);
        }
    return {};
}

/// Removes as many as one transaction takes.
bool Nat::removeSomeOrphans(std::string& reason) {
    std::vector<std::uint32_t> ids;
    std::vector<NatElement> removed;
    auto next = orphans.begin();
    for (; next != orphans.end() && ids.size() < removedPerTransaction; ++next) {
        const NatRule* rule = rules.find(*next);
        if (!rule) continue;  // somebody removed it
        ids.push_back(*next);
        if (!rule->disabled) removed.push_back(rule->element);
    }
    if (!removed.empty() && !kernel.commit(removed, {}, reason)) return false;
    orphans.erase(orphans.begin(), next);
    for (const std::uint32_t id : ids) rules.remove(id);
    tellRemoved(ids);
    return true;
}

void Nat::retryOrphans() {
    (void)removeOrphans();  // the refusal was logged when the client left
}

void Nat::tellRemoved(const std::vector<std::uint32_t>& ids) {
    std::span<const std::uint32_t> left(ids);
    while (!left.empty()) {
        const auto part = left.first(std::min(left.size(), removedPerNotification));
        left = left.subspan(part.size());
        tk::message notification;
        std::vector<tk::message>& records = notification.get_message_array_ref(tk::field::objects);
        for (const std::uint32_t id : part) records.push_back(deletedRecord(id));
        tk::stamp(notification, path(), 0, tk::Kind::notification, tk::command::objectsChanged);
        (void)sendMessage(std::move(notification));  // nobody waits for a notification
    }
}

tk::message Nat::cmdGetObj(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const NatRule* rule = rules.find(id);
    return rule ? recordOf(*rule) : tk::errorMsg(tk::error::noSuchObject, "no rule " + std::to_string(id));
}

tk::message Nat::cmdGetAll(const tk::message& request) {
    return pageOf(rules.all(), request, pageSize,
                  [](std::uint32_t, const NatRule& rule) { return recordOf(rule); });
}

tk::message Nat::cmdGetCount(const tk::message&) {
    tk::message reply;
    reply.insert_u32(tk::field::count, static_cast<std::uint32_t>(rules.all().size()));
    return reply;
}

tk::message Nat::cmdUnknown(const tk::message& received, std::uint32_t command) {
    if (command != contract::testRule) return Handler::cmdUnknown(received, command);
    NatRule rule;
    std::string reason;
    if (!readRule(received, true, rule, reason)) return invalid(reason);
    rule.dynamic = received.get_bool(tk::field::dynamic);
    return check(nullptr, rule, /*isProgram=*/true);
}

}  // namespace router
