#include "ctl/setupplan.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "contract/gateway.h"
#include "contract/programs.h"
#include "ctl/configcheck.h"
#include "ctl/failure.h"
#include "ctl/interfaces.h"
#include "ctl/overview.h"
#include "ctl/table.h"
#include "machine/configuration.h"
#include "machine/links.h"
#include "machine/tool.h"
#include "setup/difference.h"
#include "setup/routertoml.h"
#include "tk/account.h"
#include "tk/file.h"
#include "tk/names.h"

namespace ctl {

namespace {

constexpr std::size_t fileLimit = std::size_t{1024} * 1024;

// What is added where the file says nothing. Ports below 1024 are those of well-known services, which nobody
// should open by accident. Busy hosts keep some dozens of mappings, so the limits stop only what is out of
// hand. The rate leaves room for a client that lists all mappings: each takes it a connection.
const setup::Setting usualSettings[] = {
    {"nat", "external-ports", R"(["1024-65535"])"},
    {"nat", "limit-per-client", "128"},
    {"nat", "limit", "1024"},
    {"guard", "requests-per-second", "200"},
    {"guard", "connections", "64"},
};

struct UsualProgram {
    std::uint32_t number;
    const char* name;
    bool startsWithRouter;
};
constexpr UsualProgram usualPrograms[] = {{contract::program::gateway, "upnpd", true},
                                          {contract::program::resolver, "resolverd", false}};

template <typename Value>
Value valueOf(tk::Result<Value> result) {
    if (!result.isOk()) throw Failure(result.reason());
    return result.take();
}

/// What the running routerd reads.
/// Errors: none when it does not tell which process it is.
std::optional<std::string> fileOfRouter(Context& context) {
    for (const RunningProgram& program :
         readPrograms(context.session()).value_or(std::vector<RunningProgram>()))
        if (program.number == contract::program::network) return machine::configurationOf(program.pid);
    return std::nullopt;
}

/// What routerd.service would read. The usual file where systemd does not tell: then it cannot start it either.
std::string fileOfUnit() {
    constexpr std::string_view arguments = "argv[]=";
    const auto shown = machine::outputOf({"systemctl", "show", "--property=ExecStart", routerUnit});
    const std::size_t begin = shown.isOk() ? shown->find(arguments) : std::string::npos;
    if (begin == std::string::npos) return contract::usualConfiguration;
    std::string line = shown->substr(begin + arguments.size());
    line.resize(std::min(line.find(" ;"), line.size()));
    std::replace(line.begin(), line.end(), ' ', '\0');
    return machine::configurationIn(line);
}

/// Where a file is, however it is written; as it is written when that cannot be told.
std::filesystem::path placeOf(const std::string& file) {
    std::error_code unknown;
    const auto whole = std::filesystem::absolute(file, unknown);
    auto place = std::filesystem::weakly_canonical(whole, unknown);
    return unknown ? std::filesystem::path(file) : place;
}

/// Errors: throws Failure when a changed file would not be the one that counts.
void checkFile(Context& context, const std::string& file, bool isRunning) {
    std::optional<std::string> read;
    if (isRunning)
        read = fileOfRouter(context);
    else if (machine::hasSystemd())
        read = fileOfUnit();
    if (read && placeOf(*read) != placeOf(file))
        throw Failure((isRunning ? "routerd" : routerUnit) + (" reads " + *read) + ": give --config " +
                      *read);
}

setup::RouterToml readFile(const std::string& file, SetupPlan& plan) {
    const tk::Result<std::string> text = tk::readFile(file, fileLimit);
    plan.fileExists = text.isOk();
    if (!text.isOk() && text.status().code() != ENOENT) throw Failure(text.reason());
    if (!plan.fileExists) return valueOf(setup::RouterToml::parse("", file));
    plan.before = *text;
    setup::RouterToml parsed = valueOf(setup::RouterToml::parse(plan.before, file));
    if (const std::string refusal = refusalOf(file, file); !refusal.empty())
        throw Failure(refusal + "; mend the file, and then run tkctl setup again");
    return parsed;
}

/// The items of the gateway with the names of their interfaces.
std::vector<setup::Item> readItems(Session& session) {
    const std::vector<Interface> interfaces = readInterfaces(session);
    std::vector<setup::Item> items;
    for (const tk::message& record : session.list(contract::path::gateway())) {
        const auto item = contract::RoleItem::fromMessage(record, {});
        items.push_back({record.get_u32(tk::field::objectId), interfaceName(interfaces, item.interface),
                         item.type, item.disabled});
    }
    return items;
}

/// Asks upnpd, which may not be there.
/// Errors: throws Failure when it refuses.
std::vector<setup::Item> askGateway(Context& context, Wait wait, SetupPlan& plan) {
    if (!plan.isRunning) return {};
    const tk::message end = askSettings(context.session(), wait, std::cerr);
    std::uint32_t code = 0;
    if (tk::isError(end, &code)) {
        if (code == tk::error::unreachable || code == tk::error::timedOut) {
            plan.silence = whySilent(context.session());
            return {};
        }
        throw failureFrom(end, contract::path::gateway());
    }
    plan.knowsItems = true;
    plan.isEnabled = contract::Settings::fromMessage(end, {}).enabled;
    return readItems(context.session());
}

std::string triggerOf(const UsualProgram& program) {
    return std::string("/run/tk/start/") + program.name;
}

/// True for a user that the system is known to have.
bool isUser(const std::string& name) {
    const auto account = tk::findAccount(name);
    return account.isOk() && *account;
}

setup::Command commandOf(const UsualProgram& program) {
    const std::string found = machine::findBeside(program.name);
    return {program.number, found.empty() ? std::string("/usr/sbin/") + program.name : found,
            isUser(program.name) ? program.name : ""};
}

/// How routerd starts a program: by the unit that came with it, else by its command.
std::string startOf(const UsualProgram& program) {
    const std::string name = program.name;
    const std::string unit = "/systemd/system/" + name + ".path";
    const bool hasUnit =
        ::access(("/usr/lib" + unit).c_str(), F_OK) == 0 || ::access(("/lib" + unit).c_str(), F_OK) == 0;
    std::string text;
    if (hasUnit && machine::hasSystemd()) {
        text = "trigger = \"" + triggerOf(program) + "\"\n";
    } else {
        const setup::Command command = commandOf(program);
        text = "command = " + setup::listText({command.command}) + '\n';
        if (!command.user.empty()) text += "user = \"" + command.user + "\"\n";
    }
    return program.startsWithRouter ? text + "start = true\n" : text;
}

/// Only systemd looks at the triggers that came with the package.
std::vector<setup::Command> commandsInPlaceOfTriggers(const setup::RouterToml& file) {
    std::vector<setup::Command> commands;
    for (const UsualProgram& program : usualPrograms)
        if (!machine::hasSystemd() && file.hasTrigger(program.number, triggerOf(program)))
            commands.push_back(commandOf(program));
    return commands;
}

std::string changedText(const setup::RouterToml& file, const SetupPlan& plan) {
    setup::Changes changes;
    auto& settings = changes.settings;
    if (valueOf(file.lanInterfaces()) != plan.proposal.lanInterfaces)
        settings.push_back({"lan", "interfaces", setup::listText(plan.proposal.lanInterfaces)});
    for (const setup::Setting& setting : usualSettings)
        if (!file.has(setting.section, setting.key)) settings.push_back(setting);
    // A router that runs cannot change its user any more. Units name it themselves.
    if (!plan.isRunning && !machine::hasSystemd() && !file.has("router", "user") && isUser("routerd"))
        settings.push_back({"router", "user", "\"routerd\""});
    // What starts a daemon that answers is left alone.
    if (plan.knowsItems) return valueOf(file.with(changes));
    for (const UsualProgram& program : usualPrograms)
        if (!file.hasProgram(program.number)) changes.programs.push_back({program.number, startOf(program)});
    changes.commands = commandsInPlaceOfTriggers(file);
    return valueOf(file.with(changes));
}

std::vector<std::string> notesOn(const SetupPlan& plan, const std::vector<setup::Item>& items) {
    std::vector<std::string> notes;
    for (const setup::Item& item : items)
        if (item.disabled && !item.interface.empty())
            notes.push_back("item " + std::to_string(item.id) + " (" + item.interface +
                            ") is disabled; to use it: tkctl upnp interface set " + std::to_string(item.id) +
                            " disabled=no");
    // Whether a machine forwards at all is a decision of its own, which opens more than mapped ports.
    if (!machine::isForwarding())
        notes.emplace_back(
            "the kernel forwards nothing, so mapped ports lead nowhere; to make this machine a router: "
            "echo net.ipv4.ip_forward=1 >/etc/sysctl.d/60-router.conf && sysctl -p "
            "/etc/sysctl.d/60-router.conf");
    if (!plan.proposal.leftOut.empty() && !plan.isEmpty())
        notes.emplace_back("--lan NAME and --wan NAME choose other interfaces");
    return notes;
}

std::string rolesText(const setup::Proposal& proposal) {
    Table table({"INTERFACE", "ROLE", "BECAUSE"});
    for (const setup::Choice& choice : proposal.roles)
        table.add({choice.interface, roleName(choice.role), choice.why});
    for (const setup::Choice& choice : proposal.leftOut) table.add({choice.interface, "", choice.why});
    return table.text();
}

std::string differenceOf(const SetupPlan& plan, const std::string& file) {
    return setup::difference(plan.before, plan.after, plan.fileExists ? file : "/dev/null", file);
}

/// Shows what goes and what comes.
std::string paintDifference(const std::string& difference, const Terminal& terminal) {
    constexpr std::size_t headingLines = 2;
    std::vector<Line> lines;
    std::istringstream text(difference);
    for (std::string line; std::getline(text, line);) {
        const char kind = line.empty() ? ' ' : line.front();
        const Style style = lines.size() < headingLines ? Style::strong
                            : kind == '+'               ? Style::good
                            : kind == '-'               ? Style::bad
                            : kind == '@'               ? Style::faint
                                                        : Style::plain;
        lines.push_back({{line, style}});
    }
    return terminal.render(lines);
}

Json choicesToJson(const std::vector<setup::Choice>& choices) {
    Json list = Json::array();
    for (const setup::Choice& choice : choices) {
        Json object;
        object["interface"] = choice.interface;
        object["type"] = roleName(choice.role);
        object["why"] = choice.why;
        list.push_back(object);
    }
    return list;
}

Json changesToJson(const std::vector<setup::ItemChange>& changes) {
    Json list = Json::array();
    for (const setup::ItemChange& change : changes) {
        using Kind = setup::ItemChange::Kind;
        Json object;
        object["action"] = change.kind == Kind::add      ? "add"
                           : change.kind == Kind::change ? "change"
                                                         : "remove";
        object["interface"] = change.interface;
        object["type"] = roleName(change.role);
        list.push_back(object);
    }
    return list;
}

}  // namespace

bool isRouterRunning(Context& context) {
    try {
        (void)context.session();  // asked only whether there is one
        return true;
    } catch (const Unreachable& failure) {
        if (failure.error == ENOENT || failure.error == ECONNREFUSED) return false;
        throw;
    }
}

SetupPlan planSetup(Context& context, const SetupOptions& options, Wait wait) {
    SetupPlan plan;
    plan.isRunning = isRouterRunning(context);
    checkFile(context, options.file, plan.isRunning);
    const setup::RouterToml file = readFile(options.file, plan);
    const machine::Links machine = valueOf(machine::readLinks());
    const std::vector<setup::Item> items = askGateway(context, wait, plan);
    plan.proposal = valueOf(setup::propose(machine, {valueOf(file.lanInterfaces()), items}, options.wishes));
    plan.changes = setup::itemChanges(items, plan.proposal);
    plan.after = changedText(file, plan);
    plan.notes = notesOn(plan, items);
    return plan;
}

std::string textOf(const SetupPlan& plan, const std::string& file, const Terminal& terminal) {
    std::string text = rolesText(plan.proposal);
    if (plan.before != plan.after) text += '\n' + paintDifference(differenceOf(plan, file), terminal);
    std::string steps;
    if (!plan.isRunning) steps += "start routerd\n";
    for (const setup::ItemChange& change : plan.changes) steps += setup::describe(change) + '\n';
    if (!plan.isEnabled) steps += "switch UPnP on\n";
    if (!steps.empty()) text += '\n' + steps;
    for (const std::string& note : plan.notes) text += "\nNote: " + note + '\n';
    return text;
}

Json toJson(const SetupPlan& plan, const std::string& file, bool isApplied) {
    Json object;
    object["roles"] = choicesToJson(plan.proposal.roles);
    object["leftOut"] = choicesToJson(plan.proposal.leftOut);
    object["file"] = file;
    object["difference"] = differenceOf(plan, file);
    object["start"] = !plan.isRunning;
    object["items"] = changesToJson(plan.changes);
    object["enable"] = !plan.isEnabled;
    object["notes"] = plan.notes;
    object["applied"] = isApplied;
    return object;
}

}  // namespace ctl
