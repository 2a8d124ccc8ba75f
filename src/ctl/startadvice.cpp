#include "ctl/startadvice.h"

#include <errno.h>

#include <cstring>

#include "machine/tool.h"

namespace ctl {

std::string startLine(const std::string& program, const std::string& words) {
    const std::string found = machine::findBeside(program);
    return machine::startLine(found.empty() ? program : found, words);
}

std::string startAdvice(const std::string& program) {
    return "start it: " + (machine::hasSystemd() ? "systemctl start " + program : startLine(program));
}

std::string restartAdvice(const std::string& program) {
    if (machine::hasSystemd()) return "start it again: systemctl restart " + program;
    return "if that lasts, end " + program + " and start it again";
}

Unreachable unreachableBus(const std::string& socketPath, std::uint32_t error) {
    const std::string what = "cannot reach routerd at " + socketPath + ": ";
    if (error == ENOENT || error == ECONNREFUSED)
        return {what + "it is not running", startAdvice("routerd"), error};
    if (error == EACCES)
        return {what + "only root and members of the group tk may", "usermod -aG tk USER adds one", error};
    return {what + std::strerror(static_cast<int>(error)), "", error};
}

}  // namespace ctl
