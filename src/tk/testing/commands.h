#pragma once

#include <stdio.h>
#include <sys/wait.h>

#include <string>

namespace tk::testing {

/// Runs a shell command in the test's network namespace and returns what it writes to standard output.
/// `failed` is set when its status is not 0.
inline std::string run(const std::string& command, bool& failed) {
    FILE* pipe = ::popen(command.c_str(), "r");
    failed = pipe == nullptr;
    if (!pipe) return {};
    std::string output;
    char part[4096];
    for (std::size_t count = 0; (count = ::fread(part, 1, sizeof part, pipe)) > 0;)
        output.append(part, count);
    failed = ::pclose(pipe) != 0;
    return output;
}

}  // namespace tk::testing
