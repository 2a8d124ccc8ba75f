#include "ctl/commands.h"

#include <errno.h>

#include <vector>

#include <CLI/App.hpp>

#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/overview.h"
#include "ctl/overviewlayout.h"

namespace ctl {

void showStatus(Context& context) {
    Overview overview;
    try {
        overview = readOverview(context.session());
    } catch (const Unreachable& failure) {
        // It may well answer others.
        if (failure.error == EACCES && !context.json) throw;
        overview.routerFailure = failure.what();
    } catch (const Failure& failure) {
        overview.routerFailure = failure.what();
    }
    std::vector<Line> lines = layOut(overview, context.terminal);
    if (!overview.routerFailure.empty()) lines.resize(1);  // the failure follows
    context.print(overviewToJson(overview), context.terminal.render(lines));
    if (overview.routerFailure.empty()) return;
    context.out.flush();  // first what there is, then the reason
    throw Failure(overview.routerFailure);
}

void addStatusCommand(CLI::App& app, Context& context) {
    CLI::App& command =
        addCommand(app, context, "status", "Show on one screen what is served, mapped, refused and wrong",
                   [&context] { showStatus(context); });
    addExample(command, "--json");
}

}  // namespace ctl
