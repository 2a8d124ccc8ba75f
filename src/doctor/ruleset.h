#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// The firewall rules that forwarded packets meet, whichever tool wrote them.
namespace doctor {

/// What a condition looks at.
enum class Subject : std::uint8_t {
    inInterface,
    outInterface,
    source,
    destination,
    originalDestination,
    protocol,
    sourcePort,
    destinationPort,
    originalPort,
    state,     // of the connection: "new", "established"...
    status,    // of the connection: "dnat", "seen-reply"...
    tcpFlags,  // "syn", "ack"...
    direction,
    mark,
    family,           // "ipv4" or "ipv6"
    destinationType,  // "local", "unicast"...
    rate,             // a limit that a usual packet does not exceed
    other,            // not known here
};

/// Numbers from the first to the last. A value.
struct Range {
    std::uint32_t first = 0;
    std::uint32_t last = 0;

    bool operator==(const Range&) const = default;
};

/// One condition of a rule: the subject has one of the values. A value.
/// Byte order: addresses and ports in host order.
struct Condition {
    Subject subject = Subject::other;
    bool isNegated = false;
    std::vector<std::string> names;  // of interfaces ("lan*" stands for all that begin so), states, flags...
    std::vector<Range> ranges;       // of addresses, ports, protocols, marks
    // For flags, when it is there: of these flags exactly `names` are set.
    std::optional<std::vector<std::string>> mask;
    bool isPartial = false;  // there are more values, which are not known

    bool operator==(const Condition&) const = default;
};

/// What becomes of a packet that meets all conditions of a rule.
enum class Verdict : std::uint8_t { none, accept, drop, jump, goTo, leave, offload, unknown };

/// One rule. A value.
struct Rule {
    std::vector<Condition> conditions;
    Verdict verdict = Verdict::none;
    std::string target;  // of jump and goTo: a chain; of offload: a flowtable
    std::string text;    // as its tool shows it
    std::optional<std::uint64_t> packets;

    bool operator==(const Rule&) const = default;
};

/// One chain. A value.
struct Chain {
    bool isAtForward = false;  // packets to forward come here from the kernel
    int priority = 0;
    bool policyDrops = false;
    std::optional<std::uint64_t> policyPackets;
    std::vector<Rule> rules;

    bool operator==(const Chain&) const = default;
};

/// Who keeps a table, and so how it is changed.
enum class Keeper : std::uint8_t { nftables, iptablesNft, iptablesLegacy };

/// One table of the packet filter. A value.
struct Table {
    Keeper keeper = Keeper::nftables;
    std::string family;
    std::string name;
    std::map<std::string, Chain> chains;
    bool setsMarks = false;  // some rule gives packets or connections a mark

    bool operator==(const Table&) const = default;
};

}  // namespace doctor
