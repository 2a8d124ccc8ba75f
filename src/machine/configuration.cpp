#include "machine/configuration.h"

#include <cstddef>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "tk/file.h"

namespace machine {

namespace {

constexpr std::size_t limit = 65536;
constexpr std::string_view option = "--config";

/// Takes the first argument off a command line.
std::string_view takeArgument(std::string_view& line) {
    const std::string_view argument = line.substr(0, line.find('\0'));
    line.remove_prefix(argument.size() == line.size() ? line.size() : argument.size() + 1);
    return argument;
}

/// True also for the option cut short, as routerd takes it.
bool namesFile(std::string_view name) {
    return name.starts_with("--c") && option.starts_with(name);
}

}  // namespace

std::string configurationIn(const std::string& commandLine) {
    std::string file = usualConfiguration;
    for (std::string_view rest = commandLine; !rest.empty();) {
        const std::string_view argument = takeArgument(rest);
        const std::string_view name = argument.substr(0, argument.find('='));
        if (!namesFile(name)) continue;
        file = name == argument ? takeArgument(rest) : argument.substr(name.size() + 1);
    }
    return file;
}

std::string configurationOf(std::uint32_t pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    const auto line = tk::readFile(process + "/cmdline", limit);
    if (!line.isOk()) return usualConfiguration;
    const std::filesystem::path file = configurationIn(*line);
    if (file.is_absolute()) return file.string();
    std::error_code unknown;
    const std::filesystem::path folder = std::filesystem::read_symlink(process + "/cwd", unknown);
    return unknown ? file.string() : (folder / file).string();
}

}  // namespace machine
