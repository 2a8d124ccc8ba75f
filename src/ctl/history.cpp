#include "ctl/history.h"

#include <CLI/App.hpp>

#include "contract/history.h"
#include "contract/programs.h"
#include "ctl/commandline.h"
#include "ctl/json.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "tk/characters.h"
#include "tk/names.h"

namespace ctl {

namespace {

void listHistory(Context& context) {
    Json list = Json::array();
    Table table({"ID", "TIME", "PROGRAM", "DESCRIPTION"});
    for (const tk::message& record : context.session().list(contract::path::history())) {
        Json entry;
        entry["id"] = record.get_u32(tk::field::objectId);
        entry["description"] = record.get_string(tk::undofield::description);
        entry["program"] = record.get_u32(contract::historyfield::program);
        entry["time"] = timeText(record.get_u64(contract::historyfield::time));
        table.add({entry["id"].dump(), entry["time"], entry["program"].dump(), entry["description"]});
        list.push_back(entry);
    }
    context.print(list, table.text());
}

void undoLast(Context& context) {
    const tk::message undone = context.session().request(contract::path::history(), contract::undoLast);
    Json answer;
    answer["id"] = undone.get_u32(tk::field::objectId);
    answer["description"] = undone.get_string(tk::undofield::description);
    context.print(answer, "undone: " + tk::printable(undone.get_string(tk::undofield::description)) + "\n");
}

}  // namespace

void addHistoryCommands(CLI::App& app, Context& context) {
    CLI::App& group =
        addGroup(app, context, "history", "The changes of the configuration that can be undone");
    addCommand(group, context, "list", "List the recorded changes", [&context] { listHistory(context); });
    addCommand(group, context, "undo", "Undo the last recorded change", [&context] { undoLast(context); });
}

}  // namespace ctl
