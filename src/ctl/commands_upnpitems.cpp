#include "ctl/commands.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/App.hpp>

#include "contract/gateway.h"
#include "contract/interfaces.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/gatewayjson.h"
#include "ctl/interfaces.h"
#include "ctl/json.h"
#include "ctl/keyvalues.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "tk/names.h"

namespace ctl {

namespace {

using contract::Role;
using contract::RoleItem;

Role roleNamed(const std::string& name) {
    for (const Role role : {Role::external, Role::internal})
        if (name == roleName(role)) return role;
    throw misuse("'" + name + "': the type is internal or external");
}

std::uint32_t itemId(const std::string& text) {
    const auto id = parseU32(text);
    if (!id)
        throw misuse("'" + text + "': expected the id of an item, as \"tkctl upnp interface list\" shows it");
    return *id;
}

void printId(Context& context, std::uint32_t id, const std::string& text) {
    Json object;
    object["id"] = id;
    context.print(object, text);
}

/// Sends a request about one item.
/// Errors: throws Failure.
void requestForItem(Session& session, std::uint32_t command, const tk::message& item) {
    const tk::message end = session.exchange(contract::path::gateway(), command, item);
    std::uint32_t code = 0;
    if (tk::isError(end, &code) && code == tk::error::noSuchObject)
        throw Failure("there is no item " + std::to_string(item.get_u32(tk::field::objectId)) +
                      "; \"tkctl upnp interface list\" lists the items");
    if (tk::isError(end)) throw failureFrom(end, contract::path::gateway());
}

struct Arguments {
    std::string id;
    std::string name;
    std::string type;
    std::vector<std::string> settings;
    bool isForced = false;
};

constexpr const char* forceOption = "--force";

/// Refuses to serve the LAN on an interface that faces the Internet. If the router cannot tell the side, it
/// decides itself.
void checkSide(Session& session, const RoleItem& item, bool isForced) {
    if (item.type != Role::internal || isForced) return;
    const contract::SideReply answer = sideOf(session, item.interface);
    if (answer.side != contract::Side::outside) return;
    throw Failure(interfaceName(readInterfaces(session), item.interface) + " is outside: " + answer.why +
                  "; " + forceOption + " makes it internal anyway");
}

/// Asks for the side of the interface that an item would have, if the change concerns it.
void checkSideOfChange(Session& session, const tk::message& change, bool isForced) {
    if (!change.has(contract::itemfield::interface) && !change.has(contract::itemfield::type)) return;
    for (const tk::message& record : session.list(contract::path::gateway()))
        if (record.get_u32(tk::field::objectId) == change.get_u32(tk::field::objectId))
            checkSide(session, RoleItem::fromMessage(change, RoleItem::fromMessage(record, {})), isForced);
}

std::string changeAdvice(std::uint32_t item, Role present, Role wanted) {
    const std::string id = std::to_string(item);
    const std::string role = roleName(wanted);
    if (present == wanted) return "; it is " + role + " already, by item " + id;
    return "; change it: tkctl upnp interface set " + id + " type=" + role;
}

/// What to do where the interface of an item that is refused has an item already; empty when that one is gone.
std::string changeAdvice(Session& session, const RoleItem& wanted) {
    for (const tk::message& record : session.list(contract::path::gateway())) {
        const RoleItem present = RoleItem::fromMessage(record, {});
        if (present.interface != wanted.interface) continue;
        return changeAdvice(record.get_u32(tk::field::objectId), present.type, wanted.type);
    }
    return {};
}

void addItem(Context& context, const Arguments& arguments) {
    const KeyValues settings(arguments.settings, {"disabled"});
    const bool disabled = settings.flag("disabled").value_or(false);
    const Role role = roleNamed(arguments.type);
    Session& session = context.session();
    const RoleItem item{interfaceNamed(readInterfaces(session), arguments.name).id, role, disabled};
    checkSide(session, item, arguments.isForced);
    const tk::message reply =
        session.exchange(contract::path::gateway(), tk::command::addObject, item.toMessage());
    std::uint32_t code = 0;
    if (tk::isError(reply, &code)) {
        const Failure failure = failureFrom(reply, contract::path::gateway());
        if (code != tk::error::exists) throw failure;
        throw Failure(failure.what() + changeAdvice(session, item));
    }
    const std::uint32_t id = reply.get_u32(tk::field::objectId, tk::unassigned);
    if (id == tk::unassigned) throw Failure("the item was added, but the reply does not give its id");
    printId(context, id, std::to_string(id) + '\n');
}

void setItem(Context& context, const Arguments& arguments) {
    const KeyValues settings(arguments.settings, {"interface", "type", "disabled"});
    const std::uint32_t id = itemId(arguments.id);
    const auto disabled = settings.flag("disabled");
    const auto name = settings.text("interface");
    const auto type = settings.text("type");
    tk::message change;  // what is absent stays unchanged
    change.insert_u32(tk::field::objectId, id);
    if (disabled) change.insert_bool(tk::field::disabled, *disabled);
    if (type) change.insert_u32(contract::itemfield::type, static_cast<std::uint32_t>(roleNamed(*type)));
    Session& session = context.session();
    if (name)
        change.insert_u32(contract::itemfield::interface, interfaceNamed(readInterfaces(session), *name).id);
    checkSideOfChange(session, change, arguments.isForced);
    requestForItem(session, tk::command::setObject, change);
    printId(context, id, "");
}

void removeItem(Context& context, const Arguments& arguments) {
    tk::message item;
    item.insert_u32(tk::field::objectId, itemId(arguments.id));
    requestForItem(context.session(), tk::command::removeObject, item);
    printId(context, item.get_u32(tk::field::objectId), "");
}

void addForce(CLI::App& command, const std::shared_ptr<Arguments>& arguments) {
    command.add_flag(forceOption, arguments->isForced, "Make the interface internal even if it is outside");
}

constexpr const char* idHelp = "The id of the item, as \"tkctl upnp interface list\" shows it";

void addAddCommand(CLI::App& group, Context& context) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App& add =
        addCommand(group, context, "add", "Give an interface a role; prints the id of the new item",
                   [&context, arguments] { addItem(context, *arguments); });
    addExample(add, "lan0 internal");
    add.add_option("interface", arguments->name, "An interface, as \"tkctl interface list\" shows it")
        ->type_name("NAME")
        ->required();
    add.add_option("type", arguments->type, "internal: faces the LAN; external: faces the Internet")
        ->type_name("internal|external")
        ->required();
    add.add_option("settings", arguments->settings,
                   "disabled=yes|no: keep the item, but do not serve the interface")
        ->type_name("KEY=VALUE");
    addForce(add, arguments);
}

void addSetCommand(CLI::App& group, Context& context) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App& set = addCommand(group, context, "set", "Change an item; what is not named stays unchanged",
                               [&context, arguments] { setItem(context, *arguments); });
    addExample(set, "1 disabled=yes");
    set.add_option("id", arguments->id, idHelp)->type_name("ID")->required();
    set.add_option("settings", arguments->settings,
                   "interface=NAME: another interface\ntype=internal|external: the other side\n"
                   "disabled=yes|no: leave the interface unserved")
        ->type_name("KEY=VALUE")
        ->required();
    addForce(set, arguments);
}

void addRemoveCommand(CLI::App& group, Context& context) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App& remove = addCommand(group, context, "remove", "Take away an interface's role",
                                  [&context, arguments] { removeItem(context, *arguments); });
    addExample(remove, "1");
    remove.add_option("id", arguments->id, idHelp)->type_name("ID")->required();
}

void listRoles(Context& context) {
    Session& session = context.session();
    const std::vector<tk::message> records = session.list(contract::path::gateway());
    const std::vector<Interface> interfaces = readInterfaces(session);
    Json list = Json::array();
    Table table({"ID", "INTERFACE", "TYPE", "DISABLED"});
    for (const tk::message& record : records) {
        const std::uint32_t id = record.get_u32(tk::field::objectId);
        const RoleItem item = RoleItem::fromMessage(record, {});
        const std::string name = interfaceName(interfaces, item.interface);
        list.push_back(itemToJson(id, item, name));
        table.add({std::to_string(id), name.empty() ? std::to_string(item.interface) + " (absent)" : name,
                   roleName(item.type), yesNo(item.disabled)});
    }
    context.print(list, table);
}

}  // namespace

void addUpnpItemCommands(CLI::App& upnp, Context& context) {
    CLI::App& group =
        addGroup(upnp, context, "interface", "The interfaces that UPnP serves, and their sides");
    CLI::App& list = addCommand(group, context, "list", "List the interfaces that have a role",
                                [&context] { listRoles(context); });
    addExample(list, "--json");
    addAddCommand(group, context);
    addSetCommand(group, context);
    addRemoveCommand(group, context);
}

}  // namespace ctl
