#include "ctl/commands.h"

#include <cstdint>
#include <string>
#include <vector>

#include <CLI/App.hpp>

#include "contract/addresses.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/interfaces.h"
#include "ctl/json.h"
#include "ctl/session.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "net/convert.h"
#include "tk/names.h"

namespace ctl {

namespace {

using Address = contract::AddressRecord;

std::string textOf(const Address& entry) {
    return gateway::ipToString(entry.address.value_or(0));
}

/// All addresses, in the service's order.
/// Errors: throws Failure.
std::vector<Address> readAddresses(Session& session) {
    std::vector<Address> addresses;
    for (const tk::message& record : session.list(contract::path::addresses()))
        addresses.push_back(Address::fromMessage(record));
    return addresses;
}

Json addressesToJson(const std::vector<Address>& addresses) {
    Json list = Json::array();
    for (const Address& entry : addresses) {
        Json object;
        object["id"] = entry.id;
        object["address"] = textOf(entry);
        object["interface"] = entry.interface;
        object["disabled"] = entry.disabled;
        list.push_back(object);
    }
    return list;
}

Table addressTable(Session& session, const std::vector<Address>& addresses) {
    const std::vector<Interface> interfaces = readInterfaces(session);
    Table table({"ID", "ADDRESS", "INTERFACE", "DISABLED"});
    for (const Address& entry : addresses) {
        const std::string name = interfaceName(interfaces, entry.interface);
        table.add({std::to_string(entry.id), textOf(entry),
                   name.empty() ? std::to_string(entry.interface) : name, yesNo(entry.disabled)});
    }
    return table;
}

void listAddresses(Context& context) {
    Session& session = context.session();
    const std::vector<Address> addresses = readAddresses(session);
    if (context.json)
        context.out << lineOf(addressesToJson(addresses)) << '\n';
    else
        context.out << addressTable(session, addresses).textWithin(context.terminal);
}

}  // namespace

void addAddressCommands(CLI::App& app, Context& context) {
    CLI::App& group = addGroup(app, context, "address", "The router's IPv4 addresses");
    CLI::App& list =
        addCommand(group, context, "list", "List the IPv4 addresses and the interfaces that hold them",
                   [&context] { listAddresses(context); });
    addExample(list, "--json");
}

}  // namespace ctl
