// A configuration file: it is refused with the file and the line, or it is read the same each time it is read, and the tool
// that changes single values in it finds in it what the router finds, and changes nothing else.
#include "setup/routertoml.h"

#include <stdlib.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "router/configfile.h"
#include "tk/account.h"
#include "tk/testing/folder.h"

// The users of the system are looked up in a child process: these take the place of that.
namespace tk {

Result<std::optional<Account>> findAccount(const std::string& name) {
    if (name == "root") return std::optional(Account{name, 0, 0, {0}, std::nullopt});
    if (name == "upnpd") return std::optional(Account{name, 101, 101, {101}, 102});
    if (name == "routerd") return std::optional(Account{name, 103, 103, {103}, std::nullopt});
    return std::optional<Account>();
}

Result<std::vector<std::optional<uid_t>>> findUsers(const std::vector<std::string>& names) {
    std::vector<std::optional<uid_t>> found;
    for (const std::string& name : names) {
        const Result<std::optional<Account>> account = findAccount(name);
        found.push_back(*account ? std::optional((*account)->uid) : std::nullopt);
    }
    return found;
}

}  // namespace tk

namespace {

using router::Config;
using setup::RouterToml;

constexpr const char* name = "router.toml";

/// The folder of all inputs, in memory.
const tk::testing::Folder& folder() {
    (void)::setenv("TMPDIR", "/dev/shm", 0);
    static const tk::testing::Folder shared;
    return shared;
}

/// "router.toml:3: what is wrong", with a line of the text.
void requireNamesLine(const std::string& reason, const std::string& text) {
    const std::string start = std::string(name) + ":";
    fuzz::require(reason.starts_with(start), "an error names the file");
    std::size_t line = 0;
    const char* const end = reason.data() + reason.size();
    const auto [rest, error] = std::from_chars(reason.data() + start.size(), end, line);
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    fuzz::require(error == std::errc() && line >= 1 && line <= lines + 1,
                  "an error names a line of the file");
    fuzz::require(std::string_view(rest, end).starts_with(": ") && end - rest > 2,
                  "an error says what is wrong");
}

/// Reads it as the router does, from a file, and again while it runs.
void requireSameFromFile(const std::string& text) {
    folder().write(name, text);
    router::ConfigFile file(folder().file(name), false);
    const tk::Result<Config> first = file.read();
    if (!first.isOk()) return;
    const tk::Result<Config> again = file.readAgain();
    fuzz::require(again.isOk() && *again == *first, "a file that stays is read again the same");
    fuzz::require(router::changedSections(*first, *again).empty(), "no section of it has changed");
    fuzz::require(router::commandsIn(*first) == router::commandsIn(*again), "no command of it has changed");
}

/// Finds what the router finds.
void requireSameFacts(const RouterToml& tool, const Config& config) {
    const auto lan = tool.lanInterfaces();
    fuzz::require(lan.isOk() && *lan == config.lan.interfaces,
                  "the tool sees the interfaces that the router sees");
    for (const hub::ProgramConfig& program : config.programs) {
        fuzz::require(tool.hasProgram(program.number), "the tool sees the programs that the router sees");
        fuzz::require(program.trigger.empty() || tool.hasTrigger(program.number, program.trigger),
                      "the tool sees the triggers that the router sees");
    }
}

void requireChanged(const RouterToml& tool, const setup::Changes& changes, const Config& expected) {
    const tk::Result<std::string> changed = tool.with(changes);
    if (!changed.isOk()) return fuzz::require(!changed.reason().empty(), "what cannot be changed says why");
    const tk::Result<Config> config = router::parseConfig(*changed, name);
    fuzz::require(config.isOk() && *config == expected, "a change is made, and no other");
    const tk::Result<RouterToml> again = RouterToml::parse(*changed, name);
    const tk::Result<std::string> twice = again.isOk() ? again->with(changes) : again.status();
    if (changes.programs.empty() && twice.isOk())
        fuzz::require(router::parseConfig(*twice, name).isOk(), "a change can be made twice");
}

void requireChanges(const RouterToml& tool, const Config& config) {
    Config expected = config;
    expected.lan.interfaces = {"br0", "lan1"};
    expected.nat.limit = 7;
    requireChanged(tool,
                   {{{"lan", "interfaces", setup::listText({"br0", "lan1"})}, {"nat", "limit", "7"}}, {}, {}},
                   expected);

    constexpr std::uint32_t added = 999;
    if (!tool.hasProgram(added)) {
        expected = config;
        expected.programs.push_back({added, {"/bin/true"}});
        requireChanged(tool, {{}, {{added, "command = [\"/bin/true\"]\n"}}, {}}, expected);
    }
    const auto triggered = std::find_if(config.programs.begin(), config.programs.end(),
                                        [](const auto& program) { return !program.trigger.empty(); });
    if (triggered == config.programs.end()) return;
    expected = config;
    hub::ProgramConfig& program =
        expected.programs[static_cast<std::size_t>(triggered - config.programs.begin())];
    program.trigger.clear();
    program.command = {"/bin/true"};
    requireChanged(tool, {{}, {}, {{program.number, "/bin/true", ""}}}, expected);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(fuzz::text(data, size));
    const tk::Result<Config> config = router::parseConfig(text, name);
    const tk::Result<RouterToml> tool = RouterToml::parse(text, name);
    if (!config.isOk()) requireNamesLine(config.reason(), text);
    if (!tool.isOk()) {
        fuzz::require(!config.isOk() && config.reason() == tool.reason(), "router and tool refuse it alike");
        return 0;
    }
    if (!config.isOk()) return 0;
    fuzz::require(router::parseConfig(text + "\n# the end\n", name).isOk(), "a comment changes nothing");
    requireSameFromFile(text);
    requireSameFacts(*tool, *config);
    requireChanges(*tool, *config);
    return 0;
}
