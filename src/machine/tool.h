#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tk/status.h"

/// What this machine is: its tools, and what they tell of it. For the administrator's programs, which may
/// wait.
namespace machine {

/// What a tool may use up.
struct ToolLimits {
    int milliseconds = 5000;
    std::size_t bytes = std::size_t{16} * 1024 * 1024;  // of output, and of errors
};

/// How a tool ended. A value.
struct ToolEnd {
    int status = 0;      // that of the tool; 128 and the signal's number when a signal ended it
    std::string output;  // what it wrote to standard output
    std::string errors;  // and to standard error

    /// True when the tool reports success.
    bool isOk() const { return status == 0; }
};

/// Runs a tool to its end, without a shell and without input, in the C locale and the root folder.
/// `arguments` begin with its name, which is looked for in the system's folders alone, or with its full path.
/// What the tool itself started is not waited for.
/// Errors: code ENOENT when there is no such tool, ETIMEDOUT and EFBIG when it went over a limit: it has been
/// killed then; otherwise the errno value of what failed.
[[nodiscard]] tk::Result<ToolEnd> runTool(const std::vector<std::string>& arguments,
                                          const ToolLimits& limits = {});

/// What a tool writes to standard output.
/// Errors: as above, and code 0 when the tool reports a failure; the reason has the first line of its errors.
[[nodiscard]] tk::Result<std::string> outputOf(const std::vector<std::string>& arguments,
                                               const ToolLimits& limits = {});

/// The full path of a tool in the system's folders; empty when there is none.
[[nodiscard]] std::string findTool(const std::string& name);

/// True when systemd runs this machine.
[[nodiscard]] bool hasSystemd();

/// The line of the shell that starts a program of the router, which then goes on by itself and writes to its
/// log: for machines without systemd.
/// `program`: its full path, or its name. `words`, if any, are its arguments.
[[nodiscard]] std::string startLine(const std::string& program, const std::string& words = {});

/// The full path of a program that came with the one that runs: it is beside it, or else in the system's
/// folders. Empty when there is none.
[[nodiscard]] std::string findBeside(const std::string& name);

}  // namespace machine
