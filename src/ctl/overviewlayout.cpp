#include "ctl/overviewlayout.h"

#include <time.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <set>

#include "contract/programs.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "net/convert.h"
#include "tk/characters.h"

namespace ctl {

namespace {

using contract::Role;
using Lines = std::vector<Line>;

// Where the room is limited.
constexpr std::size_t refusalRows = 3;
constexpr std::size_t refusalLines = 6;
constexpr std::size_t noLimit = std::numeric_limits<std::size_t>::max();
constexpr const char* indent = "  ";
constexpr const char* historyHeading = "LAST MINUTE";

/// "01-02 21:04" by the local clock.
std::string momentText(std::uint64_t seconds) {
    tm broken{};
    const auto time = static_cast<time_t>(seconds);
    char text[32];
    if (!::localtime_r(&time, &broken)) return timeText(seconds);
    return std::string(text, ::strftime(text, sizeof text, "%m-%d %H:%M", &broken));
}

std::string portText(std::uint32_t protocol, std::uint32_t port) {
    return protocolText(protocol) + ' ' + std::to_string(port);
}

std::string placeText(std::uint32_t address, std::uint32_t port) {
    return gateway::ipToString(address) + ':' + std::to_string(port);
}

std::string counted(std::size_t count, const std::string& what) {
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

void append(Lines& lines, Lines more) {
    std::move(more.begin(), more.end(), std::back_inserter(lines));
}

/// Lays out one overview.
class Layout {
public:
    Layout(const Overview& overview, const Terminal& terminal, const TrafficHistory* history)
        : overview(overview), terminal(terminal), history(history) {
        inner = terminal;
        if (inner.width > 0) inner.width = std::max<std::size_t>(inner.width, 3) - 2;
    }

    Lines lines();

private:
    /// What goes on in further lines when it is wider than the terminal; the rest is cut.
    enum class Wrapping { everything, problems, nothing };

    Lines sections() const;
    Lines headline() const;
    Lines problems() const;
    Lines settings() const;
    Lines places() const;
    Lines mappings(std::size_t room) const;
    Table refusalTable(std::size_t rows) const;
    Lines refusals() const;
    Lines programs() const;
    Lines end() const;

    std::vector<std::string> mappingHeadings() const;
    std::vector<std::string> mappingRow(const Mapping& mapping) const;
    Table mappingTable() const;
    Table hostTable(std::size_t rows) const;
    std::string historyOf(const TrafficHistory::Slots& slots) const {
        return historyLine(slots, terminal.isUnicode);
    }
    TrafficHistory::Slots slotsOf(const Mapping& mapping) const {
        return history ? history->of(mapping) : TrafficHistory::Slots{};
    }
    bool hasSeveralOutside() const { return inForce(overview, Role::external).size() > 1; }
    /// One line, cut where the terminal ends.
    Line line(const std::string& text, Style style = Style::plain) const;
    /// The same with what begins it, or in further lines below its text.
    Lines paragraph(const std::string& beginning, const std::string& text, bool isWrapped,
                    Style style = Style::plain) const;
    /// A table, indented.
    Lines indented(const Table& table) const;

    const Overview& overview;
    const Terminal& terminal;
    const TrafficHistory* history;
    Terminal inner;  // what is left beside the indentation
    Wrapping wrapping = Wrapping::everything;
};

Line Layout::line(const std::string& text, Style style) const {
    const std::size_t width = terminal.width == 0 ? noLimit : terminal.width;
    return {{shortened(tk::printable(text), width, terminal.ellipsis()), style}};
}

Lines Layout::paragraph(const std::string& beginning, const std::string& text, bool isWrapped,
                        Style style) const {
    if (!isWrapped || terminal.width <= beginning.size()) return {line(beginning + text, style)};
    Lines lines;
    for (const std::string& part : wrapped(tk::printable(text), terminal.width - beginning.size()))
        lines.push_back({{(lines.empty() ? beginning : std::string(beginning.size(), ' ')) + part, style}});
    return lines;
}

Lines Layout::indented(const Table& table) const {
    Lines lines = table.linesWithin(inner);
    for (Line& row : lines) row.insert(row.begin(), {indent});
    return lines;
}

Lines Layout::headline() const {
    if (!overview.routerFailure.empty())
        return {line("routerd does not answer: nothing is known of the gateway.", Style::bad)};
    if (!overview.isGatewayThere) return {line("UPnP is not served.", Style::warning)};
    if (!overview.settings) return {line("Nobody tells whether UPnP is on.", Style::warning)};
    if (!overview.settings->enabled) return {line("UPnP is off: nothing is mapped.", Style::warning)};
    return {line("UPnP is on.", Style::good)};
}

Lines Layout::problems() const {
    Lines lines;
    for (const std::string& problem : problemsOf(overview))
        append(lines, paragraph("! ", problem, wrapping != Wrapping::nothing, Style::warning));
    return lines;
}

/// The settings that are not as usual.
Lines Layout::settings() const {
    Lines lines;
    if (!overview.settings) return lines;
    if (!overview.settings->allowDisableExternal)
        lines.push_back(line("Clients may not disconnect an external interface (allow-disable-external=no)"));
    if (!overview.settings->showDummyRule)
        lines.push_back(line("Clients see no dummy mapping before all others (show-dummy-rule=no)"));
    return lines;
}

Lines Layout::places() const {
    Lines lines;
    const auto inside = inForce(overview, Role::internal);
    const auto outside = inForce(overview, Role::external);
    for (const ServedInterface* entry : inside)
        for (const std::uint32_t address : entry->addresses)
            lines.push_back(line("Discoverable on " + entry->name + " at " + descriptionUrl(address)));
    for (const ServedInterface* entry : outside)
        for (const std::uint32_t address : entry->addresses)
            lines.push_back(line("Clients see " + gateway::ipToString(address) + " (" + entry->name + ')'));
    return lines;
}

std::vector<std::string> Layout::mappingHeadings() const {
    std::vector<std::string> headings{"PORT", "LEADS TO", "DESCRIPTION", "PACKETS", "TRAFFIC"};
    if (hasSeveralOutside()) headings.insert(headings.begin(), "ON");
    headings.push_back(history ? historyHeading : "SINCE");
    return headings;
}

std::vector<std::string> Layout::mappingRow(const Mapping& mapping) const {
    std::string description = beginningOf(mapping.description);
    if (mapping.requestedBy != mapping.internalClient)
        description += " (asked by " + gateway::ipToString(mapping.requestedBy) + ')';
    if (!mapping.enabled) description.insert(0, "(disabled) ");
    std::vector<std::string> row{portText(mapping.protocol, mapping.externalPort),
                                 placeText(mapping.internalClient, mapping.internalPort), description,
                                 quantityText(mapping.packets, ""), quantityText(mapping.bytes, "B")};
    if (hasSeveralOutside()) {
        std::string name = std::to_string(mapping.interface);
        for (const ServedInterface& entry : overview.served)
            if (entry.interface == mapping.interface) name = entry.name;
        row.insert(row.begin(), std::move(name));
    }
    row.push_back(history ? historyOf(slotsOf(mapping)) : momentText(mapping.since));
    return row;
}

Table Layout::mappingTable() const {
    Table table(mappingHeadings());
    for (const Mapping& mapping : overview.mappings) table.add(mappingRow(mapping));
    table.keepWhole(historyHeading);
    table.dropToFit(inner, {"PACKETS", "SINCE", "DESCRIPTION", historyHeading});
    return table;
}

/// What leads to one host.
struct HostUse {
    std::uint32_t host = 0;
    std::size_t mappings = 0;
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    TrafficHistory::Slots slots{};
};

Table Layout::hostTable(std::size_t rows) const {
    std::map<std::uint32_t, HostUse> byHost;
    for (const Mapping& mapping : overview.mappings) {
        HostUse& use = byHost[mapping.internalClient];
        use.host = mapping.internalClient;
        ++use.mappings;
        use.packets += mapping.packets;
        use.bytes += mapping.bytes;
        addTo(use.slots, slotsOf(mapping));
    }
    std::vector<HostUse> uses;
    uses.reserve(byHost.size());
    for (const auto& [host, use] : byHost) uses.push_back(use);
    std::stable_sort(uses.begin(), uses.end(),
                     [](const HostUse& left, const HostUse& right) { return left.bytes > right.bytes; });
    if (uses.size() > rows) uses.resize(rows);
    std::vector<std::string> headings{"HOST", "MAPPINGS", "PACKETS", "TRAFFIC"};
    if (history) headings.push_back(historyHeading);
    Table table(headings);
    for (const HostUse& use : uses) {
        std::vector<std::string> row{gateway::ipToString(use.host), std::to_string(use.mappings),
                                     quantityText(use.packets, ""), quantityText(use.bytes, "B")};
        if (history) row.push_back(historyOf(use.slots));
        table.add(row);
    }
    table.keepWhole(historyHeading);
    table.dropToFit(inner, {"PACKETS", historyHeading});
    return table;
}

Lines Layout::mappings(std::size_t room) const {
    constexpr std::size_t headings = 2;
    if (overview.mappings.empty()) return {line("Nothing is mapped.")};
    std::set<std::uint32_t> hosts;
    for (const Mapping& mapping : overview.mappings) hosts.insert(mapping.internalClient);
    const std::string title =
        counted(overview.mappings.size(), "mapping") + " for " + counted(hosts.size(), "host");
    const bool isWhole = overview.mappings.size() + headings <= room;
    Lines lines{line(isWhole ? title : title + "; tkctl upnp mappings lists them", Style::strong)};
    append(lines, indented(isWhole ? mappingTable() : hostTable(std::max(room, headings + 1) - headings)));
    return lines;
}

Table Layout::refusalTable(std::size_t rows) const {
    Table table({"LAST", "HOST", "PORT", "TIMES", "REASON"});
    const std::size_t shown = std::min(rows, overview.refusals.size());
    for (auto refusal = overview.refusals.rbegin(); table.rowCount() < shown; ++refusal)
        table.add({momentText(refusal->time), gateway::ipToString(refusal->requester),
                   portText(refusal->protocol, refusal->externalPort), std::to_string(refusal->count),
                   std::to_string(refusal->code) + ": " + refusal->reason});
    table.keepWhole("PORT");
    if (wrapping == Wrapping::everything) table.wrapLast();
    table.dropToFit(inner, {"LAST", "TIMES"});
    return table;
}

Lines Layout::refusals() const {
    if (overview.refusals.empty()) return {};
    const bool isLimited = terminal.height > 0;
    std::size_t rows = isLimited ? refusalRows : noLimit;
    Lines shown = indented(refusalTable(rows));
    while (isLimited && rows > 1 && shown.size() > 1 + refusalLines) shown = indented(refusalTable(--rows));
    Lines lines{line("Refused lately", Style::strong)};
    append(lines, std::move(shown));
    return lines;
}

Lines Layout::programs() const {
    if (!overview.programs) return {};
    std::string text;
    std::set<std::uint32_t> missing{contract::program::gateway, contract::program::resolver};
    for (const RunningProgram& program : *overview.programs) {
        missing.erase(program.number);
        text += (text.empty() ? "" : ", ") + programText(program.number) + " (" +
                std::to_string(program.pid) + ", " + userName(program.uid) + ')';
    }
    for (const std::uint32_t number : missing)
        text += ", " + programText(number) +
                (number == contract::program::resolver ? " (when needed)" : " (not running)");
    return paragraph("Programs: ", text, wrapping == Wrapping::everything);
}

/// Who runs, and where to look next: an overview does not see all that can be wrong.
Lines Layout::end() const {
    if (!overview.routerFailure.empty()) return {};
    Lines lines = programs();
    lines.push_back(line("tkctl doctor looks closer", Style::faint));
    return lines;
}

Lines Layout::sections() const {
    const bool isLimited = terminal.height > 0;
    Lines top = headline();
    append(top, problems());
    append(top, settings());
    append(top, places());
    Lines bottom;
    for (Lines section : {refusals(), end()}) {
        if (section.empty()) continue;
        bottom.push_back({});
        append(bottom, std::move(section));
    }
    if (overview.settings && overview.settings->enabled) {
        const std::size_t used =
            top.size() + bottom.size() + 2;  // a blank line, and the last of the terminal
        top.push_back({});
        append(top, mappings(!isLimited ? noLimit : terminal.height > used ? terminal.height - used : 0));
    }
    append(top, std::move(bottom));
    return top;
}

Lines Layout::lines() {
    Lines lines;
    for (const Wrapping tried : {Wrapping::everything, Wrapping::problems, Wrapping::nothing}) {
        wrapping = tried;
        lines = sections();
        if (terminal.height == 0 || lines.size() < terminal.height) break;
    }
    return lines;
}

}  // namespace

std::vector<Line> layOut(const Overview& overview, const Terminal& terminal, const TrafficHistory* history) {
    return Layout(overview, terminal, history).lines();
}

std::string quantityText(std::uint64_t value, const std::string& unit) {
    constexpr std::uint64_t thousand = 1000;
    constexpr const char* prefixes[] = {"", "k", "M", "G", "T", "P", "E"};
    std::uint64_t divisor = 1;
    std::size_t step = 0;
    while (value / divisor >= thousand) {
        divisor *= thousand;
        ++step;
    }
    std::string text = std::to_string(value / divisor);
    if (step > 0 && text.size() == 1) text += '.' + std::to_string(value / (divisor / 10) % 10);
    const std::string suffix = prefixes[step] + unit;
    return suffix.empty() ? text : text + ' ' + suffix;
}

}  // namespace ctl
