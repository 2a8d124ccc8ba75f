#include "ctl/commands.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/App.hpp>

#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/fieldspec.h"
#include "ctl/json.h"
#include "ctl/text.h"

namespace ctl {

namespace {

// The router itself ends an unanswered request a little later.
constexpr std::uint32_t longestTimeout = 60000;

struct Arguments {
    std::string path;
    std::string command;
    std::vector<std::string> fields;
    std::string timeout = std::to_string(requestTimeout);
};

void call(Context& context, const Arguments& arguments) {
    const auto path = parsePath(arguments.path);
    if (!path) throw misuse("'" + arguments.path + "': a path is numbers separated by commas, such as 20,5");
    const auto command = parseU32(arguments.command);
    if (!command) throw misuse("'" + arguments.command + "': a command is a number such as 1 or 0xFE0004");
    const auto timeout = parseNumber(arguments.timeout, longestTimeout);
    if (!timeout)
        throw misuse("'" + arguments.timeout + "': a time-out is a number of milliseconds up to " +
                     std::to_string(longestTimeout));
    const tk::message fields = parseFields(arguments.fields);

    const tk::message end =
        context.session().exchange(*path, *command, fields, static_cast<std::uint32_t>(*timeout));
    const bool failed = tk::isError(end);
    context.print(toJson(end), failed ? "" : fieldLines(end));
    if (!failed) return;
    context.out.flush();  // the object first, then the reason
    throw failureFrom(end);
}

}  // namespace

void addBusCallCommand(CLI::App& bus, Context& context) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App& command = addCommand(bus, context, "call", "Send a request and print the reply",
                                   [&context, arguments] { call(context, *arguments); });
    addExample(command, "20,5 0xFE0004");
    command.add_option("path", arguments->path, "The path to ask, for example 65 or 20,5")
        ->type_name("PATH")
        ->required();
    command.add_option("command", arguments->command, "The number of the command, for example 0xFE0004")
        ->type_name("COMMAND")
        ->required();
    command
        .add_option("fields", arguments->fields,
                    "The request's fields. Types: u32, bool, string, be32, u64, u32[] (comma-separated) and\n"
                    "message[] (JSON). Numbers are decimal or 0x hexadecimal, for example 0xFE0001:u32=7")
        ->type_name("FIELD:TYPE=VALUE");
    command.add_option("--timeout", arguments->timeout, "How long to wait for the reply, 60000 at most")
        ->type_name("MILLISECONDS")
        ->capture_default_str();
}

}  // namespace ctl
