#pragma once

#include <set>
#include <string>
#include <vector>

#include "hub/processes.h"

namespace router {

/// The processes are children of a small process of root's, which the router leaves behind before it gives up
/// its privileges. It starts the programs and commands of the configuration, signals and reaps what it
/// started, and does nothing else; it ends with the router.
class Launcher final : public Processes {
public:
    Launcher() = default;
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    /// Leaves the small process behind. Errors: false, with the reason in `reason`.
    [[nodiscard]] bool open(const std::vector<ProgramConfig>& programs, std::string& reason);

    [[nodiscard]] pid_t start(const ProgramConfig& program, tk::Fd& process, std::string& reason) override;
    void signal(pid_t process, int number) override;
    [[nodiscard]] bool reap(pid_t process, int& status) override;

private:
    tk::Fd socket;
};

}  // namespace router
