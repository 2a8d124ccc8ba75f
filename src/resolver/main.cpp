#include <getopt.h>

#include <cstdio>
#include <optional>
#include <string>

#include "contract/programs.h"
#include "net/convert.h"
#include "resolver/resolver.h"
#include "tk/account.h"
#include "tk/fd.h"
#include "tk/log.h"
#include "tk/looper.h"
#include "tk/names.h"
#include "tk/version.h"

namespace {

constexpr const char* usage =
    "usage: resolverd [--idle SECONDS]\n"
    "\n"
    "Turns host names into IPv4 addresses for the programs on the router's bus, by /etc/hosts and the name\n"
    "servers of /etc/resolv.conf. It is started when a name is asked for, and leaves when none is any more.\n"
    "\n"
    "  --idle SECONDS  leave after so long without a request, 1 to 86400 (default 60)\n"
    "  --help          write this text\n"
    "  --version       write the version\n";

constexpr int done = 0;
constexpr int failed = 1;
constexpr int misuse = 2;

constexpr std::uint32_t ticksPerSecond = 1000 / tk::tickMilliseconds;
constexpr std::uint32_t longestIdleSeconds = 86400;
constexpr unsigned descriptors = 1024;  // a handful for each of all lookups at once

int serve(const resolver::Settings& settings) {
    if (const tk::Status given = tk::giveUpRights("resolverd", {}); !given.isOk()) {
        tk::log("cannot give up root's rights: ", given.reason());
        return failed;
    }
    tk::allowDescriptors(descriptors);
    tk::Looper looper;
    resolver::Resolver handler(settings);
    looper.addHandler(0, &handler);
    if (const tk::Status joined = looper.join(contract::program::resolver, contract::busPath);
        !joined.isOk()) {
        tk::log("cannot join the bus at ", contract::busPath, ": ", joined.reason());
        return failed;
    }
    looper.run();
    handler.detach();
    return done;
}

/// Reads the idle time: seconds in the text, ticks in the answer.
/// Errors: none for anything but a number of seconds within the range.
std::optional<std::uint32_t> idleTicksIn(const std::string& text) {
    std::uint32_t seconds = 0;
    if (!gateway::isUnsigned(text, seconds) || seconds < 1 || seconds > longestIdleSeconds)
        return std::nullopt;
    return seconds * ticksPerSecond;
}

int misused() {
    std::fputs(usage, stdout);
    return misuse;
}

}  // namespace

int main(int count, char** arguments) {
    enum Option : int { idleOption = 1, helpOption, versionOption };
    static const option options[] = {{"idle", required_argument, nullptr, idleOption},
                                     {"help", no_argument, nullptr, helpOption},
                                     {"version", no_argument, nullptr, versionOption},
                                     {nullptr, 0, nullptr, 0}};
    resolver::Settings settings;
    opterr = 0;  // usage is all that is said, and where all is said
    for (int given = 0; (given = ::getopt_long(count, arguments, "", options, nullptr)) != -1;)
        switch (given) {
            case idleOption:
                if (const auto ticks = idleTicksIn(optarg)) {
                    settings.idleTicks = *ticks;
                    break;
                }
                return misused();
            case helpOption:
                std::fputs(usage, stdout);
                return done;
            case versionOption:
                std::printf("resolverd %s\n", tk::version());
                return done;
            default:
                return misused();
        }
    return optind < count ? misused() : serve(settings);
}
