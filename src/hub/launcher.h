#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "hub/processes.h"
#include "tk/fd.h"
#include "tk/status.h"

namespace hub {

/// Starts processes as children of a small process that stays root when the router gives up its privileges.
/// It starts the programs and commands of the configuration, signals and reaps what it started, and does
/// nothing else. It ends with the router. Each call fails when the small process does not answer in time.
///
/// It takes no command from the router. When the configuration changes, it reads that for itself, and compares
/// what it found with what the router did: the router may be somebody else's by then.
class Launcher final : public Processes {
public:
    /// How long the small process may take to answer.
    static constexpr std::chrono::seconds usualPatience{5};

    explicit Launcher(std::chrono::milliseconds patience = usualPatience) : patience(patience) {}
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    /// Reads the programs of the configuration again, in the small process.
    using Reread = std::function<tk::Result<std::vector<ProgramConfig>>()>;

    /// Forks the small process, which will start only these programs, or those that it reads later.
    tk::Status open(const std::vector<ProgramConfig>& programs, Reread reread);

    tk::Result<Started> start(const ProgramConfig& program) override;
    void signal(pid_t process, int number) override;
    [[nodiscard]] std::optional<int> reap(pid_t process) override;
    /// Errors: also when the small process cannot read the configuration, or reads other programs.
    tk::Status prepare(const std::vector<ProgramConfig>& programs) override;
    void adopt() override;

private:
    const std::chrono::milliseconds patience;
    tk::Fd socket;
};

}  // namespace hub
