#include "doctor/iptables.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include "machine/network.h"

namespace doctor {

namespace {

using Words = std::vector<std::string>;

/// Splits a line at blanks, outside of quotes.
Words wordsOf(const std::string& line) {
    Words words;
    std::string word;
    bool isQuoted = false, isWord = false;
    for (std::size_t at = 0; at < line.size(); ++at) {
        const char one = line[at];
        if (one == '"') {
            isQuoted = !isQuoted;
            isWord = true;
        } else if (one == '\\' && isQuoted && at + 1 < line.size()) {
            word += line[++at];
        } else if (one == ' ' && !isQuoted) {
            if (isWord) words.push_back(std::exchange(word, {}));
            isWord = false;
        } else {
            word += one;
            isWord = true;
        }
    }
    if (isWord) words.push_back(word);
    return words;
}

Words split(const std::string& text, char separator) {
    Words parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
    return parts;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char one) { return static_cast<char>(std::tolower(one)); });
    return text;
}

std::optional<std::uint32_t> number(std::string_view text) {
    const bool isHexadecimal = text.starts_with("0x");
    if (isHexadecimal) text.remove_prefix(2);
    std::uint32_t value = 0;
    const auto end = std::from_chars(text.data(), text.data() + text.size(), value, isHexadecimal ? 16 : 10);
    if (end.ec != std::errc() || end.ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

/// "[12:720]": the packets.
std::optional<std::uint64_t> packetsIn(const std::string& word) {
    std::uint64_t packets = 0;
    if (!word.starts_with('[')) return std::nullopt;
    std::from_chars(word.data() + 1, word.data() + word.size(), packets);
    return packets;
}

std::optional<Range> networkRange(const std::string& text) {
    const auto network = machine::parseNetwork(text);
    if (!network) return std::nullopt;
    const std::uint32_t first = ntohl(network->address);
    const std::uint64_t size = std::uint64_t{1} << (32 - network->length);
    return Range{first, static_cast<std::uint32_t>(first + (size - 1))};
}

/// Two numbers with a separator between them; one number stands for both.
std::optional<Range> numberRange(const std::string& text, char separator) {
    const std::size_t at = text.find(separator);
    const auto first = number(text.substr(0, at));
    const auto last = at == std::string::npos ? first : number(text.substr(at + 1));
    if (!first || !last) return std::nullopt;
    return Range{*first, *last};
}

std::optional<Range> portRange(const std::string& text) {
    return numberRange(text, ':');
}

std::optional<Range> addressRange(const std::string& text) {
    const std::size_t at = text.find('-');
    const auto first = machine::parseIPv4(text.substr(0, at));
    const auto last = at == std::string::npos ? first : machine::parseIPv4(text.substr(at + 1));
    if (!first || !last) return std::nullopt;
    return Range{ntohl(*first), ntohl(*last)};
}

std::optional<Range> protocolRange(const std::string& text) {
    if (text == "tcp") return Range{IPPROTO_TCP, IPPROTO_TCP};
    if (text == "udp") return Range{IPPROTO_UDP, IPPROTO_UDP};
    if (const auto value = number(text)) return Range{*value, *value};
    return Range{IPPROTO_RAW, IPPROTO_RAW};  // some other name
}

using ReadRange = std::optional<Range> (*)(const std::string& text);

Condition onRanges(Subject subject, const std::string& list, ReadRange read) {
    Condition condition;
    condition.subject = subject;
    for (const std::string& part : split(list, ',')) {
        const auto range = read(part);
        if (range)
            condition.ranges.push_back(*range);
        else
            condition.isPartial = true;
    }
    return condition;
}

Condition onNames(Subject subject, Words names) {
    Condition condition;
    condition.subject = subject;
    condition.names = std::move(names);
    return condition;
}

/// "wan+" stands for all that begin so.
Condition onInterface(Subject subject, std::string name) {
    if (name.ends_with('+')) name.back() = '*';
    return onNames(subject, {std::move(name)});
}

/// States of a connection; DNAT and SNAT are in truth flags of its status.
std::vector<Condition> onState(const std::string& list, bool isNegated) {
    Words states, statuses;
    for (const std::string& name : split(lower(list), ','))
        (name == "dnat" || name == "snat" ? statuses : states).push_back(name);
    Condition state = onNames(Subject::state, states), status = onNames(Subject::status, statuses);
    state.isNegated = status.isNegated = isNegated;
    if (statuses.empty()) return {state};
    if (states.empty()) return {status};
    if (isNegated) return {state, status};
    // Either will do: a mapped connection bears DNAT.
    return {std::find(statuses.begin(), statuses.end(), "dnat") == statuses.end() ? state : status};
}

Condition onMark(const std::string& text) {
    return onRanges(Subject::mark, text.substr(0, text.find('/')),
                    [](const std::string& one) { return numberRange(one, '-'); });
}

Condition onTcpFlags(const std::string& mask, const std::string& set) {
    Condition condition = onNames(Subject::tcpFlags, split(lower(set), ','));
    condition.mask = split(lower(mask), ',');
    return condition;
}

Condition onRate(bool isAbove) {
    Condition condition;
    condition.subject = Subject::rate;
    condition.isNegated = isAbove;
    return condition;
}

bool isOneOf(const std::string& word, std::initializer_list<std::string_view> words) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

/// Reads the words of one rule.
class RuleReader {
public:
    explicit RuleReader(Words words) : words(std::move(words)) {}

    /// True when the rule sets marks.
    bool read(Rule& rule) {
        while (at < words.size()) {
            const bool isNegated = words[at] == "!";
            if (isNegated) ++at;
            const std::string option = take();
            if (option == "-j" || option == "-g") return readTarget(option, rule);
            const std::size_t before = rule.conditions.size();
            readOption(option, isNegated, rule.conditions);
            if (isNegated)
                for (std::size_t one = before; one < rule.conditions.size(); ++one)
                    rule.conditions[one].isNegated = !rule.conditions[one].isNegated || isState(option);
        }
        return false;
    }

private:
    static bool isState(const std::string& option) { return isOneOf(option, {"--ctstate", "--state"}); }

    std::string take() { return at < words.size() ? words[at++] : std::string(); }

    void readOption(const std::string& option, bool isNegated, std::vector<Condition>& out) {
        if (isOneOf(option, {"-m", "--comment", "--limit-burst", "--hashlimit-burst", "--hashlimit-mode",
                             "--hashlimit-name", "--hashlimit-htable-expire", "--hashlimit-htable-size",
                             "--hashlimit-htable-max", "--hashlimit-htable-gcinterval", "--hashlimit-srcmask",
                             "--connlimit-mask"})) {
            (void)take();  // says nothing of the packet
        } else if (isOneOf(option, {"--connlimit-saddr", "--connlimit-daddr"})) {
            return;
        } else if (isState(option)) {
            const auto conditions = onState(take(), isNegated);
            out.insert(out.end(), conditions.begin(), conditions.end());
        } else if (option == "--tcp-flags") {
            const std::string mask = take();
            out.push_back(onTcpFlags(mask, take()));
        } else {
            out.push_back(conditionOf(option));
        }
    }

    Condition conditionOf(const std::string& option) {
        if (option == "-i") return onInterface(Subject::inInterface, take());
        if (option == "-o") return onInterface(Subject::outInterface, take());
        if (option == "-s") return onRanges(Subject::source, take(), networkRange);
        if (option == "-d") return onRanges(Subject::destination, take(), networkRange);
        if (option == "-p") return onRanges(Subject::protocol, take(), protocolRange);
        if (option == "--src-range") return onRanges(Subject::source, take(), addressRange);
        if (option == "--dst-range") return onRanges(Subject::destination, take(), addressRange);
        if (isOneOf(option, {"--dport", "--dports"}))
            return onRanges(Subject::destinationPort, take(), portRange);
        if (isOneOf(option, {"--sport", "--sports"})) return onRanges(Subject::sourcePort, take(), portRange);
        if (option == "--ctorigdstport") return onRanges(Subject::originalPort, take(), portRange);
        if (option == "--ctorigdst") return onRanges(Subject::originalDestination, take(), networkRange);
        if (option == "--ctstatus") return onNames(Subject::status, ctStatus(take()));
        if (option == "--ctdir") return onNames(Subject::direction, {lower(take())});
        if (option == "--mark") return onMark(take());
        if (isOneOf(option, {"--dst-type", "--pkt-type"}))
            return onNames(Subject::destinationType, split(lower(take()), ','));
        const bool isAbove = isOneOf(option, {"--hashlimit-above", "--connlimit-above"});
        skipValues();
        if (isAbove || isOneOf(option, {"--limit", "--hashlimit-upto", "--connlimit-upto"}))
            return onRate(isAbove);
        return {};
    }

    static Words ctStatus(const std::string& list) {
        Words names = split(lower(list), ',');
        std::replace(names.begin(), names.end(), std::string("seen_reply"), std::string("seen-reply"));
        return names;
    }

    /// An option that is not known here takes the words up to the next option.
    void skipValues() {
        while (at < words.size() && !words[at].starts_with('-') && words[at] != "!") ++at;
    }

    bool readTarget(const std::string& option, Rule& rule) {
        rule.target = take();
        rule.verdict = verdictOf(rule.target);
        if (rule.verdict == Verdict::jump && option == "-g") rule.verdict = Verdict::goTo;
        return isOneOf(rule.target, {"MARK", "CONNMARK"});
    }

    static Verdict verdictOf(const std::string& target) {
        if (target == "ACCEPT") return Verdict::accept;
        if (isOneOf(target, {"DROP", "REJECT", "TARPIT"})) return Verdict::drop;
        if (target == "RETURN") return Verdict::leave;
        if (isOneOf(target, {"QUEUE", "NFQUEUE", "SYNPROXY"})) return Verdict::unknown;
        return Verdict::jump;  // or a target without a verdict, which the table tells apart
    }

    Words words;
    std::size_t at = 0;
};

/// Reads one table after the other.
class Reader {
public:
    explicit Reader(Keeper keeper) : keeper(keeper) {}

    void readLine(const std::string& line) {
        if (line.starts_with('*')) {
            tables.emplace_back();
            tables.back().keeper = keeper;
            tables.back().family = "ip";
            tables.back().name = line.substr(1);
        } else if (tables.empty()) {
            return;
        } else if (line.starts_with(':')) {
            readChain(wordsOf(line.substr(1)));
        } else if (line.starts_with('[') || line.starts_with("-A")) {
            readRule(line);
        }
    }

    std::vector<Table> finish() {
        for (Table& table : tables)
            for (auto& [name, chain] : table.chains) removeMere(table, chain);
        return std::move(tables);
    }

private:
    void readChain(const Words& words) {
        if (words.size() < 2) return;
        Chain& chain = tables.back().chains[words[0]];
        chain.isAtForward = words[0] == "FORWARD" && words[1] != "-";
        chain.policyDrops = words[1] == "DROP";
        if (words.size() > 2) chain.policyPackets = packetsIn(words[2]);
    }

    void readRule(const std::string& line) {
        Words words = wordsOf(line);
        Rule rule;
        rule.packets = packetsIn(words.front());
        if (rule.packets) words.erase(words.begin());
        if (words.size() < 2) return;
        rule.text = line.substr(line.find("-A "));
        const std::string chain = words[1];
        words.erase(words.begin(), words.begin() + 2);
        if (RuleReader(std::move(words)).read(rule)) tables.back().setsMarks = true;
        tables.back().chains[chain].rules.push_back(std::move(rule));
    }

    /// Takes out the rules that only log, count or change.
    static void removeMere(const Table& table, Chain& chain) {
        std::erase_if(chain.rules, [&](const Rule& rule) {
            const bool leads = rule.verdict == Verdict::jump || rule.verdict == Verdict::goTo;
            return rule.verdict == Verdict::none || (leads && !table.chains.contains(rule.target));
        });
    }

    Keeper keeper;
    std::vector<Table> tables;
};

}  // namespace

std::vector<Table> readIptables(const std::string& saved, Keeper keeper) {
    Reader reader(keeper);
    std::istringstream lines(saved);
    for (std::string line; std::getline(lines, line);) reader.readLine(line);
    return reader.finish();
}

}  // namespace doctor
