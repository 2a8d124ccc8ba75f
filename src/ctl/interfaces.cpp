#include "ctl/interfaces.h"

#include <CLI/App.hpp>

#include "contract/interfaces.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/commands.h"
#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "tk/names.h"

namespace ctl {

namespace {

Interface readInterface(const tk::message& record) {
    const auto told = contract::InterfaceRecord::fromMessage(record);
    return {told.id,
            told.name,
            told.displayName.value_or(told.name),
            told.index,
            told.type,
            told.disabled.value_or(false),
            told.running.value_or(false)};
}

Json interfaceToJson(const Interface& source) {
    Json object;
    object["id"] = source.id;
    object["name"] = source.name;
    object["displayName"] = source.displayName;
    object["index"] = source.index;
    object["type"] = source.type;
    object["disabled"] = source.disabled;
    object["running"] = source.running;
    return object;
}

void listInterfaces(Context& context) {
    Json list = Json::array();
    Table table({"ID", "NAME", "DISPLAY NAME", "INDEX", "TYPE", "DISABLED", "RUNNING"});
    for (const Interface& entry : readInterfaces(context.session())) {
        list.push_back(interfaceToJson(entry));
        table.add({std::to_string(entry.id), entry.name, entry.displayName, std::to_string(entry.index),
                   std::to_string(entry.type), yesNo(entry.disabled), yesNo(entry.running)});
    }
    table.keepWhole("NAME");
    context.print(list, table);
}

}  // namespace

std::vector<Interface> readInterfaces(Session& session) {
    std::vector<Interface> interfaces;
    for (const tk::message& record : session.list(contract::path::interfaces()))
        interfaces.push_back(readInterface(record));
    return interfaces;
}

const Interface& interfaceNamed(const std::vector<Interface>& interfaces, const std::string& name) {
    std::string names;
    for (const Interface& candidate : interfaces) {
        if (candidate.name == name) return candidate;
        names += (names.empty() ? "" : ", ") + candidate.name;
    }
    throw Failure("there is no interface '" + name + "'; there are: " + (names.empty() ? "none" : names));
}

std::string interfaceName(const std::vector<Interface>& interfaces, std::uint32_t id) {
    for (const Interface& candidate : interfaces)
        if (candidate.id == id) return candidate.name;
    return {};
}

contract::SideReply sideOf(Session& session, std::uint32_t interface) {
    tk::message question;
    question.insert_u32(contract::sidefield::interface, interface);
    const tk::message reply = session.exchange(contract::path::interfaces(), contract::tellSide, question);
    return tk::isError(reply) ? contract::SideReply{} : contract::SideReply::fromMessage(reply);
}

void addInterfaceCommands(CLI::App& app, Context& context) {
    CLI::App& group = addGroup(app, context, "interface", "The router's network interfaces");
    CLI::App& list =
        addCommand(group, context, "list", "List the network interfaces that can be given a role",
                   [&context] { listInterfaces(context); });
    addExample(list, "--json");
}

}  // namespace ctl
