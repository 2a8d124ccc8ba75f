// A record of the bus in its flat form, after a byte that chooses the reader: what is read of it is written and read again
// unchanged, and what the bus would write of it can be read by everybody.
#include <netinet/in.h>

#include <iterator>
#include <limits>

#include "contract/addresses.h"
#include "contract/gateway.h"
#include "contract/history.h"
#include "contract/interfaces.h"
#include "contract/mappings.h"
#include "contract/natrules.h"
#include "fuzz/target.h"
#include "nat/rule.h"
#include "tk/names.h"

namespace {

using tk::message;

void checkWritten(const message& written) {
    message again;
    fuzz::require(written.isParsable(), "a record keeps the limits of messages");
    fuzz::require(message::parse(written.serialise(), again) && again == written,
                  "a record is sent as it is");
}

template <typename Record>
void checkRecord(const message& source) {
    const Record read = Record::fromMessage(source);
    checkWritten(read.toMessage());
    fuzz::require(Record::fromMessage(read.toMessage()) == read, "a record that is read again is equal");
}

/// A record of settings, of which only those that are there count.
template <typename Record>
void checkSettings(const message& source, const Record& absent) {
    fuzz::require(Record::fromMessage({}, absent) == absent, "what is absent stays");
    const Record read = Record::fromMessage(source, absent);
    checkWritten(read.toMessage());
    fuzz::require(Record::fromMessage(read.toMessage(), absent) == read,
                  "settings that are read again are equal");
    fuzz::require(Record::fromMessage(source, read) == read, "settings that are set twice are equal");
}

void checkRoles(const message& source) {
    checkSettings<contract::RoleItem>(source, {7, contract::Role::internal, true});
    const contract::RoleItem item = contract::RoleItem::fromMessage(source, {});
    fuzz::require(!contract::roleName(item.type).empty(), "each role has a name");
}

void checkTraffic(const message& source) {
    const auto traffic = contract::NatTraffic::fromMessage(source);
    message written = source;
    traffic.addTo(written);
    fuzz::require(contract::NatTraffic::fromMessage(written) == traffic,
                  "traffic that is read again is equal");
}

/// What must hold of a request that makes a rule, by the fields themselves.
bool fitsOneEntry(const message& request) {
    namespace field = contract::rulefield;
    const std::uint32_t protocol = request.get_u32(field::protocol);
    const std::uint32_t port =
        request.get_u32(field::dstPortFirst, std::numeric_limits<std::uint32_t>::max());
    const std::uint32_t toPort =
        request.get_u32(field::toPortFirst, std::numeric_limits<std::uint32_t>::max());
    return request.get_string(field::chain) == "dstnat" && request.get_u32(field::action) == 22 &&
           (protocol == IPPROTO_TCP || protocol == IPPROTO_UDP) && port <= 65535 && toPort <= 65535;
}

void checkNewRule(const message& request) {
    const tk::Result<nat::Rule> rule = nat::newRule(request);
    if (!rule.isOk()) {
        fuzz::require(rule.status().code() == tk::error::invalid && !rule.reason().empty(),
                      "a refusal says why");
        return;
    }
    fuzz::require(fitsOneEntry(request), "a rule fits one entry of the map");
    fuzz::require(rule->id == 0, "a rule has no id of its asker's choice");
    const tk::Result<nat::Rule> again = nat::newRule(rule->toQuestion());
    nat::Rule unowned = *rule;
    unowned.owner = 0;
    fuzz::require(again.isOk() && *again == unowned, "a rule is asked for as it was made");
    fuzz::require(!nat::textOf(rule->key).empty(), "a rule has a name for people");
}

void checkChange(const message& request) {
    const nat::Rule former{
        5, true, false, {htonl(INADDR_LOOPBACK), IPPROTO_UDP, 80}, {htonl(INADDR_LOOPBACK), 8080}, 81};
    const tk::Result<nat::Rule> changed = nat::changedRule(former, request);
    if (!changed.isOk()) return;
    fuzz::require(
        changed->id == former.id && changed->dynamic == former.dynamic && changed->owner == former.owner,
        "a change keeps whose rule it is");
    const tk::Result<nat::Rule> twice = nat::changedRule(*changed, request);
    fuzz::require(twice.isOk() && *twice == *changed, "a change that is made twice is made once");
    fuzz::require(nat::newRule(changed->toQuestion()).isOk(), "a changed rule could be made");
    const tk::Result<nat::Rule> set = nat::changedRule(former, changed->toChange());
    fuzz::require(set.isOk() && set->target == changed->target && set->disabled == changed->disabled,
                  "a change is asked for as it was made");
}

constexpr void (*readers[])(const message&) = {
    &checkRecord<contract::AddressRecord>,
    [](const message& source) { checkSettings<contract::Settings>(source, {}); },
    &checkRoles,
    &checkRecord<contract::UndoRecord>,
    &checkRecord<contract::InterfaceRecord>,
    &checkRecord<contract::SideReply>,
    &checkRecord<contract::MappingRecord>,
    &checkRecord<contract::MappingRefusal>,
    &checkRecord<contract::NatRule>,
    &checkTraffic,
    &checkNewRule,
    &checkChange,
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    message source;
    if (size == 0 || !message::parse(fuzz::text(data + 1, size - 1), source)) return 0;
    readers[data[0] % std::size(readers)](source);
    return 0;
}
