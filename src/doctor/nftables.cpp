#include "doctor/nftables.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <sstream>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "machine/network.h"

namespace doctor {

namespace {

using Json = nlohmann::json;

constexpr std::uint32_t allOnes = 0xFFFFFFFF;
constexpr unsigned addressBits = 32;

const std::map<std::string, std::uint32_t> protocols{
    {"icmp", IPPROTO_ICMP},     {"igmp", IPPROTO_IGMP},       {"tcp", IPPROTO_TCP},
    {"udp", IPPROTO_UDP},       {"gre", IPPROTO_GRE},         {"esp", IPPROTO_ESP},
    {"ah", IPPROTO_AH},         {"sctp", IPPROTO_SCTP},       {"ipv6-icmp", IPPROTO_ICMPV6},
    {"icmpv6", IPPROTO_ICMPV6}, {"udplite", IPPROTO_UDPLITE}, {"dccp", IPPROTO_DCCP}};

Condition onProtocols(std::vector<Range> ranges) {
    Condition condition;
    condition.subject = Subject::protocol;
    condition.ranges = std::move(ranges);
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
    if (protocol == "tcp" || protocol == "udp") {
        const std::uint32_t number = protocols.at(protocol);
        return {portSubject(field), {onProtocols({{number, number}})}};
    }
    const auto other = protocols.find(protocol);
    if (other == protocols.end()) return {};
    return {Subject::other, {onProtocols({{other->second, other->second}})}};
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
    if (const auto known = protocols.find(value); known != protocols.end()) return known->second;
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

/// Reads one table. Its conditions may look at sets of the same table.
class Reader {
public:
    Reader(const RuleTexts& texts, bool setsAreKnown) : texts(texts), setsAreKnown(setsAreKnown) {}

    Table read(const Json& root) {
        const Json& objects = root.at("nftables");
        for (const Json& object : objects) readDeclaration(object);
        for (const Json& object : objects)
            if (object.contains("rule")) readRule(object["rule"]);
        return std::move(table);
    }

private:
    void readDeclaration(const Json& object) {
        if (object.contains("table")) {
            table.family = object["table"].at("family");
            table.name = object["table"].at("name");
        } else if (object.contains("chain")) {
            readChain(object["chain"]);
        } else if (object.contains("set")) {
            sets[object["set"].at("name")] = object["set"].value("elem", Json());
        } else if (object.contains("map")) {
            sets[object["map"].at("name")] = object["map"].value("elem", Json());
        } else if (object.contains("counter")) {
            counters[object["counter"].at("name")] = object["counter"].value("packets", std::uint64_t{0});
        }
    }

    void readChain(const Json& source) {
        Chain& chain = table.chains[source.at("name")];
        chain.isAtForward = source.value("hook", "") == "forward";
        chain.priority = source.value("prio", 0);
        chain.policyDrops = source.value("policy", "") == "drop";
    }

    void readRule(const Json& source) {
        Rule rule;
        const auto text = texts.find(source.value("handle", std::uint64_t{0}));
        rule.text = text == texts.end() ? source.at("expr").dump() : text->second;
        chainName = source.at("chain");
        for (const Json& statement : source.at("expr"))
            if (!readStatement(statement, rule)) break;
        if (rule.verdict != Verdict::none) keep(rule);
    }

    void keep(const Rule& rule) { table.chains[chainName].rules.push_back(rule); }

    /// False when nothing that follows can matter.
    bool readStatement(const Json& statement, Rule& rule) {
        if (statement.is_string()) return readWord(statement, rule);
        const std::string kind = statement.begin().key();
        const Json& content = statement.begin().value();
        if (kind == "match")
            addMatch(content, rule);
        else if (kind == "vmap")
            addBranches(content, rule);
        else if (kind == "counter")
            addCounter(content, rule);
        else if (kind == "limit" || kind == "ct count")
            addLimit(content, rule);
        else if (kind == "mangle")
            noteMark(content);
        else if (kind == "xt")
            rule.conditions.emplace_back();
        else if (kind == "set")
            addUpdate(content, rule);
        else if (kind == "flow")
            addOffload(content, rule);
        else
            return readVerdict(kind, content, rule);
        return true;
    }

    static bool readWord(const std::string& word, Rule& rule) {
        return readVerdict(word, Json::object(), rule);
    }

    static bool readVerdict(const std::string& kind, const Json& content, Rule& rule) {
        static const std::map<std::string, Verdict> known{
            {"accept", Verdict::accept}, {"drop", Verdict::drop},       {"reject", Verdict::drop},
            {"jump", Verdict::jump},     {"goto", Verdict::goTo},       {"return", Verdict::leave},
            {"queue", Verdict::unknown}, {"synproxy", Verdict::unknown}};
        const auto found = known.find(kind);
        if (found == known.end()) return true;
        rule.verdict = found->second;
        if (content.is_object()) rule.target = content.value("target", "");
        return false;
    }

    void addMatch(const Json& match, Rule& rule) const {
        const Operand operand = operandOf(match.at("left"));
        rule.conditions.insert(rule.conditions.end(), operand.implied.begin(), operand.implied.end());
        rule.conditions.push_back(conditionOf(operand, match.value("op", "=="), match.at("right")));
    }

    Condition conditionOf(const Operand& operand, const std::string& op, const Json& right) const {
        Condition condition;
        condition.subject = operand.subject;
        condition.isNegated = op == "!=";
        if (op != "==" && op != "!=" && op != "in") condition.subject = Subject::other;
        if (operand.mask) return maskedCondition(condition, *operand.mask, right);
        // The status has more flags than a rule names, so a comparison of the whole is hardly what it looks.
        const bool isWhole = op != "in" && !right.is_array();
        if (operand.subject == Subject::status && isWhole) condition.subject = Subject::other;
        if (operand.subject == Subject::tcpFlags && isWhole) condition.subject = Subject::other;
        addValues(right, condition);
        return condition;
    }

    Condition maskedCondition(Condition condition, const Json& mask, const Json& right) const {
        if (!isFlags(condition.subject)) {
            // 0 under any mask is 0.
            if (condition.subject != Subject::mark) condition.subject = Subject::other;
            addValues(right, condition);
            return condition;
        }
        Condition flags;
        flags.subject = condition.subject;
        addValues(mask, flags);
        condition.mask = flags.names;
        condition.isPartial = flags.isPartial;
        if (right != Json(0)) addValues(right, condition);
        return condition;
    }

    void addValues(const Json& right, Condition& condition) const {
        if (right.is_object() && right.contains("set"))
            addEach(right["set"], condition);
        else if (right.is_object() && right.contains("|"))
            addEach(right["|"], condition);
        else if (right.is_array())
            addEach(right, condition);
        else if (right.is_string() && right.get<std::string>().starts_with('@'))
            addSet(right.get<std::string>().substr(1), condition);
        else
            addValue(right, condition);
    }

    void addEach(const Json& values, Condition& condition) const {
        if (!values.is_array()) return addValue(values, condition);
        for (const Json& value : values) addValue(value, condition);
    }

    void addSet(const std::string& name, Condition& condition) const {
        const auto found = sets.find(name);
        if (found == sets.end() || !setsAreKnown)
            condition.isPartial = true;
        else if (!found->second.is_null())
            addEach(found->second, condition);
    }

    static void addValue(const Json& value, Condition& condition) {
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

    /// One name for what the tool calls differently from place to place.
    static std::string usualName(const std::string& name) {
        if (name == "ip") return "ipv4";
        return name == "host" ? "unicast" : name;
    }

    /// Each entry of a verdict map becomes a rule. They exclude each other, so their order is all the same.
    void addBranches(const Json& vmap, const Rule& start) {
        const Operand operand = operandOf(vmap.at("key"));
        const Json* entries = entriesOf(vmap.at("data"));
        if (!entries) return addDoubt(start);
        for (const Json& entry : *entries) {
            Rule rule = start;
            rule.conditions.insert(rule.conditions.end(), operand.implied.begin(), operand.implied.end());
            rule.conditions.push_back(
                conditionOf(operand, isFlags(operand.subject) ? "in" : "==", entry.at(0)));
            const Json& verdict = entry.at(1);
            if (verdict.is_string())
                readWord(verdict, rule);
            else
                readVerdict(verdict.begin().key(), verdict.begin().value(), rule);
            if (rule.verdict != Verdict::none) keep(rule);
        }
    }

    /// The entries of a map; null when they are not known.
    const Json* entriesOf(const Json& data) const {
        if (data.is_object() && data.contains("set")) return &data["set"];
        if (!data.is_string() || !setsAreKnown) return nullptr;
        const auto found = sets.find(data.get<std::string>().substr(1));
        if (found == sets.end()) return nullptr;
        static const Json nothing = Json::array();
        return found->second.is_null() ? &nothing : &found->second;
    }

    void addDoubt(Rule rule) {
        rule.verdict = Verdict::unknown;
        rule.conditions.emplace_back();
        keep(rule);
    }

    void addCounter(const Json& counter, Rule& rule) const {
        if (counter.is_object()) rule.packets = counter.value("packets", std::uint64_t{0});
        if (!counter.is_string()) return;
        const auto named = counters.find(counter);
        if (named != counters.end()) rule.packets = named->second;
    }

    /// A usual packet is within every limit.
    static void addLimit(const Json& limit, Rule& rule) {
        Condition condition;
        condition.subject = Subject::rate;
        condition.isNegated = limit.is_object() && limit.value("inv", false);
        rule.conditions.push_back(condition);
    }

    /// An update of a set may carry a limit for each element.
    static void addUpdate(const Json& update, Rule& rule) {
        const Json statements = update.value("stmt", Json::array());
        for (const Json& statement : statements)
            for (const auto& [kind, content] : statement.items())
                if (kind == "limit" || kind == "ct count") addLimit(content, rule);
    }

    void noteMark(const Json& mangle) {
        const Json& key = mangle.at("key");
        const bool isMark = (key.contains("meta") && key["meta"].value("key", "") == "mark") ||
                            (key.contains("ct") && key["ct"].value("key", "") == "mark");
        table.setsMarks = table.setsMarks || isMark;
    }

    void addOffload(const Json& flow, const Rule& start) {
        Rule rule = start;
        rule.verdict = Verdict::offload;
        rule.target = flow.value("flowtable", "");
        keep(rule);
    }

    const RuleTexts& texts;
    const bool setsAreKnown;
    Table table;
    std::string chainName;
    std::map<std::string, Json> sets;
    std::map<std::string, std::uint64_t> counters;
};

}  // namespace

RuleTexts readRuleTexts(const std::string& listing) {
    constexpr std::string_view mark = " # handle ";
    RuleTexts texts;
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t at = line.rfind(mark), start = line.find_first_not_of('\t');
        if (at == std::string::npos || start >= at || line[at - 1] == '{') continue;
        std::uint64_t handle = 0;
        std::from_chars(line.data() + at + mark.size(), line.data() + line.size(), handle);
        texts[handle] = line.substr(start, at - start);
    }
    return texts;
}

tk::Result<Table> readNftTable(const std::string& json, const RuleTexts& texts, bool setsAreKnown) {
    try {
        return Reader(texts, setsAreKnown).read(Json::parse(json));
    } catch (const Json::exception& error) {
        return tk::Status::failure(std::string("nft prints something unexpected: ") + error.what());
    }
}

}  // namespace doctor
