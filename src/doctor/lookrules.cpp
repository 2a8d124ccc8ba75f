#include <errno.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <utility>

#include <nlohmann/json.hpp>

#include "doctor/collect.h"
#include "doctor/iptables.h"
#include "doctor/nftables.h"
#include "machine/tool.h"
#include "tk/file.h"

namespace doctor {

namespace {

using Json = nlohmann::json;

constexpr const char* ownTable = "tk";

struct TableName {
    std::string family;
    std::string name;
};

/// What "nft list tables" prints: "table ip filter" a line. Its JSON is broken for tables that have an owner.
std::vector<TableName> parseTableNames(const std::string& text) {
    std::vector<TableName> names;
    std::istringstream lines(text);
    std::string word;
    for (TableName name; lines >> word >> name.family >> name.name;) names.push_back(name);
    return names;
}

/// True when packets that are forwarded over IPv4 may come to tables of the family.
bool isOfInterest(const TableName& table) {
    return (table.family == "ip" || table.family == "inet") &&
           !(table.family == "ip" && table.name == ownTable);
}

tk::Result<std::optional<Table>> orFailure(tk::Result<Table> table) {
    if (!table.isOk()) return table.status();
    return std::optional<Table>(table.take());
}

/// Reads a table; none when it is dormant: no packet comes there.
tk::Result<std::optional<Table>> readTable(const TableName& name) {
    const auto listing = machine::outputOf({"nft", "-a", "-t", "list", "table", name.family, name.name});
    if (!listing.isOk()) return listing.status();
    if (listing->find("\n\tflags dormant") != std::string::npos) return std::optional<Table>();
    const RuleTexts texts = readRuleTexts(*listing);
    if (const auto whole = machine::outputOf({"nft", "-j", "-a", "list", "table", name.family, name.name});
        whole.isOk())
        return orFailure(readNftTable(*whole, texts));
    // Large sets take too much: without them, the rules that look there are uncertain.
    const auto terse = machine::outputOf({"nft", "-j", "-a", "-t", "list", "table", name.family, name.name});
    if (!terse.isOk()) return terse.status();
    return orFailure(readNftTable(*terse, texts, /*setsAreKnown=*/false));
}

/// What a tool that saves rules prints; the first of the names that the system has.
tk::Result<std::string> saved(std::initializer_list<const char*> names) {
    for (const char* name : names)
        if (!machine::findTool(name).empty()) return machine::outputOf({name, "-c"});
    return tk::Status::failure("there is no tool " + std::string(*names.begin()), ENOENT);
}

void lookAtLegacy(MachineFacts& machine) {
    constexpr std::size_t limit = 4096;
    const auto names = tk::readFile("/proc/net/ip_tables_names", limit);
    // Without the older kind there is no such file, and without tables it is empty.
    if (!names.isOk() || names->empty()) return;
    const auto text = saved({"iptables-legacy-save", "iptables-save"});
    if (!text.isOk()) {
        machine.unseen.push_back(unseenBy(text.status(), "the rules of the older iptables", "iptables"));
        return;
    }
    for (Table& table : readIptables(*text, Keeper::iptablesLegacy))
        machine.tables.push_back(std::move(table));
}

/// True when iptables keeps the table, so that only its own tool shows all that the rules say.
bool isOfIptables(const TableName& table, const std::vector<Table>& ofIptables) {
    return table.family == "ip" && std::any_of(ofIptables.begin(), ofIptables.end(),
                                               [&](const Table& other) { return other.name == table.name; });
}

std::vector<Table> tablesOfIptables(const std::vector<TableName>& names) {
    const auto couldBe = [](const TableName& table) {
        constexpr const char* usual[] = {"filter", "nat", "mangle", "raw", "security"};
        return table.family == "ip" && std::any_of(std::begin(usual), std::end(usual),
                                                   [&](const char* name) { return table.name == name; });
    };
    if (std::none_of(names.begin(), names.end(), couldBe)) return {};
    const auto text = saved({"iptables-nft-save"});
    return text.isOk() ? readIptables(*text, Keeper::iptablesNft) : std::vector<Table>();
}

void lookAtNft(MachineFacts& machine) {
    const auto list = machine::outputOf({"nft", "list", "tables"});
    if (!list.isOk()) {
        machine.unseen.push_back(unseenBy(list.status(), "the rules of nftables", "nftables"));
        return;
    }
    const std::vector<TableName> names = parseTableNames(*list);
    const std::vector<Table> ofIptables = tablesOfIptables(names);
    for (const TableName& name : names) {
        if (!isOfInterest(name) || isOfIptables(name, ofIptables)) continue;
        auto table = readTable(name);
        if (!table.isOk())
            machine.unseen.push_back({"table " + name.family + ' ' + name.name, table.reason(), ""});
        else if (*table)
            machine.tables.push_back(std::move(**table));
    }
    machine.tables.insert(machine.tables.end(), ofIptables.begin(), ofIptables.end());
}

std::vector<std::uint32_t> parseUsers(const std::string& text) {
    const Json root = Json::parse(text);
    std::vector<std::uint32_t> users;
    for (const Json& object : root.at("nftables"))
        if (object.contains("set"))
            for (const Json& user : object["set"].value("elem", Json::array()))
                if (user.is_number_unsigned()) users.push_back(user);
    return users;
}

/// Whom the guard holds; nobody when it is switched off.
void lookAtGuard(MachineFacts& machine) {
    const auto table = machine::runTool({"nft", "-t", "list", "table", "ip", ownTable});
    if (!table.isOk() || !table->isOk()) return;
    // With -n users are numbers.
    const auto set = machine::runTool({"nft", "-j", "-n", "list", "set", "ip", ownTable, "guarded"});
    if (!set.isOk()) return;
    try {
        machine.guardedUsers = set->isOk() ? parseUsers(set->output) : std::vector<std::uint32_t>();
    } catch (const Json::exception& error) {
        machine.unseen.push_back({"the guard", error.what(), ""});
    }
}

/// The name of the tool that writes to nf_tables: "iptables", unless that is the older one here.
std::string iptablesTool() {
    const auto version = machine::outputOf({"iptables", "--version"});
    return version.isOk() && version->find("nf_tables") != std::string::npos ? "iptables" : "iptables-nft";
}

}  // namespace

void lookAtRules(MachineFacts& machine) {
    lookAtNft(machine);
    lookAtLegacy(machine);
    lookAtGuard(machine);
    machine.iptablesTool = iptablesTool();
}

}  // namespace doctor
