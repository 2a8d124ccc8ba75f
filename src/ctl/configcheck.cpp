#include "ctl/configcheck.h"

#include <filesystem>
#include <system_error>

#include "machine/configuration.h"
#include "machine/tool.h"

namespace ctl {

std::string refusalOf(const std::string& file, const std::string& name) {
    std::error_code unknown;  // it stays as it is written then
    const std::filesystem::path whole = std::filesystem::absolute(file, unknown);
    const std::string path = unknown ? file : whole.string();
    const auto check = machine::checkConfiguration(machine::findBeside("routerd"), path);
    if (!check.isOk()) return check.reason();
    const std::string& reason = check->refusal;
    return reason.starts_with(path) ? name + reason.substr(path.size()) : reason;
}

}  // namespace ctl
