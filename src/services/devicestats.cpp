#include "services/devicestats.h"

#include "tk/log.h"
#include "tk/looper.h"
#include "tk/records.h"

DeviceStats getDeviceStats(std::uint32_t deviceId) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, tk::path::interfaces());
    request.insert_u32(tk::field::objectId, deviceId);
    request.insert_u32(tk::field::options, tk::withCounters);
    const tk::message reply =
        tk::getLooper()->exchangeCmd(request, tk::command::getObject, tk::exchangeTimeout);
    if (tk::isError(reply)) tk::log("get device stats: ", tk::getError(reply));
    DeviceStats stats;
    stats.rxPackets = static_cast<std::uint32_t>(reply.get_u64(tk::interfacefield::rxPackets));
    stats.txPackets = static_cast<std::uint32_t>(reply.get_u64(tk::interfacefield::txPackets));
    stats.rxBytes = static_cast<std::uint32_t>(reply.get_u64(tk::interfacefield::rxBytes));
    stats.txBytes = static_cast<std::uint32_t>(reply.get_u64(tk::interfacefield::txBytes));
    return stats;
}
