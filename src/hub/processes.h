#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tk/account.h"
#include "tk/fd.h"
#include "tk/status.h"

namespace hub {

/// A program that the router can start. A value.
struct ProgramConfig {
    std::uint32_t number = 0;
    std::vector<std::string> command;  // the program's path, then its arguments
    bool startsWithRouter = false;
    std::optional<tk::Account> user = {};  // that it runs as; none: the router's
    std::string unit = {};                 // its systemd service, instead of a command
    std::string trigger = {};              // the file that asks for it, instead of either

    /// True when a service manager runs the program and decides on its user: the router only asks for it.
    [[nodiscard]] bool isManaged() const { return !unit.empty() || !trigger.empty(); }

    bool operator==(const ProgramConfig&) const = default;
};

/// The command that starts a program: its own, or the one that asks systemd for its unit.
[[nodiscard]] std::vector<std::string> commandOf(const ProgramConfig& program);

/// Asks for a program by its trigger: makes the file unless it is there, and writes to it. Whoever watches it
/// starts the program. Makes the folder first if that is missing (one level). Only the user of the process may
/// write to either, and everybody may watch them.
/// Errors: why the file could not be written. Also for a file that is no trigger: one with other content than
/// a pull leaves, with a second name, or of another user.
[[nodiscard]] tk::Status pullTrigger(const std::string& path);

/// How a process with this status ended, for people.
[[nodiscard]] std::string endText(int status);

/// A process that was started.
struct Started {
    pid_t pid;
    tk::Fd process;  // readable once the process has ended
};

/// Starts and ends the processes of programs.
class Processes {
public:
    virtual ~Processes() = default;
    /// Starts a program as its user, in its own process group, with no signal blocked or ignored.
    /// Errors: why it could not become that user, or why the command could not be run.
    virtual tk::Result<Started> start(const ProgramConfig& program) = 0;
    /// Sends a signal to the group of a process that was started here and not reaped yet.
    virtual void signal(pid_t process, int number) = 0;
    /// Takes the status of a process that has ended; none while it runs.
    [[nodiscard]] virtual std::optional<int> reap(pid_t process) = 0;

    // The programs that may be started change in two steps, as the rest of the configuration comes in between.

    /// Makes ready to start these programs, and no others.
    /// Errors: why they may not be started; the former ones still are.
    virtual tk::Status prepare(const std::vector<ProgramConfig>&) { return {}; }
    /// From now on starts what was last prepared.
    virtual void adopt() {}
};

/// Starts processes as children of this one.
class OwnProcesses final : public Processes {
public:
    tk::Result<Started> start(const ProgramConfig& program) override;
    void signal(pid_t process, int number) override;
    [[nodiscard]] std::optional<int> reap(pid_t process) override;
};

}  // namespace hub
