#include "nat/service.h"

#include <algorithm>
#include <span>
#include <utility>

#include "contract/natrules.h"
#include "tk/answer.h"
#include "tk/bus.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/page.h"

namespace nat {

namespace {

constexpr std::uint32_t storeRevision = 1;
constexpr std::size_t pageSize = 1024;
constexpr std::size_t removedPerNotification = 1024;
// A transaction must fit the socket's buffer, which stays small when the kernel refuses to enlarge it.
constexpr std::size_t removedPerTransaction = 2048;
constexpr std::uint32_t retryTicks = 100;  // 1 s

/// The element of a rule in the kernel; none when there is no rule, or it is disabled.
std::vector<firewall::Element> elementsOf(const Rule* rule) {
    if (!rule || rule->disabled) return {};
    return {{rule->key, rule->target}};
}

tk::Status notAllowed(const std::string& reason) {
    return tk::Status::failure(reason, tk::error::notAllowed);
}

tk::Status failed(const std::string& reason) {
    return tk::Status::failure(reason, tk::error::failed);
}

tk::Status noSuchRule(std::uint32_t id) {
    return tk::Status::failure("no rule " + std::to_string(id), tk::error::noSuchObject);
}

bool asksForTraffic(const tk::message& request) {
    return (request.get_u32(tk::field::options) & contract::withTraffic) != 0;
}

tk::message deletedRecord(std::uint32_t id) {
    tk::message record;
    record.insert_u32(tk::field::objectId, id);
    tk::markDeleted(record);
    return record;
}

}  // namespace

Service::Service(const std::string& storePath, const Policy& policy, const RouterPorts& ports,
                 firewall::Kernel& kernel, const hub::Requester& requester, std::size_t storedLimit)
    : store(storePath, storeRevision),
      policy(policy),
      ports(ports),
      storedLimit(storedLimit),
      kernel(kernel),
      requester(requester) {}

void Service::load() {
    for (const auto& [id, record] : store.all()) {
        tk::Result<Rule> stored = newRule(record);
        if (!stored.isOk()) {
            tk::log("nat: stored rule ", id, " ignored: ", stored.reason());
            continue;
        }
        Rule rule = stored.take();
        rule.id = id;
        rule.dynamic = false;
        // The policy was applied when the rule was made. Now, during a start, routes may still be missing.
        if (const tk::Status status = rule.disabled ? tk::Status() : kernel.commit({}, elementsOf(&rule));
            !status.isOk()) {
            tk::log("nat: stored rule ", id, " cannot be enabled: ", status.reason());
            rule.disabled = true;
        }
        rules.put(rule);
    }
}

void Service::withdraw() {
    refusals.close();
    while (!rules.all().empty()) {
        std::vector<std::uint32_t> ids;
        for (auto rule = rules.all().begin(); rule != rules.all().end() && ids.size() < removedPerTransaction;
             ++rule)
            ids.push_back(rule->first);
        if (const tk::Status status = takeOut(ids); !status.isOk())
            return tk::log("nat: the rules cannot be taken out: ", status.reason());
    }
}

std::vector<firewall::Element> Service::elements() const {
    std::vector<firewall::Element> all;
    for (const auto& [id, rule] : rules.all())
        if (!rule.disabled) all.push_back({rule.key, rule.target});
    return all;
}

tk::Status Service::checkRoom(const Rule* former, const Rule& changed) const {
    if (!former && !changed.dynamic && rules.countStored() >= storedLimit)
        return tk::Status::failure("there are " + std::to_string(rules.countStored()) +
                                       " stored rules already, and " + std::to_string(storedLimit) +
                                       " is the most",
                                   tk::error::busy);
    std::size_t total = rules.all().size();
    const std::uint32_t target = changed.target.address;
    if (former && former->target.address == target) return {};  // nobody gets another rule
    if (former) --total;
    return policy.hasRoom(total, rules.countTo(target), target);
}

/// The further checks for a program, which may do less than root.
tk::Status Service::checkProgram(const Rule* former, const Rule& rule) const {
    if (!rule.dynamic) return notAllowed("only root may make a rule that is not dynamic");
    const std::uint32_t destination = rule.key.destination;
    const bool isNew = !former || former->key.destination != destination;
    tk::Status status = policy.allowsDestination(destination, isNew);
    return status.isOk() ? ports.areFreeFor(rule.key) : status;
}

tk::Status Service::checkOwner(const Rule& rule, const tk::message& request) const {
    if (!isAskedByProgram()) return {};
    if (rule.dynamic && rule.owner == request.get_u32_array(tk::field::sender).front()) return {};
    return notAllowed("the rule is not yours");
}

/// Logs the refusal when a program asked.
tk::message Service::refuse(const tk::Status& refusal) {
    if (isAskedByProgram())
        refusals.note("rule of user " + std::to_string(requester.user()) + " refused", requester.user(),
                      refusal.reason());
    return tk::answerOf(refusal);
}

tk::Status Service::check(const Rule* former, const Rule& rule, bool isProgram) const {
    tk::Status status = checkRoom(former, rule);
    if (!status.isOk()) return status;
    const bool onlyDisables =
        rule.disabled && former && former->key == rule.key && former->target == rule.target;
    if (onlyDisables) return {};  // always possible, even if the policy has changed
    status = policy.allows({rule.key, rule.target});
    if (status.isOk() && isProgram) status = checkProgram(former, rule);
    if (!status.isOk() || rule.disabled) return status;
    const Rule* other = rules.find(rule.key);
    if (!other || other->id == rule.id) return {};
    return tk::Status::failure(textOf(rule.key) + " is mapped already, by rule " + std::to_string(other->id),
                               tk::error::exists);
}

/// Prepares the change of a stored rule.
tk::Status Service::stage(const Rule& known, const Rule* changed) {
    if (known.dynamic) return {};
    const tk::Status staged =
        changed ? store.stage(changed->id, changed->toMessage()) : store.stageRemoval(known.id);
    return staged.isOk() ? tk::Status() : failed(staged.reason());
}

/// Records a rule as it is now. `changed` is null when the rule is gone.
void Service::keep(const Rule* former, const Rule* changed) {
    if (changed)
        rules.put(*changed);
    else
        rules.remove(former->id);
}

/// Makes one change: first the store prepares it, then the kernel decides, then the store writes it.
/// Neither argument refers into `rules`.
tk::Status Service::apply(const Rule* former, const Rule* changed) {
    const bool isStored = !(changed ? changed : former)->dynamic;
    if (tk::Status status = stage(changed ? *changed : *former, changed); !status.isOk()) return status;
    const std::vector<firewall::Element> removed = elementsOf(former);
    const std::vector<firewall::Element> added = elementsOf(changed);
    const bool isInKernel = removed != added;
    if (const tk::Status status = isInKernel ? kernel.commit(removed, added) : tk::Status(); !status.isOk()) {
        if (isStored) store.discard();
        return failed(status.reason());
    }
    keep(former, changed);
    const tk::Status stored = isStored ? store.commit() : tk::Status();
    if (stored.isOk()) return {};
    // It could not be stored, so the kernel goes back. If it refuses, the bus tells what the kernel has.
    if (isInKernel && !kernel.commit(added, removed).isOk()) return {};
    keep(changed, former);
    return failed(stored.reason());
}

tk::message Service::cmdAddObj(const tk::message& request) {
    tk::Result<Rule> asked = newRule(request);
    if (!asked.isOk()) return tk::answerOf(asked.status());
    Rule rule = asked.take();
    if (rule.dynamic) rule.owner = request.get_u32_array(tk::field::sender).front();
    if (const tk::Status status = check(nullptr, rule, isAskedByProgram()); !status.isOk())
        return refuse(status);
    rule.id = rules.newId();
    if (const tk::Status status = apply(nullptr, &rule); !status.isOk()) return tk::answerOf(status);
    tellChanged(rule);
    tk::message reply;
    reply.insert_u32(tk::field::objectId, rule.id);
    return reply;
}

tk::message Service::cmdSetObj(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const Rule* found = rules.find(id);
    if (!found) return tk::answerOf(noSuchRule(id));
    const Rule known = *found;
    if (const tk::Status status = checkOwner(known, request); !status.isOk()) return refuse(status);
    const tk::Result<Rule> changed = changedRule(known, request);
    if (!changed.isOk()) return tk::answerOf(changed.status());
    if (const tk::Status status = check(&known, *changed, isAskedByProgram()); !status.isOk())
        return refuse(status);
    if (const tk::Status status = apply(&known, &*changed); !status.isOk()) return tk::answerOf(status);
    tellChanged(*changed);
    return {};
}

tk::message Service::cmdRemoveObj(const tk::message& request) {
    if (!request.has(tk::field::objectId))
        return tk::errorMsg(tk::error::invalid, "the request names no rule");
    const Rule* found = rules.find(request.get_u32(tk::field::objectId));
    if (!found) return {};  // it is gone, as was asked for
    const Rule known = *found;
    if (const tk::Status status = checkOwner(known, request); !status.isOk()) return refuse(status);
    if (const tk::Status status = apply(&known, nullptr); !status.isOk()) return tk::answerOf(status);
    tellRemoved({known.id});
    return {};
}

tk::message Service::cmdDisconnected(const tk::Path& client) {
    const std::set<std::uint32_t>& owned = rules.of(client.front());
    if (owned.empty()) return {};
    orphans.insert(owned.begin(), owned.end());
    return tk::answerOf(removeOrphans());
}

/// Takes rules out of the kernel in one transaction, and forgets them.
tk::Status Service::takeOut(const std::vector<std::uint32_t>& ids) {
    std::vector<firewall::Element> removed;
    for (const std::uint32_t id : ids)
        for (const firewall::Element& element : elementsOf(rules.find(id))) removed.push_back(element);
    if (!removed.empty())
        if (tk::Status status = kernel.commit(removed, {}); !status.isOk()) return failed(status.reason());
    for (const std::uint32_t id : ids) rules.remove(id);
    return {};
}

tk::Status Service::removeOrphans() {
    tk::Status status;
    while (!orphans.empty() && status.isOk()) status = removeSomeOrphans();
    if (!status.isOk()) orphanTimer.arm(retryTicks);
    return status;
}

/// Removes as many as one transaction takes.
tk::Status Service::removeSomeOrphans() {
    std::vector<std::uint32_t> ids;
    auto next = orphans.begin();
    for (; next != orphans.end() && ids.size() < removedPerTransaction; ++next)
        if (rules.find(*next)) ids.push_back(*next);  // otherwise somebody has removed it
    if (tk::Status status = takeOut(ids); !status.isOk()) return status;
    orphans.erase(orphans.begin(), next);
    tellRemoved(ids);
    return {};
}

void Service::retryOrphans() {
    (void)removeOrphans();  // a refusal was logged when the client left
}

void Service::tellChanged(const Rule& rule) {
    if (areChangesHeard()) notifyChange(rule.id, rule.toMessage());
}

void Service::tellRemoved(const std::vector<std::uint32_t>& ids) {
    if (!areChangesHeard()) return;
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

tk::message Service::cmdGetObj(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const Rule* rule = rules.find(id);
    if (!rule) return tk::answerOf(noSuchRule(id));
    tk::message record = rule->toMessage();
    if (asksForTraffic(request)) addTraffic({&record, 1});
    return record;
}

tk::message Service::cmdGetAll(const tk::message& request) {
    tk::message page = tk::pageOf(rules.all(), request, pageSize,
                                  [](std::uint32_t, const Rule& rule) { return rule.toMessage(); });
    if (asksForTraffic(request)) addTraffic(page.get_message_array_ref(tk::field::objects));
    return page;
}

/// Asks the kernel once for all records. A disabled rule is not in the kernel.
void Service::addTraffic(std::span<tk::message> records) {
    std::vector<firewall::Element> elements;
    for (const tk::message& record : records)
        for (const firewall::Element& element : elementsOf(rules.find(record.get_u32(tk::field::objectId))))
            elements.push_back(element);
    const std::vector<contract::NatTraffic> traffic = kernel.traffic(elements);
    auto next = traffic.begin();
    for (tk::message& record : records)
        (record.get_bool(tk::field::disabled) ? contract::NatTraffic() : *next++).addTo(record);
}

tk::message Service::cmdGetCount(const tk::message&) {
    return tk::countReply(rules.all().size());
}

tk::message Service::cmdUnknown(const tk::message& received, std::uint32_t command) {
    if (command != contract::testRule) return Handler::cmdUnknown(received, command);
    const tk::Result<Rule> rule = newRule(received);
    return tk::answerOf(rule.isOk() ? check(nullptr, *rule, /*isProgram=*/true) : rule.status());
}

}  // namespace nat
