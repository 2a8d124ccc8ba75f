#include "ctl/configcheck.h"

#include <filesystem>

#include "machine/tool.h"

namespace ctl {

std::string refusalOf(const std::string& file, const std::string& name) {
    constexpr int refused = 1;  // what does not know the option ends with another status
    const std::string router = machine::findBeside("routerd");
    if (router.empty()) return {};
    const std::string path = std::filesystem::absolute(file).string();
    const auto end = machine::runTool({router, "--check", "--config", path});
    if (!end.isOk()) return end.reason();
    if (end->status != refused) return {};
    const std::string reason = end->output.substr(0, end->output.find('\n'));
    return reason.starts_with(path) ? name + reason.substr(path.size()) : reason;
}

}  // namespace ctl
