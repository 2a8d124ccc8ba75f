#include "ctl/commands.h"

#include <CLI/App.hpp>

#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/json.h"
#include "tk/characters.h"
#include "tk/names.h"

namespace ctl {

namespace {

void reload(Context& context) {
    const tk::message reply = context.session().exchange(contract::path::hub(), tk::command::hubReload);
    std::uint32_t code = 0;
    std::string text;
    if (tk::isError(reply, &code, &text) && code == tk::error::failed)
        throw Failure("nothing has changed: " + text);
    if (tk::isError(reply)) throw failureFrom(reply, contract::path::hub());
    Json sections = Json::array();
    std::string names;
    for (const tk::message& section : reply.get_message_array(tk::hubfield::sections)) {
        sections.push_back(section.get_string(tk::hubfield::section));
        names += (names.empty() ? "" : ", ") + tk::printable(section.get_string(tk::hubfield::section));
    }
    Json answer;
    answer["changed"] = sections;
    context.print(answer, names.empty() ? "nothing has changed\n" : "changed: " + names + "\n");
}

}  // namespace

void addReloadCommand(CLI::App& app, Context& context) {
    CLI::App& command =
        addCommand(app, context, "reload", "Read router.toml again: what has changed is in force at once",
                   [&context] { reload(context); });
    command.footer(
        "Rules and connections stay. A file with a fault changes nothing.\n"
        "for example: tkctl reload");
}

}  // namespace ctl
