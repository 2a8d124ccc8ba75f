#include "doctor/conditionreader.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <optional>
#include <utility>

#include "machine/network.h"

namespace doctor {

namespace {

using Json = ConditionReader::Json;

constexpr std::uint32_t allOnes = 0xFFFFFFFF;
constexpr unsigned addressBits = 32;

std::optional<std::uint32_t> protocolNumber(const std::string& name) {
    static const std::map<std::string, std::uint32_t> known{
        {"icmp", IPPROTO_ICMP},     {"igmp", IPPROTO_IGMP},       {"tcp", IPPROTO_TCP},
        {"udp", IPPROTO_UDP},       {"gre", IPPROTO_GRE},         {"esp", IPPROTO_ESP},
        {"ah", IPPROTO_AH},         {"sctp", IPPROTO_SCTP},       {"ipv6-icmp", IPPROTO_ICMPV6},
        {"icmpv6", IPPROTO_ICMPV6}, {"udplite", IPPROTO_UDPLITE}, {"dccp", IPPROTO_DCCP}};
    const auto found = known.find(name);
    if (found == known.end()) return std::nullopt;
    return found->second;
}

Condition onProtocol(std::uint32_t number) {
    Condition condition;
    condition.subject = Subject::protocol;
    condition.ranges = {{number, number}};
    return condition;
}

/// What an expression on the left of a match looks at.
struct Operand {
    Subject subject = Subject::other;
    std::vector<Condition> implied;  // that hold whenever the match is made
    const Json* mask = nullptr;
};

Subject metaSubject(const std::string& key) {
    static const std::map<std::string, Subject> known{
        {"iifname", Subject::inInterface},    {"iif", Subject::inInterface},
        {"oifname", Subject::outInterface},   {"oif", Subject::outInterface},
        {"l4proto", Subject::protocol},       {"mark", Subject::mark},
        {"nfproto", Subject::family},         {"protocol", Subject::family},
        {"pkttype", Subject::destinationType}};
    const auto found = known.find(key);
    return found == known.end() ? Subject::other : found->second;
}

Subject ctSubject(const Json& ct) {
    static const std::map<std::string, Subject> known{{"state", Subject::state},
                                                      {"status", Subject::status},
                                                      {"direction", Subject::direction},
                                                      {"mark", Subject::mark}};
    const std::string key = ct.value("key", "");
    if (ct.value("dir", "") == "original") {
        if (key == "proto-dst") return Subject::originalPort;
        if (key == "daddr" || key == "ip daddr") return Subject::originalDestination;
        return Subject::other;
    }
    const auto found = known.find(key);
    return found == known.end() ? Subject::other : found->second;
}

Subject portSubject(const std::string& field) {
    if (field == "dport") return Subject::destinationPort;
    if (field == "sport") return Subject::sourcePort;
    return field == "flags" ? Subject::tcpFlags : Subject::other;
}

Subject addressSubject(const std::string& field) {
    if (field == "saddr") return Subject::source;
    if (field == "daddr") return Subject::destination;
    return field == "protocol" ? Subject::protocol : Subject::other;
}

Condition onFamily(const char* family) {
    Condition condition;
    condition.subject = Subject::family;
    condition.names = {family};
    return condition;
}

Operand payloadOperand(const Json& payload) {
    const std::string protocol = payload.value("protocol", ""), field = payload.value("field", "");
    if (protocol == "ip") return {addressSubject(field), {onFamily("ipv4")}};
    if (protocol == "ip6") return {Subject::other, {onFamily("ipv6")}};
    if (protocol == "th") return {portSubject(field), {}};
    const auto number = protocolNumber(protocol);
    if (!number) return {};
    const bool hasPorts = protocol == "tcp" || protocol == "udp";
    return {hasPorts ? portSubject(field) : Subject::other, {onProtocol(*number)}};
}

Operand operandOf(const Json& left) {
    if (!left.is_object() || left.empty()) return {};
    const std::string kind = left.begin().key();
    const Json& content = left.begin().value();
    if (kind == "meta") return {metaSubject(content.value("key", "")), {}};
    if (kind == "ct") return {ctSubject(content), {}};
    if (kind == "payload") return payloadOperand(content);
    if (kind == "fib" && content.value("result", "") == "type" &&
        content.value("flags", Json::array()) == Json::array({"daddr"}))
        return {Subject::destinationType, {}};
    if (kind != "&" || !content.is_array() || content.size() != 2) return {};
    Operand masked = operandOf(content[0]);
    masked.mask = &content[1];
    return masked;
}

std::optional<std::uint32_t> numberOf(const Json& value) {
    if (value.is_number_unsigned() && value.get<std::uint64_t>() <= allOnes)
        return value.get<std::uint32_t>();
    if (!value.is_string()) return std::nullopt;
    if (const auto protocol = protocolNumber(value)) return protocol;
    if (const auto address = machine::parseIPv4(value)) return ntohl(*address);
    return std::nullopt;
}

std::optional<Range> rangeOf(const Json& value) {
    if (value.is_object() && value.contains("prefix")) {
        const auto first = numberOf(value["prefix"].at("addr"));
        const unsigned length = value["prefix"].at("len");
        if (!first || length > addressBits) return std::nullopt;
        return Range{*first, *first | (length == addressBits ? 0 : allOnes >> length)};
    }
    if (value.is_object() && value.contains("range")) {
        const auto first = numberOf(value["range"].at(0)), last = numberOf(value["range"].at(1));
        if (!first || !last) return std::nullopt;
        return Range{*first, *last};
    }
    const auto number = numberOf(value);
    if (!number) return std::nullopt;
    return Range{*number, *number};
}

bool wantsNames(Subject subject) {
    switch (subject) {
        case Subject::inInterface:
        case Subject::outInterface:
        case Subject::state:
        case Subject::status:
        case Subject::tcpFlags:
        case Subject::direction:
        case Subject::family:
        case Subject::destinationType:
            return true;
        default:
            return false;
    }
}

bool isFlags(Subject subject) {
    return subject == Subject::state || subject == Subject::status || subject == Subject::tcpFlags;
}

/// One name for what the tool calls differently from place to place.
std::string usualName(const std::string& name) {
    if (name == "ip") return "ipv4";
    return name == "host" ? "unicast" : name;
}

void addValue(const Json& value, Condition& condition) {
    if (value.is_object() && value.contains("elem")) return addValue(value["elem"].at("val"), condition);
    if (wantsNames(condition.subject)) {
        if (value.is_string())
            condition.names.push_back(usualName(value));
        else
            condition.isPartial = true;
    } else if (const auto range = rangeOf(value)) {
        condition.ranges.push_back(*range);
    } else {
        condition.isPartial = true;
    }
}

void addEach(const Json& values, Condition& condition) {
    if (!values.is_array()) return addValue(values, condition);
    for (const Json& value : values) addValue(value, condition);
}

}  // namespace

void ConditionReader::noteSet(const Json& declaration) {
    sets[declaration.at("name")] = declaration.value("elem", Json());
}

void ConditionReader::addMatch(const Json& left, const std::string& op, const Json& right,
                               std::vector<Condition>& conditions) const {
    const Operand operand = operandOf(left);
    conditions.insert(conditions.end(), operand.implied.begin(), operand.implied.end());
    Condition condition;
    if (op == "==" || op == "!=" || op == "in") condition.subject = operand.subject;
    condition.isNegated = op == "!=";
    if (operand.mask) {
        addMasked(*operand.mask, right, condition);
    } else {
        // There are more flags than a rule names, so a comparison of the whole is hardly what it looks.
        const bool isWhole = op != "in" && !right.is_array();
        if (isWhole && (operand.subject == Subject::status || operand.subject == Subject::tcpFlags))
            condition.subject = Subject::other;
        addValues(right, condition);
    }
    conditions.push_back(condition);
}

void ConditionReader::addKey(const Json& operand, const Json& key, std::vector<Condition>& conditions) const {
    addMatch(operand, isFlags(operandOf(operand).subject) ? "in" : "==", key, conditions);
}

const ConditionReader::Json* ConditionReader::entriesOf(const Json& data) const {
    if (data.is_object() && data.contains("set")) return &data["set"];
    if (!data.is_string() || !setsAreKnown) return nullptr;
    const auto found = sets.find(data.get<std::string>().substr(1));
    if (found == sets.end()) return nullptr;
    static const Json nothing = Json::array();
    return found->second.is_null() ? &nothing : &found->second;
}

void ConditionReader::addMasked(const Json& mask, const Json& right, Condition& condition) const {
    if (!isFlags(condition.subject)) {
        // 0 under any mask is 0.
        if (condition.subject != Subject::mark) condition.subject = Subject::other;
        return addValues(right, condition);
    }
    Condition flags;
    flags.subject = condition.subject;
    addValues(mask, flags);
    condition.mask = flags.names;
    condition.isPartial = flags.isPartial;
    if (right != Json(0)) addValues(right, condition);
}

void ConditionReader::addValues(const Json& right, Condition& condition) const {
    if (right.is_object() && right.contains("set"))
        addEach(right["set"], condition);
    else if (right.is_object() && right.contains("|"))
        addEach(right["|"], condition);
    else if (right.is_array())
        addEach(right, condition);
    else if (right.is_string() && right.get<std::string>().starts_with('@'))
        addElements(right.get<std::string>().substr(1), condition);
    else
        addValue(right, condition);
}

void ConditionReader::addElements(const std::string& name, Condition& condition) const {
    const auto found = sets.find(name);
    if (found == sets.end() || !setsAreKnown)
        condition.isPartial = true;
    else if (!found->second.is_null())
        addEach(found->second, condition);
}

}  // namespace doctor
