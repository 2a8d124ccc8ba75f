#include "ctl/nat.h"

#include <netinet/in.h>

#include <memory>
#include <string>

#include <CLI/App.hpp>

#include "contract/natrules.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "net/convert.h"
#include "tk/names.h"

namespace ctl {

namespace {

constexpr std::uint32_t natTestCommand = 2;

struct Rule {
    std::uint32_t id = 0;
    bool disabled = false;
    bool dynamic = false;
    std::string chain;
    std::string destinationAddress;
    std::string protocol;
    std::uint32_t destinationPort = 0;
    std::string toAddress;
    std::uint32_t toPort = 0;
};

Rule readRule(const tk::message& record) {
    Rule out;
    out.id = record.get_u32(tk::field::objectId);
    out.disabled = record.get_bool(tk::field::disabled);
    out.dynamic = record.get_bool(tk::field::dynamic);
    out.chain = record.get_string(contract::rulefield::chain);
    out.destinationAddress = ipToString(record.get_be32(contract::rulefield::dstAddressFirst));
    out.protocol = protocolText(record.get_u32(contract::rulefield::protocol));
    out.destinationPort = record.get_u32(contract::rulefield::dstPortFirst);
    out.toAddress = ipToString(record.get_be32(contract::rulefield::toAddressFirst));
    out.toPort = record.get_u32(contract::rulefield::toPortFirst);
    return out;
}

Json ruleToJson(const Rule& source) {
    Json object;
    object["id"] = source.id;
    object["disabled"] = source.disabled;
    object["dynamic"] = source.dynamic;
    object["chain"] = source.chain;
    object["dstAddress"] = source.destinationAddress;
    object["protocol"] = source.protocol;
    object["dstPort"] = source.destinationPort;
    object["toAddress"] = source.toAddress;
    object["toPort"] = source.toPort;
    return object;
}

void listRules(Context& context) {
    Json list = Json::array();
    Table table({"ID", "PROTOCOL", "FROM", "TO", "CHAIN", "DISABLED", "DYNAMIC"});
    for (const tk::message& record : context.session().list(contract::path::nat())) {
        const Rule rule = readRule(record);
        list.push_back(ruleToJson(rule));
        table.add({std::to_string(rule.id), rule.protocol,
                   rule.destinationAddress + ':' + std::to_string(rule.destinationPort),
                   rule.toAddress + ':' + std::to_string(rule.toPort), rule.chain, yesNo(rule.disabled),
                   yesNo(rule.dynamic)});
    }
    context.print(list, table.text());
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
    if (const auto address = parseAddress(text)) return *address;
    throw misuse("'" + text + "': expected an IPv4 address such as 192.0.2.1");
}

std::uint32_t portNamed(const std::string& text) {
    constexpr std::uint64_t highest = 65535;
    if (const auto port = parseNumber(text, highest)) return static_cast<std::uint32_t>(*port);
    throw misuse("'" + text + "': expected a port, 0 to 65535");
}

std::uint32_t protocolNamed(const std::string& text) {
    for (const std::uint32_t protocol : {IPPROTO_TCP, IPPROTO_UDP})
        if (text == protocolText(protocol)) return protocol;
    throw misuse("'" + text + "': the protocol is tcp or udp");
}

void testRule(Context& context, const Question& question) {
    tk::message rule;
    rule.insert_bool(tk::field::dynamic, true);
    rule.insert_bool(tk::field::disabled, false);
    rule.insert_string(contract::rulefield::chain, "dstnat");
    rule.insert_be32(contract::rulefield::dstAddressFirst, addressNamed(question.address));
    rule.insert_u32(contract::rulefield::dstPortFirst, portNamed(question.port));
    rule.insert_u32(contract::rulefield::protocol, protocolNamed(question.protocol));
    rule.insert_u32(contract::rulefield::action, contract::destinationNat);
    rule.insert_be32(contract::rulefield::toAddressFirst, addressNamed(question.target));
    rule.insert_u32(contract::rulefield::toPortFirst, portNamed(question.targetPort));
    context.session().request(contract::path::nat(), natTestCommand, rule);
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
    addCommand(group, context, "list", "List the rules that lead connections from outside to hosts inside",
               [&context] { listRules(context); });
    addTest(group, context);
}

}  // namespace ctl
