#include <cstdio>
#include <memory>
#include <string_view>

#include "contract/programs.h"
#include "core/gateway.h"
#include "tk/account.h"
#include "tk/log.h"
#include "tk/looper.h"
#include "tk/version.h"

namespace {

constexpr unsigned descriptors = 16384;  // for all connections, unread answers and deliveries of five uplinks

constexpr const char* usage =
    "usage: upnpd\n"
    "\n"
    "The UPnP gateway daemon. It learns everything over the bus of routerd, and takes no argument.\n"
    "\n"
    "  --help     write this text\n"
    "  --version  write the version\n";

/// Answers a call with arguments, and returns the status to end with.
int refuseArguments(int count, char** arguments) {
    const std::string_view first = arguments[1];
    if (count == 2 && first == "--version") {
        std::printf("upnpd %s\n", tk::version());
        return 0;
    }
    std::fputs(usage, stdout);
    return count == 2 && first == "--help" ? 0 : 2;
}

}  // namespace

int main(int count, char** arguments) {
    if (count > 1) return refuseArguments(count, arguments);
    // Before anything is read.
    if (const tk::Status given = tk::giveUpRights("upnpd", {contract::gatewayStores}); !given.isOk()) {
        tk::log("cannot give up root's rights: ", given.reason());
        return 1;
    }
    tk::allowDescriptors(descriptors);
    tk::Looper looper(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    if (const tk::Status joined = looper.join(contract::program::gateway, contract::busPath);
        !joined.isOk()) {
        tk::log("cannot join the bus at ", contract::busPath, ": ", joined.reason());
        return 1;
    }
    auto gateway = std::make_unique<gateway::Gateway>();
    looper.addHandler(0, gateway.get());
    looper.addHandler(contract::handler::mappings, &gateway->mappingList());
    gateway->init();
    looper.run();
    gateway.reset();
    return 0;
}
