#include "ctl/commands.h"

#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include <CLI/App.hpp>

#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/installer.h"
#include "ctl/setupplan.h"

namespace ctl {

namespace {

bool hasTerminal() {
    return ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0;
}

/// Asks on the terminal; anything but y or yes is no.
bool agrees(Context& context) {
    context.out << "\nApply? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

/// Errors: throws Failure unless the plan may be applied; nothing has been changed then.
void getConsent(Context& context, const SetupOptions& options) {
    if (::geteuid() != 0) throw Failure("nothing has been changed: only root may apply this");
    if (options.isAgreed) return;
    if (context.json || !hasTerminal()) throw Failure("nothing has been changed: --yes applies this");
    if (!agrees(context)) throw Failure("nothing has been changed");
}

void setUp(Context& context, const SetupOptions& options) {
    const SetupPlan plan = planSetup(context, options, Wait::moment);
    if (plan.isEmpty()) {
        context.print(toJson(plan, options.file, false),
                      textOf(plan, options.file, context.terminal) + "\nEverything is set up already.\n");
        return;
    }
    const bool isToBeApplied = options.isAgreed && ::geteuid() == 0;
    if (!context.json || !isToBeApplied)
        context.print(toJson(plan, options.file, false), textOf(plan, options.file, context.terminal));
    getConsent(context, options);
    Installer(context, options).apply(plan);
    if (context.json) return context.print(toJson(plan, options.file, true), "");
    context.out << "\nDone.\n\n";
    showStatus(context);
}

}  // namespace

void addSetupCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<SetupOptions>();
    CLI::App& command =
        addCommand(app, context, "setup", "Propose roles and a configuration, ask, and apply them",
                   [&context, options] { setUp(context, *options); });
    addExample(command, "--lan br0 --yes");
    command.add_flag("--yes", options->isAgreed, "Apply without a question");
    command.add_flag("--force", options->wishes.isForced, "Make an interface internal even if it is outside");
    const auto addNames = [&command](const char* name, std::vector<std::string>& names, const char* text) {
        command.add_option(name, names, text)->type_name("NAME")->allow_extra_args(false);
    };
    addNames("--lan", options->wishes.lan, "The interface of a LAN, instead of those found; may be repeated");
    addNames("--wan", options->wishes.wan, "An uplink, instead of the one found; may be repeated");
    command.add_option("--config", options->file, "The configuration file, instead of " + options->file)
        ->type_name("FILE")
        ->take_last();
}

}  // namespace ctl
