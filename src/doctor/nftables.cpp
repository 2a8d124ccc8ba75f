#include "doctor/nftables.h"

#include <charconv>
#include <set>
#include <sstream>
#include <utility>

#include <nlohmann/json.hpp>

#include "doctor/conditionreader.h"

namespace doctor {

namespace {

using Json = nlohmann::json;

std::uint64_t bytesOf(const Json& quota, const char* number, const char* unit) {
    const std::string name = quota.value(unit, "bytes");
    const unsigned shift = name == "mbytes" ? 20 : name == "kbytes" ? 10 : 0;
    return quota.value(number, std::uint64_t{0}) << shift;
}

/// True for a quota that packets meet now. One "over" some bytes is met once they are used up, another one
/// until then.
bool isMetNow(const Json& quota) {
    const std::uint64_t most =
        quota.contains("val") ? bytesOf(quota, "val", "val_unit") : quota.value("bytes", std::uint64_t{0});
    return quota.value("inv", false) == (bytesOf(quota, "used", "used_unit") > most);
}

/// What a usual packet within every rate meets, or does not meet.
Condition onRate(bool isMet) {
    Condition condition;
    condition.subject = Subject::rate;
    condition.isNegated = !isMet;
    return condition;
}

/// Reads one table. Its conditions may look at sets of the same table.
class Reader {
public:
    Reader(const RuleTexts& texts, bool setsAreKnown) : texts(texts), conditions(setsAreKnown) {}

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
            conditions.noteSet(object["set"]);
        } else if (object.contains("map")) {
            conditions.noteSet(object["map"]);
        } else if (object.contains("counter")) {
            counters[object["counter"].at("name")] = object["counter"].value("packets", std::uint64_t{0});
        } else if (object.contains("limit")) {
            limits[object["limit"].at("name")] = !object["limit"].value("inv", false);
        } else if (object.contains("quota")) {
            quotas[object["quota"].at("name")] = isMetNow(object["quota"]);
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
            conditions.addMatch(content.at("left"), content.value("op", "=="), content.at("right"),
                                rule.conditions);
        else if (kind == "vmap")
            addBranches(content, rule);
        else if (kind == "counter")
            addCounter(content, rule);
        else if (kind == "limit" || kind == "ct count" || kind == "quota")
            addLimit(kind, content, rule);
        else if (kind == "mangle")
            noteMark(content);
        else if (kind == "set" || kind == "meter")
            addUpdate(content, rule);
        else if (kind == "flow")
            addOffload(content, rule);
        else
            return readVerdict(kind, content, rule);
        return true;
    }

    /// True for a statement that lets every packet go on to the next one.
    static bool isHarmless(const std::string& kind) {
        static const std::set<std::string> known{"continue", "log",       "notrack",    "dup",
                                                 "map",      "ct helper", "ct timeout", "ct expectation",
                                                 "last",     "secmark"};
        return known.contains(kind);
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
        if (found == known.end()) {
            if (!isHarmless(kind)) rule.conditions.emplace_back();  // perhaps it stops some packets
            return true;
        }
        rule.verdict = found->second;
        if (content.is_object()) rule.target = content.value("target", "");
        return false;
    }

    /// Each entry of a verdict map becomes a rule. They exclude each other, so their order is all the same.
    void addBranches(const Json& vmap, const Rule& start) {
        const Json* entries = conditions.entriesOf(vmap.at("data"));
        if (!entries) return addDoubt(start);
        for (const Json& entry : *entries) {
            Rule rule = start;
            conditions.addKey(vmap.at("key"), entry.at(0), rule.conditions);
            const Json& verdict = entry.at(1);
            if (verdict.is_string())
                readWord(verdict, rule);
            else
                readVerdict(verdict.begin().key(), verdict.begin().value(), rule);
            if (rule.verdict != Verdict::none) keep(rule);
        }
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

    /// A limit is written in the rule, or named there, or looked up in a map, which is not followed.
    void addLimit(const std::string& kind, const Json& limit, Rule& rule) const {
        if (limit.is_string()) {
            const auto& declared = kind == "quota" ? quotas : limits;
            const auto named = declared.find(limit);
            rule.conditions.push_back(named == declared.end() ? Condition() : onRate(named->second));
        } else if (limit.contains("map")) {
            rule.conditions.emplace_back();
        } else {
            rule.conditions.push_back(onRate(kind == "quota" ? isMetNow(limit) : !limit.value("inv", false)));
        }
    }

    /// An update of a set or meter may carry limits for each element; how far one is used up is not known.
    void addUpdate(const Json& update, Rule& rule) const {
        const Json given = update.value("stmt", Json::array());
        for (const Json& statement : given.is_array() ? given : Json::array({given}))
            for (const auto& [kind, content] : statement.items()) {
                if (kind == "limit" || kind == "ct count")
                    addLimit(kind, content, rule);
                else if (kind != "counter" && !isHarmless(kind))
                    rule.conditions.emplace_back();
            }
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
    ConditionReader conditions;
    Table table;
    std::string chainName;
    std::map<std::string, std::uint64_t> counters;
    std::map<std::string, bool> limits;  // by name: true when a usual packet meets it
    std::map<std::string, bool> quotas;
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
