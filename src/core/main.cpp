#include <memory>

#include "contract/programs.h"
#include "core/gateway.h"
#include "tk/account.h"
#include "tk/log.h"
#include "tk/looper.h"

namespace {

constexpr unsigned descriptors = 8192;  // for what the limits on connections and deliveries add up to

}  // namespace

int main() {
    std::string reason;
    if (!tk::giveUpRights("upnpd", {"/tesk/store"}, reason)) {  // before anything is read
        tk::log("cannot give up root's rights: ", reason);
        return 1;
    }
    tk::allowDescriptors(descriptors);
    tk::Looper looper(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    if (!looper.join(contract::program::gateway, contract::busPath, reason)) {
        tk::log("cannot join the bus at ", contract::busPath, ": ", reason);
        return 1;
    }
    auto gateway = std::make_unique<Gateway>();
    looper.addHandler(0, gateway.get());
    gateway->init();
    looper.run();
    gateway.reset();
    return 0;
}
