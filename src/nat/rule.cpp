#include "nat/rule.h"

#include <netinet/in.h>

#include <algorithm>
#include <iterator>

#include "links/prefix.h"
#include "tk/names.h"

namespace nat {

namespace {

namespace field = contract::rulefield;

constexpr std::uint32_t highestPort = 65535;
constexpr std::uint32_t firstObjectField = 0xFE0000;  // from here on, fields belong to the bus

constexpr std::uint32_t knownFields[] = {
    field::dstPortFirst, field::dstPortLast,     field::protocol,       field::chain,
    field::action,       field::dstAddressFirst, field::dstAddressLast, field::hasProtocol,
    field::hasDstPort,   field::hasDstAddress,   field::toAddressFirst, field::toAddressLast,
    field::toPortFirst,  field::toPortLast,      field::hasToAddress,   field::hasToPort,
};

/// The two ends of a range, which must be equal, and the flag that is true when they count.
struct Range {
    const char* name;
    tk::FieldType type;  // be32 for an address, u32 for a port
    std::uint32_t flag;
    std::uint32_t first;
    std::uint32_t last;
};

constexpr Range matched[] = {
    {"the destination address", tk::FieldType::be32, field::hasDstAddress, field::dstAddressFirst,
     field::dstAddressLast},
    {"the destination port", tk::FieldType::u32, field::hasDstPort, field::dstPortFirst, field::dstPortLast},
};
constexpr Range aimedAt[] = {
    {"the target address", tk::FieldType::be32, field::hasToAddress, field::toAddressFirst,
     field::toAddressLast},
    {"the target port", tk::FieldType::u32, field::hasToPort, field::toPortFirst, field::toPortLast},
};

/// Checks that the rule a request makes or changes fits one entry of the kernel's map.
class RequestCheck {
public:
    RequestCheck(const tk::message& request, bool isNew) : request(request), isNew(isNew) {}

    /// The first fault; success when there is none.
    [[nodiscard]] tk::Status result() const {
        tk::Status status = checkFields();
        if (status.isOk()) status = checkChain();
        if (status.isOk()) status = checkAction();
        for (const Range& range : matched)
            if (status.isOk()) status = check(range);
        if (status.isOk()) status = checkProtocol();
        for (const Range& range : aimedAt)
            if (status.isOk()) status = check(range);
        return status;
    }

private:
    static tk::Status fault(const std::string& what) { return tk::Status::failure(what, tk::error::invalid); }

    /// Ignoring an unknown condition would make the rule match more than was asked for.
    tk::Status checkFields() const {
        for (const tk::message::Field& given : request.fields())
            if (given.id < firstObjectField &&
                std::find(std::begin(knownFields), std::end(knownFields), given.id) == std::end(knownFields))
                return fault("field " + std::to_string(given.id) + " is not supported");
        return {};
    }

    tk::Status checkChain() const {
        if (!request.has(field::chain) && !isNew) return {};
        const std::string chain = request.get_string(field::chain);
        if (chain == contract::dstnatChain) return {};
        return fault("chain \"" + chain + "\" is not supported, only \"dstnat\"");
    }

    tk::Status checkAction() const {
        if (!request.has(field::action) && !isNew) return {};
        const std::uint32_t action = request.get_u32(field::action);
        if (action == contract::destinationNat) return {};
        return fault("action " + std::to_string(action) + " is not supported, only 22 (destination NAT)");
    }

    tk::Status checkProtocol() const {
        if (!request.get_bool(field::hasProtocol, true)) return fault("the protocol cannot be left open");
        if (!request.has(field::protocol) && !isNew) return {};
        const std::uint32_t value = request.get_u32(field::protocol);
        if (value == IPPROTO_TCP || value == IPPROTO_UDP) return {};
        return fault("protocol " + std::to_string(value) + " is not supported, only 6 (TCP) and 17 (UDP)");
    }

    /// A range counts unless its flag says otherwise. A rule needs all ranges to count.
    tk::Status check(const Range& range) const {
        if (!request.get_bool(range.flag, true))
            return fault(std::string(range.name) + " cannot be left open");
        if (!request.has(range.first) && !request.has(range.last) && !isNew) return {};
        if (!isType(range.first, range.type)) return fault(std::string(range.name) + " is missing");
        const std::uint32_t value = read(range.first, range.type, 0);
        if (request.has(range.last) && read(range.last, range.type, ~value) != value)
            return fault(std::string(range.name) + ": ranges are not supported");
        if (range.type == tk::FieldType::u32 && value > highestPort)
            return fault(std::string(range.name) + " " + std::to_string(value) + " is above 65535");
        return {};
    }

    std::uint32_t read(std::uint32_t id, tk::FieldType type, std::uint32_t absent) const {
        return type == tk::FieldType::be32 ? request.get_be32(id, absent) : request.get_u32(id, absent);
    }

    bool isType(std::uint32_t id, tk::FieldType type) const {
        for (const tk::message::Field& given : request.fields())
            if (given.id == id) return given.type() == type;
        return false;
    }

    const tk::message& request;
    const bool isNew;
};

}  // namespace

tk::Result<Rule> newRule(const tk::message& request) {
    if (tk::Status status = RequestCheck(request, true).result(); !status.isOk()) return status;
    Rule rule = Rule::fromMessage(request);
    rule.id = 0;
    return rule;
}

tk::Result<Rule> changedRule(const Rule& former, const tk::message& request) {
    if (tk::Status status = RequestCheck(request, false).result(); !status.isOk()) return status;
    return former.changedBy(request);
}

std::string textOf(const NatKey& key) {
    return (key.protocol == IPPROTO_TCP ? "tcp " : "udp ") + links::addressText(key.destination) + ":" +
           std::to_string(key.port);
}

}  // namespace nat
