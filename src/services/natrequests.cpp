#include "services/natrequests.h"

#include "contract/natrules.h"
#include "contract/programs.h"
#include "tk/looper.h"
#include "tk/names.h"

namespace gateway {

namespace {

tk::message exchange(const tk::message& fields, std::uint32_t command) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, contract::path::nat());
    for (const tk::message::Field& field : fields.fields()) request.insert(field);
    return tk::getLooper()->exchangeCmd(request, command, tk::exchangeTimeout);
}

contract::NatRule ruleOf(const PortMap& map) {
    contract::NatRule rule;
    rule.dynamic = true;
    rule.disabled = !map.enabled;
    rule.target = {map.internalClient, map.internalPort};
    return rule;
}

}  // namespace

tk::message createNatRule(const Id& id, const PortMap& map, std::uint32_t externalAddress) {
    contract::NatRule rule = ruleOf(map);
    rule.key = {externalAddress, ipProtocol(id), id.port};
    return exchange(rule.toMessage(), tk::command::addObject);
}

tk::message changeNatRule(const PortMap& map) {
    contract::NatRule rule = ruleOf(map);
    rule.id = map.natId;
    return exchange(rule.toChange(), tk::command::setObject);
}

tk::message removeNatRule(std::uint32_t natId) {
    tk::message fields;
    fields.insert_u32(tk::field::objectId, natId);
    return exchange(fields, tk::command::removeObject);
}

}  // namespace gateway
