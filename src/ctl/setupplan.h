#pragma once

#include <string>
#include <vector>

#include "contract/programs.h"
#include "ctl/context.h"
#include "ctl/daemonanswer.h"
#include "ctl/json.h"
#include "ctl/terminal.h"
#include "setup/proposal.h"

namespace ctl {

/// What starts routerd where systemd runs.
constexpr const char* routerUnit = "routerd.service";

/// What "tkctl setup" was called with.
struct SetupOptions {
    std::string file = contract::usualConfiguration;
    setup::Wishes wishes;
    bool isAgreed = false;  // true: applies without a question
};

/// What "tkctl setup" is going to do, as found out from the machine, the configuration file and the bus.
struct SetupPlan {
    setup::Proposal proposal;
    bool fileExists = false;
    std::string before;  // the text of the configuration file
    std::string after;
    bool isRunning = false;   // routerd serves the bus
    bool knowsItems = false;  // upnpd tells its items and settings
    std::string silence;      // why it does not, and what to do
    bool isEnabled = false;   // UPnP is switched on
    std::vector<setup::ItemChange> changes;
    std::vector<std::string> notes;  // what setup leaves to the administrator

    /// True when nothing has to be done.
    [[nodiscard]] bool isEmpty() const {
        return before == after && isRunning && changes.empty() && isEnabled;
    }
};

/// Finds out what has to be done. `wait` is for an upnpd that does not answer at once.
/// Errors: throws Failure, also when routerd reads another file, or would; nothing has been changed.
[[nodiscard]] SetupPlan planSetup(Context& context, const SetupOptions& options, Wait wait);

/// The plan for people.
[[nodiscard]] std::string textOf(const SetupPlan& plan, const std::string& file, const Terminal& terminal);

/// The plan as an object; `isApplied`: true when it has been carried out.
[[nodiscard]] Json toJson(const SetupPlan& plan, const std::string& file, bool isApplied);

/// True when routerd can be reached.
/// Errors: throws Failure when it runs, but this user cannot reach it.
[[nodiscard]] bool isRouterRunning(Context& context);

}  // namespace ctl
