#pragma once

#include <string>
#include <vector>

#include "ctl/context.h"
#include "ctl/setupplan.h"

namespace ctl {

/// Carries out what "tkctl setup" proposes: writes the configuration file, has routerd read it or starts it,
/// gives the interfaces their roles and switches UPnP on.
class Installer {
public:
    /// Lifetime: both outlive the installer.
    Installer(Context& context, const SetupOptions& options) : context(context), options(options) {}

    /// Returns once everything is in force.
    /// Errors: throws Failure, which says what has been done. A file that routerd refuses is put back as it
    /// was.
    void apply(const SetupPlan& plan);

private:
    void changeFile(const SetupPlan& plan);
    void readAgain(const SetupPlan& plan);
    void putBack(const SetupPlan& plan);
    void startRouter();
    void give(const std::vector<setup::ItemChange>& changes);
    void switchOn();
    void waitUntilInside(const setup::Proposal& proposal);
    [[nodiscard]] std::string explain(const std::string& reason) const;

    Context& context;
    const SetupOptions& options;
    std::vector<std::string> done;
};

}  // namespace ctl
