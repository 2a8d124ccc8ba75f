#pragma once

#include <optional>
#include <string>

#include "doctor/packet.h"
#include "doctor/ruleset.h"

namespace doctor {

/// Whether something holds for a packet.
enum class Answer : std::uint8_t { no, yes, unknown };

/// Whether a packet meets a condition.
/// `marksAreZero`: true when no rule anywhere sets a mark.
[[nodiscard]] Answer meets(const Packet& packet, const Condition& condition, bool marksAreZero);

/// Where a packet is dropped. A value.
struct DropSite {
    std::string chain;
    std::string rule;  // its text; empty: the chain's policy
    std::optional<std::uint64_t> packets;

    bool operator==(const DropSite&) const = default;
};

/// What a chain at forward does with a packet. A value.
struct Outcome {
    bool mayPass = false;
    std::optional<DropSite> drop;          // the first place where it may be dropped
    std::optional<std::string> flowtable;  // one that its connection may be handed to
    std::string doubt;                     // the first rule whose effect is not known, as text

    /// True when the packet cannot get through.
    bool isDropped() const { return drop && !mayPass; }
};

/// Leads a packet through the chain with this name.
[[nodiscard]] Outcome walk(const Table& table, const std::string& chain, const Packet& packet,
                           bool marksAreZero);

}  // namespace doctor
