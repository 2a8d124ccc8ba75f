#include "nat/rule.h"

#include <netinet/in.h>

#include <algorithm>
#include <iterator>

#include "contract/natrules.h"
#include "tk/names.h"

namespace router {

namespace {

namespace field = contract::rulefield;

constexpr std::uint32_t highestPort = 65535;
constexpr std::uint32_t firstObjectField = 0xFE0000;  // from here on fields are the bus's own

constexpr std::uint32_t knownFields[] = {
    field::dstPortFirst, field::dstPortLast,     field::protocol,       field::chain,
    field::action,       field::dstAddressFirst, field::dstAddressLast, field::hasProtocol,
    field::hasDstPort,   field::hasDstAddress,   field::toAddressFirst, field::toAddressLast,
    field::toPortFirst,  field::toPortLast,      field::hasToAddress,   field::hasToPort,
};

/// Reads the fields of one request; the first fault stays in `reason`.
class RuleReader {
public:
    RuleReader(const tk::message& request, bool isNew, std::string& reason)
        : request(request), isNew(isNew), reason(reason) {}

    [[nodiscard]] bool read(NatRule& rule) {
        NatElement& element = rule.element;
        return checkFields() && checkChain() && checkAction() &&
               flag(field::hasDstAddress, "the destination address") &&
               address(field::dstAddressFirst, field::dstAddressLast, "the destination address",
                       element.destination) &&
               flag(field::hasDstPort, "the destination port") &&
               port(field::dstPortFirst, field::dstPortLast, "the destination port", element.port) &&
               flag(field::hasProtocol, "the protocol") && readProtocol(element.protocol) &&
               flag(field::hasToAddress, "the target address") &&
               address(field::toAddressFirst, field::toAddressLast, "the target address", element.target) &&
               flag(field::hasToPort, "the target port") &&
               port(field::toPortFirst, field::toPortLast, "the target port", element.targetPort) &&
               readDisabled(rule.disabled);
    }

private:
    [[nodiscard]] bool fail(const std::string& what) {
        reason = what;
        return false;
    }

    /// A condition that is not understood would make the rule match more than was asked for.
    [[nodiscard]] bool checkFields() {
        for (const tk::message::Field& given : request.fields())
            if (given.id < firstObjectField &&
                std::find(std::begin(knownFields), std::end(knownFields), given.id) == std::end(knownFields))
                return fail("field " + std::to_string(given.id) + " is not supported");
        return true;
    }

    [[nodiscard]] bool checkChain() {
        if (!request.has(field::chain) && !isNew) return true;
        const std::string chain = request.get_string(field::chain);
        return chain == contract::dstnatChain ||
               fail("chain \"" + chain + "\" is not supported, only \"dstnat\"");
    }

    [[nodiscard]] bool checkAction() {
        if (!request.has(field::action) && !isNew) return true;
        const std::uint32_t action = request.get_u32(field::action);
        return action == contract::destinationNat ||
               fail("action " + std::to_string(action) + " is not supported, only 22 (destination NAT)");
    }

    /// A pair of fields counts unless its flag says that it does not; a rule needs them all.
    [[nodiscard]] bool flag(std::uint32_t id, const std::string& what) {
        return request.get_bool(id, true) || fail(what + " cannot be left open");
    }

    [[nodiscard]] bool address(std::uint32_t first, std::uint32_t last, const std::string& what,
                               std::uint32_t& out) {
        if (!request.has(first) && !request.has(last) && !isNew) return true;
        if (!isType(first, tk::FieldType::be32)) return fail(what + " is missing");
        const std::uint32_t value = request.get_be32(first);
        if (request.has(last) && request.get_be32(last, ~value) != value)
            return fail(what + ": ranges are not supported");
        out = value;
        return true;
    }

    [[nodiscard]] bool port(std::uint32_t first, std::uint32_t last, const std::string& what,
                            std::uint16_t& out) {
        if (!request.has(first) && !request.has(last) && !isNew) return true;
        if (!isType(first, tk::FieldType::u32)) return fail(what + " is missing");
        const std::uint32_t value = request.get_u32(first);
        if (request.has(last) && request.get_u32(last, ~value) != value)
            return fail(what + ": ranges are not supported");
        if (value > highestPort) return fail(what + " " + std::to_string(value) + " is above 65535");
        out = static_cast<std::uint16_t>(value);
        return true;
    }

    [[nodiscard]] bool readProtocol(std::uint8_t& out) {
        if (!request.has(field::protocol) && !isNew) return true;
        const std::uint32_t value = request.get_u32(field::protocol);
        if (value != IPPROTO_TCP && value != IPPROTO_UDP)
            return fail("protocol " + std::to_string(value) + " is not supported, only 6 (TCP) and 17 (UDP)");
        out = static_cast<std::uint8_t>(value);
        return true;
    }

    [[nodiscard]] bool readDisabled(bool& out) {
        out = request.get_bool(tk::field::disabled, out);
        return true;
    }

    bool isType(std::uint32_t id, tk::FieldType type) const {
        for (const tk::message::Field& given : request.fields())
            if (given.id == id) return given.type() == type;
        return false;
    }

    const tk::message& request;
    bool isNew;
    std::string& reason;
};

}  // namespace

bool readRule(const tk::message& request, bool isNew, NatRule& rule, std::string& reason) {
    NatRule changed = rule;
    if (!RuleReader(request, isNew, reason).read(changed)) return false;
    rule = changed;
    return true;
}

tk::message recordOf(const NatRule& rule) {
    const NatElement& element = rule.element;
    tk::message record;
    record.insert_u32(tk::field::objectId, rule.id);
    record.insert_bool(tk::field::dynamic, rule.dynamic);
    record.insert_bool(tk::field::disabled, rule.disabled);
    record.insert_string(field::chain, contract::dstnatChain);
    record.insert_bool(field::hasDstAddress, true);
    record.insert_be32(field::dstAddressFirst, element.destination);
    record.insert_be32(field::dstAddressLast, element.destination);
    record.insert_bool(field::hasDstPort, true);
    record.insert_u32(field::dstPortFirst, element.port);
    record.insert_u32(field::dstPortLast, element.port);
    record.insert_bool(field::hasProtocol, true);
    record.insert_u32(field::protocol, element.protocol);
    record.insert_u32(field::action, contract::destinationNat);
    record.insert_bool(field::hasToAddress, true);
    record.insert_be32(field::toAddressFirst, element.target);
    record.insert_be32(field::toAddressLast, element.target);
    record.insert_bool(field::hasToPort, true);
    record.insert_u32(field::toPortFirst, element.targetPort);
    record.insert_u32(field::toPortLast, element.targetPort);
    return record;
}

}  // namespace router
