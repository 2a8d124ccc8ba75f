#include "ctl/overview.h"

#include <pwd.h>

#include <algorithm>

#include "contract/addresses.h"
#include "contract/ports.h"
#include "contract/programs.h"
#include "ctl/failure.h"
#include "ctl/interfaces.h"
#include "net/convert.h"
#include "tk/names.h"

namespace ctl {

namespace {

using contract::Role;

/// The interfaces with a role, as the daemon has them.
std::vector<ServedInterface> readItems(Session& session) {
    std::vector<ServedInterface> served;
    for (const tk::message& record : session.list(contract::path::gateway())) {
        const auto item = contract::RoleItem::fromMessage(record, {});
        ServedInterface entry;
        entry.item = record.get_u32(tk::field::objectId);
        entry.interface = item.interface;
        entry.role = item.type;
        entry.isDisabled = item.disabled;
        served.push_back(std::move(entry));
    }
    return served;
}

/// What the router knows of the interfaces with a role.
void describe(Session& session, std::vector<ServedInterface>& served) {
    const std::vector<Interface> interfaces = readInterfaces(session);
    const std::vector<tk::message> addresses = session.list(contract::path::addresses());
    for (ServedInterface& entry : served) {
        for (const Interface& candidate : interfaces)
            if (candidate.id == entry.interface) {
                entry.name = candidate.name;
                entry.isRunning = candidate.running;
            }
        for (const tk::message& record : addresses) {
            const auto address = contract::AddressRecord::fromMessage(record);
            if (address.interface == entry.interface && address.address && !address.disabled)
                entry.addresses.push_back(*address.address);
        }
        if (!entry.name.empty()) entry.side = sideOf(session, entry.interface);
    }
}

/// Asks the daemon, as far as it answers.
void askGateway(Session& session, Overview& overview) {
    try {
        overview.settings =
            contract::Settings::fromMessage(session.request(contract::path::gateway(), tk::command::get), {});
        overview.served = readItems(session);
        overview.mappings = mappingsOf(session);
        overview.refusals = refusalsOf(session);
    } catch (const Failure& failure) {
        overview.gatewayFailure = failure.what();
    }
}

}  // namespace

Overview readOverview(Session& patientSession, const std::string& forwarding) {
    Session session = patientSession.waiting(patience);
    Overview overview;
    overview.programs = readPrograms(session);
    overview.isGatewayThere = !overview.programs || isThere(*overview.programs, contract::program::gateway);
    if (overview.isGatewayThere) askGateway(session, overview);
    describe(session, overview.served);
    overview.isForwarding = machine::isForwarding(forwarding);
    return overview;
}

std::vector<const ServedInterface*> inForce(const Overview& overview, Role role) {
    std::vector<const ServedInterface*> found;
    if (!overview.settings || !overview.settings->enabled) return found;
    for (const ServedInterface& entry : overview.served)
        if (entry.role == role && !entry.isDisabled && entry.isRunning && !entry.addresses.empty())
            found.push_back(&entry);
    return found;
}

std::string descriptionUrl(std::uint32_t address) {
    return "http://" + gateway::ipToString(address) + ':' + std::to_string(contract::httpPort) +
           "/gateway.xml";
}

std::string userName(std::uint32_t uid) {
    const passwd* user = ::getpwuid(uid);
    return user ? user->pw_name : std::to_string(uid);
}

}  // namespace ctl
