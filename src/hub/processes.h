#pragma once

#include <sys/types.h>

#include <string>

#include "hub/spawn.h"
#include "tk/fd.h"

namespace router {

/// How a process ended, for people, by its status.
[[nodiscard]] std::string endText(int status);

/// Starts and ends the processes of programs.
class Processes {
public:
    virtual ~Processes() = default;
    /// Starts a program; `process` is a descriptor of the process, which can be read when it has ended.
    /// Errors: -1, with the reason in `reason`.
    [[nodiscard]] virtual pid_t start(const ProgramConfig& program, tk::Fd& process, std::string& reason) = 0;
    /// Sends a signal to the group of a process that was started here and not reaped yet.
    virtual void signal(pid_t process, int number) = 0;
    /// Takes the status of a process that has ended. False while it runs.
    [[nodiscard]] virtual bool reap(pid_t process, int& status) = 0;
};

/// The processes are children of this one.
class OwnProcesses final : public Processes {
public:
    [[nodiscard]] pid_t start(const ProgramConfig& program, tk::Fd& process, std::string& reason) override;
    void signal(pid_t process, int number) override;
    [[nodiscard]] bool reap(pid_t process, int& status) override;
};

}  // namespace router
