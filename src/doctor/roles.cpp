#include <algorithm>

#include "doctor/judgements.h"

namespace doctor {

namespace {

using contract::Role;

const InterfaceFact* interfaceWith(const BusFacts& bus, std::uint32_t id) {
    for (const InterfaceFact& interface : bus.interfaces)
        if (interface.id == id) return &interface;
    return nullptr;
}

bool hasItem(const BusFacts& bus, const InterfaceFact& interface) {
    const auto names = [&](const RoleFact& item) { return item.interface == interface.id; };
    return std::any_of(bus.roles.begin(), bus.roles.end(), names);
}

/// How well an interface would do for the role; 0: not at all.
int fitness(const Facts& facts, const InterfaceFact& interface, Role role) {
    if (hasItem(facts.bus, interface)) return 0;  // it gets no second one
    const auto wanted = role == Role::internal ? contract::Side::inside : contract::Side::outside;
    const machine::Link* link = facts.machine.links.find(interface.name);
    if (interface.side.side != wanted || !link || !link->master.empty()) return 0;
    const auto leadsOut = [&](const machine::Route& route) {
        return route.isDefault() && route.device == interface.name;
    };
    const auto& routes = facts.machine.links.routes;
    const bool isUplink = role == Role::external && std::any_of(routes.begin(), routes.end(), leadsOut);
    return 1 + (facts.addressesOf(interface.name).empty() ? 0 : 1) + (isUplink ? 2 : 0);
}

/// The name of the interface that is best for the role, as far as one can tell. Empty when none would do.
std::string candidate(const Facts& facts, Role role) {
    int best = 0;
    std::string name;
    for (const InterfaceFact& interface : facts.bus.interfaces) {
        const int fit = fitness(facts, interface, role);
        if (fit > best) name = interface.name;
        best = std::max(best, fit);
    }
    return name;
}

/// The line that gives the role to an interface.
std::string mendLack(const Facts& facts, Role role) {
    for (const RoleFact& item : facts.bus.roles)
        if (item.role == role && item.isDisabled && !item.name.empty())
            return "tkctl upnp interface set " + std::to_string(item.id) + " disabled=no";
    const std::string name = candidate(facts, role);
    const std::string add = "tkctl upnp interface add ";
    return name.empty() ? "# " + add + "NAME " + roleName(role) : add + name + ' ' + roleName(role);
}

void judgeLack(const Facts& facts, Role role, Findings& findings) {
    const auto hasRole = [&](const RoleFact& fact) { return fact.role == role && !fact.isDisabled; };
    if (std::any_of(facts.bus.roles.begin(), facts.bus.roles.end(), hasRole)) return;
    const bool isInternal = role == Role::internal;
    findings.push_back({isInternal ? "no-internal-role" : "no-external-role",
                        Severity::error,
                        roleName(role),
                        "No interface has the role " + roleName(role) + '.',
                        isInternal ? "The gateway is announced and served on internal interfaces alone."
                                   : "Mappings lead from the address of an external interface to the LAN.",
                        {mendLack(facts, role)}});
}

void judgeDisabled(const RoleFact& role, Findings& findings) {
    findings.push_back({"role-disabled",
                        Severity::note,
                        role.name,
                        "The role of " + role.name + " is disabled.",
                        "The interface is not served.",
                        {"tkctl upnp interface set " + std::to_string(role.id) + " disabled=no"}});
}

void judgeMissing(const RoleFact& role, Findings& findings) {
    const std::string id = std::to_string(role.id);
    findings.push_back(
        {"role-on-missing-interface",
         Severity::error,
         "item " + id,
         "The " + roleName(role.role) + " item " + id + " names an interface that is not there.",
         "It takes effect only when the interface comes back under its former name.",
         {"tkctl upnp interface remove " + id}});
}

void judgeMember(const Facts& facts, const RoleFact& role, Findings& findings) {
    const machine::Link* link = facts.machine.links.find(role.name);
    const std::string master = link ? ownerOf(facts.machine.links, *link).name : role.name;
    if (master == role.name) return;
    findings.push_back({"role-on-member",
                        Severity::error,
                        role.name,
                        role.name + " has a role, but is a member of " + master + '.',
                        "Packets of a member reach the router by " + master + ", which also has the address.",
                        {"tkctl upnp interface set " + std::to_string(role.id) + " interface=" + master}});
}

void judgeSide(const Facts& facts, const RoleFact& role, Findings& findings) {
    const InterfaceFact* interface = interfaceWith(facts.bus, role.interface);
    if (!interface) return;
    const contract::SideReply& side = interface->side;
    if (role.role == Role::internal && side.side == contract::Side::outside)
        findings.push_back(
            {"internal-role-outside",
             Severity::error,
             role.name,
             role.name + " is internal, but lies outside: " + side.why + '.',
             "The gateway must not be served to the Internet, so searches there are dropped.",
             {"# if it is the LAN, name it in [lan] interfaces of " + facts.machine.config.path + "; then:",
              "tkctl reload", "# otherwise:", "tkctl upnp interface remove " + std::to_string(role.id)}});
    if (role.role == Role::external && side.side == contract::Side::inside)
        findings.push_back({"external-role-inside",
                            Severity::error,
                            role.name,
                            role.name + " is external, but lies inside: " + side.why + '.',
                            "Mappings lead from addresses outside alone; each one is refused here.",
                            {"# name the interfaces of the LAN, without " + role.name +
                                 ", in [lan] interfaces of " + facts.machine.config.path + "; then:",
                             "tkctl reload"}});
}

void judgeRole(const Facts& facts, const RoleFact& role, Findings& findings) {
    if (role.name.empty()) return judgeMissing(role, findings);
    if (role.isDisabled) return judgeDisabled(role, findings);
    judgeMember(facts, role, findings);
    judgeSide(facts, role, findings);
}

void judgeTermination(const Facts& facts, Findings& findings) {
    if (!facts.bus.settings.allowDisableExternal) return;
    const auto& terminable = facts.machine.config.terminable;
    for (const RoleFact& role : facts.rolesOf(Role::external))
        if (std::find(terminable.begin(), terminable.end(), role.name) != terminable.end())
            findings.push_back(
                {"lan-may-disconnect",
                 Severity::warning,
                 role.name,
                 "Every host in the LAN can take " + role.name + " down.",
                 "allow-disable-external is on, and router.toml lets programs do it (terminate).",
                 {"tkctl upnp set allow-disable-external=no"}});
}

}  // namespace

void judgeRoles(const Facts& facts, Findings& findings) {
    if (!facts.bus.daemonAnswers) return;
    if (!facts.bus.settings.enabled)
        findings.push_back({"switched-off",
                            Severity::error,
                            "upnpd",
                            "UPnP is switched off.",
                            "Nobody in the LAN finds the gateway, and there are no mappings.",
                            {"tkctl upnp set enabled=yes"}});
    judgeLack(facts, Role::internal, findings);
    judgeLack(facts, Role::external, findings);
    for (const RoleFact& role : facts.bus.roles) judgeRole(facts, role, findings);
    judgeTermination(facts, findings);
}

}  // namespace doctor
