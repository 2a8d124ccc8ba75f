#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace router {

/// A connection that the kernel tracks: where its first packet went, and where the answers come from, which
/// is where it really leads. Byte order: addresses in network order, ports in host order. A value.
struct Flow {
    std::uint8_t protocol = 0;
    std::uint32_t destination = 0;  // of the first packet, as it arrived
    std::uint16_t port = 0;
    std::uint32_t target = 0;  // whoever answers
    std::uint16_t targetPort = 0;
    bool isEstablished = false;  // a TCP connection that both sides agreed on and neither ended
    bool isTranslated = false;   // a rule changed its destination
    std::vector<char> name;      // the attributes by which the kernel knows exactly this flow
    bool isOfZone = false;       // tracked apart from the others, as some ruleset asks for

    bool operator==(const Flow&) const = default;
};

/// Reads one message of a dump. Empty for all but TCP and UDP over IPv4.
[[nodiscard]] std::optional<Flow> parseFlow(const nlmsghdr& message);

/// Which flows a dump is to give; 0 stands for any. A kernel that cannot select gives more than was asked
/// for. Byte order: as in Flow.
struct FlowSelection {
    std::uint32_t destination = 0;
    std::uint8_t protocol = 0;
    std::uint16_t port = 0;
};

/// Writes the request for a dump of the IPv4 flows. Lifetime: the message is in `buffer`, which holds
/// flowRequestBytes.
[[nodiscard]] nlmsghdr* putFlowDump(char* buffer, const FlowSelection& selection);

/// Appends the request that removes one flow. The kernel is asked to answer errors alone.
void appendFlowRemoval(std::vector<char>& out, const Flow& flow, std::uint32_t sequence);

constexpr std::size_t flowRequestBytes = 256;

}  // namespace router
