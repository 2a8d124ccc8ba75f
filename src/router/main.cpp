#include <getopt.h>

#include <cstdio>
#include <string>
#include <vector>

#include "contract/programs.h"
#include "hub/launcher.h"
#include "hub/listener.h"
#include "router/config.h"
#include "router/configfile.h"
#include "router/privileges.h"
#include "router/router.h"
#include "tk/fd.h"
#include "tk/log.h"
#include "tk/servicemanager.h"
#include "tk/status.h"
#include "tk/version.h"

namespace {

constexpr const char* usage =
    "usage: routerd [--config FILE] [--check]\n"
    "\n"
    "The router around the gateway daemon: carries the messages of the bus, and offers the interfaces, the\n"
    "addresses and the destination NAT of the kernel on it.\n"
    "\n"
    "  --config FILE  read this configuration (default /tesk/etc/router.toml, which may be absent)\n"
    "  --check        only check the configuration: nothing is written when it is good, otherwise what is\n"
    "                 wrong, and the status is 1; to be run as the user who starts routerd\n"
    "  --help         write this text\n"
    "  --version      write the version\n";

constexpr int done = 0;
constexpr int failed = 1;
constexpr int misuse = 2;

/// Reads the configuration as a start would.
int check(const std::string& configPath, bool mayBeAbsent) {
    const tk::Result<router::Config> config = router::ConfigFile(configPath, mayBeAbsent).read();
    if (config.isOk()) return done;
    std::printf("%s\n", config.reason().c_str());
    return failed;
}

/// Starts the launcher, and gives up the rights that the router does not need.
tk::Status becomeUser(router::ConfigFile& file, const router::Config& config, const router::Paths& paths,
                      hub::Launcher& launcher) {
    const auto reread = [&file]() -> tk::Result<std::vector<hub::ProgramConfig>> {
        const tk::Result<router::Config> read = file.readAgain();
        return read.isOk() ? tk::Result(router::commandsIn(*read)) : read.status();
    };
    if (tk::Status opened = launcher.open(router::commandsIn(config), reread); !opened.isOk()) return opened;
    return router::dropPrivileges(*config.user, paths.busFolder(), paths.stores);
}

/// Runs the router until it is to end.
/// Errors: why it cannot run.
tk::Status serve(const std::string& configPath, bool mayBeAbsent, const tk::ServiceManager& manager) {
    router::ConfigFile file(configPath, mayBeAbsent);
    const tk::Result<router::Config> config = file.read();
    if (!config.isOk()) return config.status();
    const router::Paths paths{.bus = contract::busPath};
    // First of all, so that nothing is touched that another router uses.
    if (tk::Status isFree = hub::Listener::checkFree(paths.bus); !isFree.isOk()) return isFree;
    hub::OwnProcesses own;
    // Starts programs as other users, whom this process can no longer become.
    hub::Launcher launcher;
    if (file.givesUpRoot())
        if (tk::Status became = becomeUser(file, *config, paths, launcher); !became.isOk()) return became;
    if (tk::Status may = router::checkPrivileges(); !may.isOk()) return may;
    hub::Processes& processes = file.givesUpRoot() ? static_cast<hub::Processes&>(launcher) : own;
    router::Router router(file, *config, paths, processes);
    if (tk::Status started = router.start(); !started.isOk()) return started;
    router.run(manager);
    return {};
}

}  // namespace

int main(int count, char** arguments) {
    enum Option : int { configOption = 1, checkOption, helpOption, versionOption };
    static const option options[] = {{"config", required_argument, nullptr, configOption},
                                     {"check", no_argument, nullptr, checkOption},
                                     {"help", no_argument, nullptr, helpOption},
                                     {"version", no_argument, nullptr, versionOption},
                                     {nullptr, 0, nullptr, 0}};
    std::string configPath = contract::usualConfiguration;
    bool isDefault = true;
    bool onlyChecks = false;
    opterr = 0;  // usage is all that is said, and where all is said
    for (int given = 0; (given = ::getopt_long(count, arguments, "", options, nullptr)) != -1;)
        switch (given) {
            case configOption:
                configPath = optarg;
                isDefault = false;
                break;
            case checkOption:
                onlyChecks = true;
                break;
            case helpOption:
                std::fputs(usage, stdout);
                return done;
            case versionOption:
                std::printf("routerd %s\n", tk::version());
                return done;
            default:
                std::fputs(usage, stdout);
                return misuse;
        }
    if (optind < count) {
        std::fputs(usage, stdout);
        return misuse;
    }
    router::Router::holdHangups();
    tk::reserveStandardDescriptors();
    if (onlyChecks) return check(configPath, isDefault);
    const tk::ServiceManager manager;
    const tk::Status served = serve(configPath, isDefault, manager);
    if (served.isOk()) return done;
    tk::log("routerd: ", served.reason());
    manager.tellStatus(served.reason());
    return failed;
}
