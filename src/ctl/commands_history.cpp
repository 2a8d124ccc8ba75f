#include "ctl/commands.h"

#include <CLI/App.hpp>

#include "contract/history.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/json.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "tk/characters.h"

namespace ctl {

namespace {

void listHistory(Context& context) {
    Json list = Json::array();
    Table table({"ID", "TIME", "PROGRAM", "DESCRIPTION"});
    for (const tk::message& record : context.session().list(contract::path::history())) {
        const contract::UndoRecord change = contract::UndoRecord::fromMessage(record);
        Json entry;
        entry["id"] = change.id;
        entry["description"] = change.description;
        entry["program"] = change.program;
        entry["time"] = timeText(change.time);
        table.add({entry["id"].dump(), entry["time"], entry["program"].dump(), entry["description"]});
        list.push_back(entry);
    }
    context.print(list, table);
}

void undoLast(Context& context) {
    const contract::UndoRecord undone = contract::UndoRecord::fromMessage(
        context.session().request(contract::path::history(), contract::undoLast));
    Json answer;
    answer["id"] = undone.id;
    answer["description"] = undone.description;
    context.print(answer, "undone: " + tk::printable(undone.description) + "\n");
}

}  // namespace

void addHistoryCommands(CLI::App& app, Context& context) {
    CLI::App& group =
        addGroup(app, context, "history", "The changes of the configuration that can be undone");
    CLI::App& list =
        addCommand(group, context, "list", "List the recorded changes", [&context] { listHistory(context); });
    addExample(list, "--json");
    CLI::App& undo = addCommand(group, context, "undo", "Undo the last recorded change",
                                [&context] { undoLast(context); });
    addExample(undo, "");
}

}  // namespace ctl
