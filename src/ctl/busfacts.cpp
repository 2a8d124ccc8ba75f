#include "ctl/busfacts.h"

#include <arpa/inet.h>
#include <errno.h>

#include "contract/gateway.h"
#include "contract/interfaces.h"
#include "contract/natrules.h"
#include "contract/programs.h"
#include "ctl/failure.h"
#include "ctl/interfaces.h"
#include "ctl/runningprograms.h"
#include "doctor/collect.h"
#include "tk/names.h"
#include "tk/version.h"

namespace ctl {

namespace {

void readRules(Session& session, doctor::BusFacts& facts) {
    tk::message query;
    query.insert_u32(tk::field::options, contract::withTraffic);
    for (const tk::message& record : session.list(contract::path::nat(), query)) {
        const auto rule = contract::NatRule::fromMessage(record);
        if (rule.disabled) continue;
        facts.mappedPackets += contract::NatTraffic::fromMessage(record).packets;
        doctor::MappedFlow flow;
        flow.externalAddress = ntohl(rule.key.destination);
        flow.externalPort = rule.key.port;
        flow.protocol = rule.key.protocol;
        flow.client = ntohl(rule.target.address);
        flow.clientPort = rule.target.port;
        facts.flows.push_back(flow);
    }
}

void readPrograms(Session& session, doctor::BusFacts& facts) {
    for (const RunningProgram& running : readPrograms(session).value_or(std::vector<RunningProgram>{})) {
        doctor::ProgramFact program;
        program.number = running.number;
        program.pid = running.pid;
        program.user = running.uid;
        program.version = doctor::versionOfProcess(program.pid);
        facts.programs.push_back(program);
    }
}

void readRouter(Session& session, doctor::BusFacts& facts) {
    for (const Interface& interface : readInterfaces(session))
        facts.interfaces.push_back({interface.id, interface.name, sideOf(session, interface.id)});
    facts.routerAnswers = true;
}

void readDaemon(Session& session, doctor::BusFacts& facts) {
    const tk::message reply = session.exchange(contract::path::gateway(), tk::command::get);
    std::uint32_t code = 0;
    if (tk::isError(reply, &code)) {
        if (code != tk::error::notAllowed) throw failureFrom(reply, contract::path::gateway());
        facts.daemonRefusal = failureFrom(reply, contract::path::gateway()).reason;
        return;
    }
    facts.settings = contract::Settings::fromMessage(reply, {});
    for (const tk::message& record : session.list(contract::path::gateway())) {
        const auto item = contract::RoleItem::fromMessage(record, {});
        doctor::RoleFact role{record.get_u32(tk::field::objectId), item.interface, "", item.type,
                              item.disabled};
        for (const doctor::InterfaceFact& interface : facts.interfaces)
            if (interface.id == item.interface) role.name = interface.name;
        facts.roles.push_back(role);
    }
    facts.daemonAnswers = true;
}

/// Why the questions failed; empty when they did not.
template <typename Questions>
std::string failureOf(const Questions& ask) {
    try {
        ask();
    } catch (const Failure& failure) {
        return failure.reason;
    }
    return {};
}

}  // namespace

doctor::BusFacts readBusFacts(Session& patientSession) {
    Session session = patientSession.waiting(patience);
    doctor::BusFacts facts;
    facts.ownVersion = tk::version();
    facts.routerSilence = failureOf([&] { readRouter(session, facts); });
    if (!facts.routerAnswers) return facts;
    facts.rulesSilence = failureOf([&] { readRules(session, facts); });
    facts.daemonSilence = failureOf([&] { readDaemon(session, facts); });
    // Last, for the question to the daemon may have started it.
    (void)failureOf([&] { readPrograms(session, facts); });  // then nobody tells, and nothing is judged
    return facts;
}

doctor::BusFacts readBusFacts(Context& context) {
    try {
        return readBusFacts(context.session());
    } catch (const Unreachable& failure) {
        doctor::BusFacts facts;
        facts.mayAsk = failure.error != EACCES;
        facts.routerSilence = failure.reason;
        return facts;
    }
}

}  // namespace ctl
