#include "services/natrules.h"

#include <netinet/in.h>

#include "contract/natrules.h"
#include "contract/programs.h"
#include "tk/looper.h"
#include "tk/names.h"

namespace {

namespace rule = contract::rulefield;

tk::message toFirewall() {
    tk::message request;
    request.insert_u32_array(tk::field::destination, contract::path::nat());
    return request;
}

tk::message exchange(tk::message& request, std::uint32_t command) {
    return tk::getLooper()->exchangeCmd(request, command, tk::exchangeTimeout);
}

}  // namespace

tk::message createNatRule(const Id& id, const PortMap& map, std::uint32_t externalAddress) {
    tk::message request = toFirewall();
    request.insert_bool(tk::field::dynamic, true);
    request.insert_bool(tk::field::disabled, !map.enabled);
    request.insert_string(rule::chain, contract::dstnatChain);
    request.insert_bool(rule::hasDstAddress, true);
    request.insert_be32(rule::dstAddressFirst, externalAddress);
    request.insert_be32(rule::dstAddressLast, externalAddress);
    request.insert_bool(rule::hasDstPort, true);
    request.insert_u32(rule::dstPortFirst, id.port);
    request.insert_u32(rule::dstPortLast, id.port);
    request.insert_bool(rule::hasProtocol, true);
    request.insert_u32(rule::protocol, id.protocol == 0 ? IPPROTO_TCP : IPPROTO_UDP);
    request.insert_u32(rule::action, contract::destinationNat);
    request.insert_bool(rule::hasToAddress, true);
    request.insert_be32(rule::toAddressFirst, map.internalClient);
    request.insert_be32(rule::toAddressLast, map.internalClient);
    request.insert_bool(rule::hasToPort, true);
    request.insert_u32(rule::toPortFirst, map.internalPort);
    request.insert_u32(rule::toPortLast, map.internalPort);
    return exchange(request, tk::command::addObject);
}

tk::message changeNatRule(const PortMap& map) {
    tk::message request = toFirewall();
    request.insert_u32(tk::field::objectId, map.natId);
    request.insert_bool(tk::field::disabled, !map.enabled);
    request.insert_be32(rule::toAddressFirst, map.internalClient);
    request.insert_be32(rule::toAddressLast, map.internalClient);
    request.insert_u32(rule::toPortFirst, map.internalPort);
    request.insert_u32(rule::toPortLast, map.internalPort);
    return exchange(request, tk::command::setObject);
}

tk::message removeNatRule(std::uint32_t natId) {
    tk::message request = toFirewall();
    request.insert_u32(tk::field::objectId, natId);
    return exchange(request, tk::command::removeObject);
}
