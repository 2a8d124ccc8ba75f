#include "machine/configuration.h"

#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "contract/programs.h"
#include "machine/tool.h"
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

/// The user as whom systemd starts routerd; empty when it starts it as root, or not at all.
std::string starter() {
    if (!hasSystemd()) return {};
    const auto user = outputOf({"systemctl", "show", "--property=User", "--value", "routerd.service"});
    return user.isOk() ? user->substr(0, user->find('\n')) : std::string();
}

std::vector<std::string> checkWords(const std::string& program, const std::string& file) {
    std::vector<std::string> words;
    if (const std::string user = starter(); !user.empty())
        words = {"setpriv", "--reuid", user, "--regid", user, "--init-groups"};
    words.insert(words.end(), {program, "--check"});
    // The usual one may be absent.
    if (file != contract::usualConfiguration) words.insert(words.end(), {"--config", file});
    return words;
}

}  // namespace

std::string configurationIn(const std::string& commandLine) {
    std::string file = contract::usualConfiguration;
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
    if (!line.isOk()) return contract::usualConfiguration;
    const std::filesystem::path file = configurationIn(*line);
    if (file.is_absolute()) return file.string();
    std::error_code unknown;
    const std::filesystem::path folder = std::filesystem::read_symlink(process + "/cwd", unknown);
    return unknown ? file.string() : (folder / file).string();
}

tk::Result<ConfigurationCheck> checkConfiguration(const std::string& program, const std::string& file) {
    constexpr int refused = 1;  // what does not know the option ends with another status
    if (::geteuid() != 0 || program.empty()) return ConfigurationCheck();
    const std::vector<std::string> words = checkWords(program, file);
    const auto end = runTool(words);
    if (!end.isOk()) return end.status();
    ConfigurationCheck check;
    for (const std::string& word : words) check.command += (check.command.empty() ? "" : " ") + word;
    if (end->status == refused) check.refusal = end->output.substr(0, end->output.find('\n'));
    return check;
}

}  // namespace machine
