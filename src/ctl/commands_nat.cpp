#include "ctl/commands.h"

#include <netinet/in.h>

#include <memory>
#include <string>

#include <CLI/App.hpp>

#include "contract/natrules.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "machine/network.h"
#include "net/convert.h"
#include "tk/message.h"

namespace ctl {

namespace {

using contract::NatRule;
using contract::NatTraffic;

Json ruleToJson(const tk::message& record) {
    const NatRule rule = NatRule::fromMessage(record);
    const NatTraffic traffic = NatTraffic::fromMessage(record);
    Json object;
    object["id"] = rule.id;
    object["disabled"] = rule.disabled;
    object["dynamic"] = rule.dynamic;
    object["chain"] = record.get_string(contract::rulefield::chain);
    object["dstAddress"] = gateway::ipToString(rule.key.destination);
    object["protocol"] = protocolText(rule.key.protocol);
    object["dstPort"] = rule.key.port;
    object["toAddress"] = gateway::ipToString(rule.target.address);
    object["toPort"] = rule.target.port;
    if (rule.owner != 0) object["owner"] = rule.owner;
    object["packets"] = traffic.packets;
    object["bytes"] = traffic.bytes;
    return object;
}

std::string placeText(std::uint32_t address, std::uint16_t port) {
    return gateway::ipToString(address) + ':' + std::to_string(port);
}

/// Without what says nothing: the chain is always the same, and a rule with an owner is dynamic.
Table::Row ruleToRow(const tk::message& record) {
    const NatRule rule = NatRule::fromMessage(record);
    const NatTraffic traffic = NatTraffic::fromMessage(record);
    return {std::to_string(rule.id),
            protocolText(rule.key.protocol),
            placeText(rule.key.destination, rule.key.port),
            placeText(rule.target.address, rule.target.port),
            yesNo(rule.disabled),
            rule.owner != 0 ? programText(rule.owner) : "",
            std::to_string(traffic.packets),
            std::to_string(traffic.bytes)};
}

/// Makes only what is printed: there may be tens of thousands of rules.
void listRules(Context& context) {
    tk::message query;
    query.insert_u32(tk::field::options, contract::withTraffic);
    Json list = Json::array();
    Table table({"ID", "PROTOCOL", "FROM", "TO", "DISABLED", "OWNER", "PACKETS", "BYTES"});
    for (const tk::message& record : context.session().list(contract::path::nat(), query))
        if (context.json)
            list.push_back(ruleToJson(record));
        else
            table.add(ruleToRow(record));
    table.keepWhole("FROM");
    table.keepWhole("TO");
    table.dropToFit(context.terminal, {"PACKETS", "ID", "OWNER", "DISABLED"});
    context.print(list, table);
}

/// What "nat test" was called with.
struct Question {
    std::string address;
    std::string port;
    std::string protocol;
    std::string target;
    std::string targetPort;
};

std::uint32_t addressNamed(const std::string& text) {
    if (const auto address = machine::parseIPv4(text)) return *address;
    throw misuse("'" + text + "': expected an IPv4 address such as 192.0.2.1");
}

std::uint16_t portNamed(const std::string& text) {
    constexpr std::uint64_t highest = 65535;
    if (const auto port = parseNumber(text, highest)) return static_cast<std::uint16_t>(*port);
    throw misuse("'" + text + "': expected a port, 0 to 65535");
}

std::uint8_t protocolNamed(const std::string& text) {
    for (const std::uint8_t protocol : {std::uint8_t{IPPROTO_TCP}, std::uint8_t{IPPROTO_UDP}})
        if (text == protocolText(protocol)) return protocol;
    throw misuse("'" + text + "': the protocol is tcp or udp");
}

void testRule(Context& context, const Question& question) {
    NatRule rule;
    rule.dynamic = true;
    rule.key.destination = addressNamed(question.address);
    rule.key.port = portNamed(question.port);
    rule.key.protocol = protocolNamed(question.protocol);
    rule.target.address = addressNamed(question.target);
    rule.target.port = portNamed(question.targetPort);
    context.session().request(contract::path::nat(), contract::testRule, rule.toQuestion());
    Json answer;
    answer["allowed"] = true;
    context.print(answer, "allowed\n");
}

void addTest(CLI::App& group, Context& context) {
    auto question = std::make_shared<Question>();
    CLI::App& command =
        addCommand(group, context, "test", "Ask whether a rule would be allowed; nothing is changed",
                   [&context, question] { testRule(context, *question); });
    addExample(command, "198.51.100.1 80 tcp 192.0.2.2 8080");
    command.add_option("address", question->address, "The external address")
        ->type_name("ADDRESS")
        ->required();
    command.add_option("port", question->port, "The external port")->type_name("PORT")->required();
    command.add_option("protocol", question->protocol, "tcp or udp")->type_name("PROTOCOL")->required();
    command.add_option("target", question->target, "The address of the host inside")
        ->type_name("TARGET")
        ->required();
    command.add_option("targetport", question->targetPort, "Its port")->type_name("TARGETPORT")->required();
}

}  // namespace

void addNatCommands(CLI::App& app, Context& context) {
    CLI::App& group = addGroup(app, context, "nat", "The router's destination NAT rules");
    CLI::App& list = addCommand(group, context, "list",
                                "List the rules that lead connections from outside to hosts inside",
                                [&context] { listRules(context); });
    addExample(list, "--json");
    addTest(group, context);
}

}  // namespace ctl
