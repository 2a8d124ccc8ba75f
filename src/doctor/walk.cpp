#include "doctor/walk.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace doctor {

namespace {

constexpr int deepestJump = 16;  // the kernel's own limit
constexpr std::uint32_t pastUnicast = 0xE0000000;
// A set of this many addresses may well hold some host of the Internet; a smaller one is about certain hosts.
constexpr std::uint64_t manyAddresses = 0x10000000;

Answer answerOf(bool value) {
    return value ? Answer::yes : Answer::no;
}

Answer negation(Answer answer) {
    if (answer == Answer::unknown) return answer;
    return answerOf(answer == Answer::no);
}

bool isIn(const std::vector<std::string>& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// The value is one of those listed, as far as they are known.
Answer listed(const Condition& condition, bool found) {
    if (found) return Answer::yes;
    return condition.isPartial ? Answer::unknown : Answer::no;
}

Answer isInterface(const Condition& condition, const std::string& name) {
    const auto matches = [&](const std::string& pattern) {
        if (!pattern.ends_with('*')) return pattern == name;
        return name.starts_with(std::string_view(pattern).substr(0, pattern.size() - 1));
    };
    return listed(condition, std::any_of(condition.names.begin(), condition.names.end(), matches));
}

Answer isNumber(const Condition& condition, std::uint32_t number) {
    const auto contains = [&](const Range& range) { return number >= range.first && number <= range.last; };
    return listed(condition, std::any_of(condition.ranges.begin(), condition.ranges.end(), contains));
}

/// Some host of the Internet is not in a list of few addresses, and is in a list of all.
Answer isSomeHost(const Condition& condition) {
    std::uint64_t count = 0;
    for (const Range& range : condition.ranges) {
        if (range.first >= pastUnicast) continue;
        count += std::uint64_t{std::min(range.last, pastUnicast - 1)} - range.first + 1;
    }
    if (count >= pastUnicast) return Answer::yes;
    return count >= manyAddresses || condition.isPartial ? Answer::unknown : Answer::no;
}

Answer isAddress(const Condition& condition, const std::optional<std::uint32_t>& address) {
    return address ? isNumber(condition, *address) : isSomeHost(condition);
}

Answer isPort(const Condition& condition, const std::optional<std::uint16_t>& port) {
    if (port) return isNumber(condition, *port);
    // Any port: one above 1024, as clients choose theirs.
    constexpr std::uint32_t usualFirst = 32768, usualLast = 60999;
    const auto overlaps = [](const Range& range) {
        return range.first <= usualLast && range.last >= usualFirst;
    };
    const auto covers = [](const Range& range) {
        return range.first <= usualFirst && range.last >= usualLast;
    };
    if (std::any_of(condition.ranges.begin(), condition.ranges.end(), covers)) return Answer::yes;
    if (std::any_of(condition.ranges.begin(), condition.ranges.end(), overlaps)) return Answer::unknown;
    return listed(condition, false);
}

/// Whether a flag is set.
using Flag = Answer (*)(const Packet& packet, std::string_view name);

Answer hasState(const Packet& packet, std::string_view name) {
    return answerOf(name == (packet.isReply ? "established" : "new"));
}

Answer hasStatus(const Packet& packet, std::string_view name) {
    if (name == "dnat") return Answer::yes;
    if (name == "snat" || name == "expected" || name == "dying") return Answer::no;
    return name == "seen-reply" ? answerOf(packet.isReply) : Answer::unknown;
}

Answer hasTcpFlag(const Packet& packet, std::string_view name) {
    if (name == "syn") return Answer::yes;
    if (name == "ack") return answerOf(packet.isReply);
    if (name == "ecn" || name == "ece" || name == "cwr") return Answer::unknown;
    return Answer::no;
}

Answer hasAny(const Condition& condition, const Packet& packet, Flag flag) {
    Answer answer = listed(condition, false);
    for (const std::string& name : condition.names) {
        const Answer one = flag(packet, name);
        if (one == Answer::yes) return one;
        if (one == Answer::unknown) answer = one;
    }
    return answer;
}

Answer hasExactly(const Condition& condition, const Packet& packet, Flag flag) {
    Answer answer = condition.isPartial ? Answer::unknown : Answer::yes;
    for (const std::string& name : *condition.mask) {
        const Answer one = flag(packet, name);
        if (one == Answer::unknown)
            answer = one;
        else if ((one == Answer::yes) != isIn(condition.names, name))
            return Answer::no;
    }
    return answer;
}

Answer hasFlags(const Condition& condition, const Packet& packet, Flag flag) {
    return condition.mask ? hasExactly(condition, packet, flag) : hasAny(condition, packet, flag);
}

Answer isWord(const Condition& condition, std::string_view word) {
    return listed(condition, isIn(condition.names, word));
}

Answer isMet(const Packet& packet, const Condition& condition, bool marksAreZero) {
    switch (condition.subject) {
        case Subject::inInterface:
            return isInterface(condition, packet.in);
        case Subject::outInterface:
            return isInterface(condition, packet.out);
        case Subject::source:
            return isAddress(condition, packet.source);
        case Subject::destination:
            return isAddress(condition, packet.destination);
        case Subject::originalDestination:
            return isNumber(condition, packet.originalDestination);
        case Subject::protocol:
            return isNumber(condition, packet.protocol);
        case Subject::sourcePort:
            return isPort(condition, packet.sourcePort);
        case Subject::destinationPort:
            return isPort(condition, packet.destinationPort);
        case Subject::originalPort:
            return isNumber(condition, packet.originalPort);
        case Subject::state:
            return hasFlags(condition, packet, hasState);
        case Subject::status:
            return hasFlags(condition, packet, hasStatus);
        case Subject::tcpFlags:
            return hasFlags(condition, packet, hasTcpFlag);
        case Subject::direction:
            return isWord(condition, packet.isReply ? "reply" : "original");
        case Subject::mark:
            return marksAreZero ? isNumber(condition, 0) : Answer::unknown;
        case Subject::family:
            return isWord(condition, "ipv4");
        case Subject::destinationType:
            return isWord(condition, "unicast");
        case Subject::rate:
            return Answer::yes;
        case Subject::other:
            break;
    }
    return Answer::unknown;
}

/// Walks the chains of one table with one packet.
class Walker {
public:
    Walker(const Table& table, const Packet& packet, bool marksAreZero)
        : table(table), packet(packet), marksAreZero(marksAreZero) {}

    Outcome run(const std::string& name) {
        const Chain& chain = table.chains.at(name);
        Ends ends = walkChain(name, 0);
        Outcome outcome;
        outcome.mayPass = ends.accept || (ends.leave && !chain.policyDrops);
        if (ends.leave && chain.policyDrops) ends.add(DropSite{name, "", chain.policyPackets});
        // Without a way through, the packet is dropped at the last place at the latest.
        outcome.drop = outcome.mayPass ? ends.firstDrop : ends.lastDrop;
        outcome.flowtable = flowtable;
        outcome.doubt = doubt;
        return outcome;
    }

private:
    /// The ways in which a packet may come out of a chain.
    struct Ends {
        bool accept = false;
        bool leave = false;
        std::optional<DropSite> firstDrop;
        std::optional<DropSite> lastDrop;

        void add(const DropSite& site) {
            if (!firstDrop) firstDrop = site;
            lastDrop = site;
        }
    };

    Ends walkChain(const std::string& name, int depth) {
        const auto known = memory.find(name);
        if (known != memory.end()) return known->second;
        const auto chain = table.chains.find(name);
        if (chain == table.chains.end() || depth > deepestJump) return anything(name);
        Ends ends;
        bool goesOn = true;
        for (const Rule& rule : chain->second.rules)
            if (goesOn) goesOn = apply(rule, name, depth, ends);
        if (goesOn) ends.leave = true;
        memory[name] = ends;
        return ends;
    }

    /// True when the packet may come to the next rule.
    bool apply(const Rule& rule, const std::string& chain, int depth, Ends& ends) {
        const Answer answer = meetsAll(rule);
        if (answer == Answer::no || rule.verdict == Verdict::none) return true;
        const bool isCertain = answer == Answer::yes;
        if (!isCertain && doubt.empty()) doubt = rule.text;
        return follow(rule, chain, depth, ends) || !isCertain;
    }

    /// True when the packet comes to the next rule although it meets this one.
    bool follow(const Rule& rule, const std::string& chain, int depth, Ends& ends) {
        switch (rule.verdict) {
            case Verdict::none:
                return true;
            case Verdict::accept:
                ends.accept = true;
                return false;
            case Verdict::leave:
                ends.leave = true;
                return false;
            case Verdict::offload:
                flowtable = rule.target;
                return true;
            case Verdict::drop:
                ends.add(DropSite{chain, rule.text, rule.packets});
                return false;
            case Verdict::unknown:
                if (doubt.empty()) doubt = rule.text;
                ends.accept = true;
                ends.add(DropSite{chain, rule.text, rule.packets});
                return false;
            case Verdict::jump:
                return enter(rule, depth, ends);
            case Verdict::goTo:
                if (enter(rule, depth, ends)) ends.leave = true;
                return false;
        }
        return true;
    }

    /// True when the packet may return from the chain that the rule leads to.
    bool enter(const Rule& rule, int depth, Ends& ends) {
        const Ends inner = walkChain(rule.target, depth + 1);
        ends.accept |= inner.accept;
        if (inner.firstDrop) ends.add(*inner.firstDrop);
        if (inner.lastDrop) ends.add(*inner.lastDrop);
        return inner.leave;
    }

    /// What comes of a chain that is not there.
    static Ends anything(const std::string& name) {
        Ends ends;
        ends.accept = ends.leave = true;
        ends.add(DropSite{name, "", {}});
        return ends;
    }

    Answer meetsAll(const Rule& rule) const {
        Answer answer = Answer::yes;
        for (const Condition& condition : rule.conditions) {
            const Answer one = meets(packet, condition, marksAreZero);
            if (one == Answer::no) return one;
            if (one == Answer::unknown) answer = one;
        }
        return answer;
    }

    const Table& table;
    const Packet& packet;
    const bool marksAreZero;
    std::map<std::string, Ends> memory;
    std::optional<std::string> flowtable;
    std::string doubt;
};

}  // namespace

Answer meets(const Packet& packet, const Condition& condition, bool marksAreZero) {
    const Answer answer = isMet(packet, condition, marksAreZero);
    return condition.isNegated ? negation(answer) : answer;
}

Outcome walk(const Table& table, const std::string& chain, const Packet& packet, bool marksAreZero) {
    return Walker(table, packet, marksAreZero).run(chain);
}

}  // namespace doctor
