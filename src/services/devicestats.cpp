#include "services/devicestats.h"

#include "contract/interfaces.h"
#include "contract/programs.h"
#include "tk/log.h"
#include "tk/looper.h"
#include "tk/names.h"

DeviceStats getDeviceStats(std::uint32_t deviceId) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, contract::path::interfaces());
    request.insert_u32(tk::field::objectId, deviceId);
    request.insert_u32(tk::field::options, contract::withCounters);
    const tk::message reply =
        tk::getLooper()->exchangeCmd(request, tk::command::getObject, tk::exchangeTimeout);
    if (tk::isError(reply)) tk::log("get device stats: ", tk::getError(reply));
    DeviceStats stats;
    stats.rxPackets = static_cast<std::uint32_t>(reply.get_u64(contract::interfacefield::rxPackets));
    stats.txPackets = static_cast<std::uint32_t>(reply.get_u64(contract::interfacefield::txPackets));
    stats.rxBytes = static_cast<std::uint32_t>(reply.get_u64(contract::interfacefield::rxBytes));
    stats.txBytes = static_cast<std::uint32_t>(reply.get_u64(contract::interfacefield::txBytes));
    return stats;
}
