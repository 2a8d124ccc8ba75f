#pragma once

#include <string>
#include <vector>

#include "doctor/facts.h"
#include "tk/status.h"

namespace doctor {

/// Asks the machine: what the kernel, its tools and the files say, where the roles tell to look. What cannot
/// be looked at is noted in `unseen`.
/// `searches`: true when other gateways in the LAN are asked for, once; they have a second and a half to
/// answer.
[[nodiscard]] MachineFacts lookAtMachine(const BusFacts& bus, bool searches);

/// The version that the file of a running program carries.
/// Errors: empty when there is none, or it cannot be read.
[[nodiscard]] std::string versionOfProcess(std::uint32_t pid);

/// What a tool could not show; to be mended by its Debian package when the tool is not installed.
[[nodiscard]] Unseen unseenBy(const tk::Status& failure, const std::string& what, const std::string& package);

// Each of these looks at one part of the machine, once its links are known.

/// The tables of the packet filter, and whom the guard holds.
void lookAtRules(MachineFacts& machine);
/// The kernel's settings, and how answers leave.
void lookAtForwarding(const BusFacts& bus, MachineFacts& machine);
/// The holders of the gateway's ports.
void lookAtSockets(MachineFacts& machine);
/// The bridges, and who asks for members of groups there.
void lookAtBridges(MachineFacts& machine);
/// The stores, router.toml and the clock.
void lookAtFiles(const BusFacts& bus, MachineFacts& machine);

// What the tools print.

/// What "ss -Hlntup" prints about the gateway's ports.
[[nodiscard]] std::vector<SocketFact> parseSockets(const std::string& text);
/// What "ip -j -d link show type bridge" and "bridge -j -d mdb show" print.
/// Errors: when a text is not of that form.
[[nodiscard]] tk::Result<std::vector<BridgeFact>> parseBridges(const std::string& links,
                                                               const std::string& groups);
/// What router.toml says.
/// Errors: when it is no TOML.
[[nodiscard]] tk::Result<ConfigFacts> parseConfig(const std::string& text, const std::string& path);

}  // namespace doctor
