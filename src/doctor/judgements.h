#pragma once

#include "doctor/facts.h"
#include "doctor/finding.h"

namespace doctor {

/// Everything that is wrong, the worst first.
[[nodiscard]] Findings judge(const Facts& facts);

// Each of these appends what is wrong with one subject.

/// Whether the programs answer, as whom they run, the guard, and their versions.
void judgePrograms(const Facts& facts, Findings& findings);
/// The roles, and the settings of UPnP.
void judgeRoles(const Facts& facts, Findings& findings);
/// The interfaces that have a role, and their addresses.
void judgeLinks(const Facts& facts, Findings& findings);
/// Another address translation between the router and the Internet.
void judgeUpstream(const Facts& facts, Findings& findings);
/// What the kernel's settings and the packet filter do with packets of mapped connections.
void judgeForwarding(const Facts& facts, Findings& findings);
/// The ways of answers over several uplinks.
void judgeRouting(const Facts& facts, Findings& findings);
/// Who holds the gateway's ports.
void judgePorts(const Facts& facts, Findings& findings);
/// Other gateways in the LAN, and what keeps searches from reaching this one.
void judgeDiscovery(const Facts& facts, Findings& findings);
/// The stores, and the clock.
void judgeStores(const Facts& facts, Findings& findings);

}  // namespace doctor
