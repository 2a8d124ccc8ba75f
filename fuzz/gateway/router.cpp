#include "fuzz/gateway/router.h"

#include <vector>

#include "contract/interfaces.h"
#include "contract/programs.h"
#include "contract/resolver.h"
#include "fuzz/target.h"
#include "tk/names.h"

namespace fuzz {

namespace {

constexpr std::uint32_t identityText = 1;

tk::message listOf(const std::map<std::uint32_t, tk::message>& records) {
    std::vector<tk::message> list;
    for (const auto& [id, record] : records) list.push_back(record);
    return tk::testing::listOf(list);
}

/// Each field that somebody reads has another type, but for the list, which leads back to itself.
tk::message malformed() {
    tk::message record;
    record.insert_string(tk::field::objectId, "1");
    record.insert_string(contract::interfacefield::flags, "2");
    record.insert_u32(contract::interfacefield::name, 3);
    record.insert_u32(1, 4);
    tk::message reply = tk::testing::listOf({record, {}});
    reply.insert_string(tk::field::objectId, "5");
    reply.insert_u32(tk::field::next, 6);
    reply.insert_bool(identityText, true);
    return reply;
}

tk::message countersOf() {
    tk::message reply;
    reply.insert_u64(contract::interfacefield::rxBytes, 0xFFFFFFFFFFFFFFFF);
    reply.insert_u64(contract::interfacefield::txPackets, 7);
    return reply;
}

tk::message identity() {
    tk::message reply;
    reply.insert_string(identityText, "0123abcd");
    return reply;
}

}  // namespace

Router::Router(tk::testing::ScriptedBus& bus, tk::testing::ManualClock& clock) : clock(clock) {
    namespace path = contract::path;
    const struct {
        tk::Path path;
        std::uint32_t command;
        Question question;
    } table[] = {
        {path::interfaces(), contract::listInterfaces, Question::interfaces},
        {path::interfaces(), tk::command::getAll, Question::states},
        {path::interfaces(), tk::command::getObject, Question::counters},
        {path::interfaces(), tk::command::setObject, Question::switchInterface},
        {path::addresses(), tk::command::getAll, Question::addresses},
        {path::nat(), tk::command::addObject, Question::addRule},
        {path::nat(), tk::command::setObject, Question::changeRule},
        {path::nat(), tk::command::removeObject, Question::removeRule},
        {path::identity(), tk::command::get, Question::identity},
        {path::hub(), tk::command::hubSubscribe, Question::hub},
        {path::hub(), tk::command::hubUnsubscribe, Question::hub},
        {path::history(), tk::command::addObject, Question::history},
    };
    for (const auto& row : table)
        bus.answer(row.path, row.command, [this, question = row.question](const tk::message& request) {
            return answer(question, request);
        });
    bus.keepSilent({contract::program::resolver}, contract::resolveName);
}

tk::message Router::answer(Question question, const tk::message& request) {
    const Reply reply = replies[static_cast<std::size_t>(question)];
    foresee(question, reply, request);
    switch (reply) {
        case Reply::usual:
            return carryOut(question, request);
        case Reply::error:
            return tk::errorMsg(tk::error::failed, "not\x1b[2J today\n");
        case Reply::empty:
            return {};
        case Reply::malformed:
            return malformed();
        case Reply::lost:
            (void)carryOut(question, request);
            [[fallthrough]];
        case Reply::late:
            clock.advance(tk::exchangeTimeout);
            return tk::errorMsg(tk::error::timedOut, "timed out");
        case Reply::count:
            break;
    }
    return {};
}

tk::message Router::carryOut(Question question, const tk::message& request) {
    switch (question) {
        case Question::interfaces:
            return listOf(interfaces);
        case Question::states:
            return listOf(states);
        case Question::addresses:
            return listOf(addresses);
        case Question::addRule:
            return addRule(request);
        case Question::changeRule:
            return changeRule(request);
        case Question::removeRule:
            return removeRule(request);
        case Question::counters:
            return countersOf();
        case Question::identity:
            return identity();
        case Question::switchInterface:
        case Question::hub:
        case Question::history:
        case Question::count:
            break;
    }
    return {};
}

/// Notes what an unusual reply keeps the daemon from knowing.
void Router::foresee(Question question, Reply reply, const tk::message& request) {
    const bool claimsDone = reply == Reply::empty || reply == Reply::malformed;
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    if (reply == Reply::usual) return;
    if (question == Question::addRule && claimsDone) ++withoutId;
    if (question == Question::addRule && reply == Reply::lost) abandoned.insert(lastRule + 1);
    if (question == Question::changeRule && (claimsDone || reply == Reply::lost)) uncertain.insert(id);
    if (question == Question::removeRule) abandoned.insert(id);
    if (question == Question::removeRule && reply == Reply::lost) uncertain.insert(id);
}

tk::message Router::addRule(const tk::message& request) {
    contract::NatRule rule = contract::NatRule::fromMessage(request);
    require(rule.dynamic, "a rule goes with the daemon's connection");
    rule.id = ++lastRule;
    rules[rule.id] = rule;
    tk::message reply;
    reply.insert_u32(tk::field::objectId, rule.id);
    return reply;
}

tk::message Router::changeRule(const tk::message& request) {
    const auto rule = rules.find(request.get_u32(tk::field::objectId));
    if (rule == rules.end()) {
        const std::uint32_t id = request.get_u32(tk::field::objectId);
        require(id == 0 || uncertain.contains(id), "only a rule that is there is changed");
        return tk::errorMsg(tk::error::noSuchObject, "no such rule");
    }
    rule->second = rule->second.changedBy(request);
    return {};
}

tk::message Router::removeRule(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const bool wasThere = rules.erase(id) > 0;
    require(wasThere || (id == 0 && withoutId > 0) || uncertain.contains(id), "no rule is removed twice");
    return {};
}

}  // namespace fuzz
