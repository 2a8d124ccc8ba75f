#pragma once

#include <optional>
#include <vector>

#include "hub/processes.h"
#include "tk/fd.h"
#include "tk/status.h"

namespace hub {

/// Starts processes as children of a small process that stays root when the router gives up its privileges.
/// It starts the programs and commands of the configuration, signals and reaps what it started, and does
/// nothing else. It ends with the router.
class Launcher final : public Processes {
public:
    Launcher() = default;
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    /// Forks the small process, which will start only these programs.
    tk::Status open(const std::vector<ProgramConfig>& programs);

    tk::Result<Started> start(const ProgramConfig& program) override;
    void signal(pid_t process, int number) override;
    [[nodiscard]] std::optional<int> reap(pid_t process) override;

private:
    tk::Fd socket;
};

}  // namespace hub
