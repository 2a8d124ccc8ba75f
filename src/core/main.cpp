#include <memory>

#include "contract/programs.h"
#include "core/gateway.h"
#include "tk/account.h"
#include "tk/log.h"
#include "tk/looper.h"

namespace {

constexpr unsigned descriptors = 8192;  // enough for all connections and deliveries at their limits

}  // namespace

int main() {
    // Before anything is read.
    if (const tk::Status given = tk::giveUpRights("upnpd", {"/tesk/store"}); !given.isOk()) {
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
