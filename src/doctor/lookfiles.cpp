#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "contract/programs.h"
#include "doctor/collect.h"
#include "machine/configuration.h"
#include "machine/tool.h"
#include "tk/file.h"
#include "tk/toml.h"

namespace doctor {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t configLimit = std::size_t{1024} * 1024;

constexpr struct {
    const char* folder;
    std::uint32_t program;
} folders[] = {{contract::networkStores, contract::program::network},
               {contract::gatewayStores, contract::program::gateway}};

/// A damaged store was kept under such a name, with a number after it where the name was taken.
bool isKeptAside(std::string_view path) {
    const std::size_t last = path.find_last_not_of("0123456789");
    return path.ends_with(".damaged") || path.substr(0, last + 1).ends_with(".damaged.");
}

StoreFact lookAtStore(const char* folder, std::uint32_t program) {
    StoreFact store;
    store.folder = folder;
    store.program = program;
    struct stat about {};
    struct statvfs room {};
    store.exists = ::stat(folder, &about) == 0 && S_ISDIR(about.st_mode) && ::statvfs(folder, &room) == 0;
    if (!store.exists) return store;
    store.owner = about.st_uid;
    store.ownerMayWrite = (about.st_mode & S_IWUSR) != 0 && (about.st_mode & S_IXUSR) != 0;
    store.isReadOnly = (room.f_flag & ST_RDONLY) != 0;
    store.freeBytes = std::uint64_t{room.f_bavail} * room.f_frsize;
    std::error_code ignored;  // a folder that closes meanwhile has no more files
    for (const auto& entry : fs::directory_iterator(folder, ignored)) {
        const std::string path = entry.path().string();
        if (isKeptAside(path)) store.damaged.push_back(path);
        if (::stat(path.c_str(), &about) == 0)
            store.newest = std::max<std::int64_t>(store.newest, about.st_mtime);
    }
    std::sort(store.damaged.begin(), store.damaged.end());
    return store;
}

/// The folder in /proc of the routerd that runs; empty when none is known.
std::string processFolder(const BusFacts& bus) {
    for (const ProgramFact& program : bus.programs)
        if (program.number == contract::program::network) return "/proc/" + std::to_string(program.pid);
    return {};
}

/// The file that routerd reads.
std::string configPath(const BusFacts& bus) {
    for (const ProgramFact& program : bus.programs)
        if (program.number == contract::program::network) return machine::configurationOf(program.pid);
    return contract::usualConfiguration;
}

/// The file of the routerd that runs, or else of the one that came with this program.
std::string routerProgram(const std::string& process) {
    std::error_code error;
    const std::string running = fs::read_symlink(process + "/exe", error).string();
    // After an installation the running file is gone, and the next start is of another one.
    return !error && ::access(running.c_str(), X_OK) == 0 ? running : machine::findBeside("routerd");
}

/// Lets routerd itself judge its file.
void checkConfig(const std::string& process, MachineFacts& machine) {
    const auto check = machine::checkConfiguration(routerProgram(process), machine.config.path);
    if (!check.isOk()) {
        machine.unseen.push_back({machine.config.path, check.reason(), ""});
        return;
    }
    machine.config.fault = check->refusal;
    machine.config.command = check->command;
}

void lookAtConfig(const BusFacts& bus, MachineFacts& machine) {
    machine.config.path = configPath(bus);
    checkConfig(processFolder(bus), machine);
    const auto text = tk::readFile(machine.config.path, configLimit);
    if (!text.isOk() && text.status().code() == ENOENT) return;  // as if it were empty
    const auto config = text.isOk() ? parseConfig(*text, machine.config.path) : text.status();
    if (config.isOk())
        machine.config.terminable = config->terminable;
    else if (machine.config.fault.empty())
        machine.unseen.push_back({machine.config.path, config.reason(), ""});
}

std::int64_t timeOfOwnFile() {
    struct stat about {};
    return ::stat("/proc/self/exe", &about) == 0 ? about.st_mtime : 0;
}

}  // namespace

void lookAtFiles(const BusFacts& bus, MachineFacts& machine) {
    machine.hasSystemd = machine::hasSystemd();
    machine.programFolder = fs::path(machine::findBeside("routerd")).parent_path().string();
    for (const auto& one : folders) machine.stores.push_back(lookAtStore(one.folder, one.program));
    machine.hasFolderRules = machine.hasSystemd && ::access("/usr/lib/tmpfiles.d/gateway.conf", F_OK) == 0;
    lookAtConfig(bus, machine);
    machine.now = ::time(nullptr);
    machine.builtAfter = timeOfOwnFile();
}

tk::Result<ConfigFacts> parseConfig(const std::string& text, const std::string& path) {
    const toml::parse_result parsed = toml::parse(text);
    if (!parsed)
        return tk::Status::failure("line " + std::to_string(parsed.error().source().begin.line) + ": " +
                                   std::string(parsed.error().description()));
    ConfigFacts config;
    config.path = path;
    if (const toml::array* interfaces = parsed.table()["interface"].as_array())
        for (const toml::node& node : *interfaces)
            if (const toml::table* interface = node.as_table();
                interface && (*interface)["terminate"].value_or(false))
                config.terminable.push_back((*interface)["name"].value_or(std::string()));
    return config;
}

}  // namespace doctor
