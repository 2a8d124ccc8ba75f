#include "links/addresses.h"

#include <string>

#include "tk/answer.h"
#include "tk/names.h"
#include "tk/page.h"

namespace links {

namespace {

constexpr std::size_t pageSize = 256;

}  // namespace

contract::AddressRecord Addresses::recordOf(std::uint32_t id, const Published& object) {
    return {id, object.address, object.interface, false, false};
}

bool Addresses::isOffered(const Place& place) const {
    // An address may be on an interface several times, with different prefixes. It is one object on the bus.
    auto next = held.lower_bound(LinkAddress{place.first, place.second, 0, 0, false});
    for (; next != held.end() && next->index == place.first && next->address == place.second; ++next)
        if (next->isGlobal) return true;
    return false;
}

void Addresses::publish(const LinkAddress& address) {
    const Place place{address.index, address.address};
    const auto interface = interfaces.find(place.first);
    if (!address.isGlobal || interface == interfaces.end() || ids.contains(place)) return;
    const std::uint32_t id = ++lastId;
    ids[place] = id;
    const Published& object = objects[id] = {place.second, interface->second};
    notifyChange(id, recordOf(id, object).toMessage());
}

void Addresses::withdraw(const Place& place) {
    const auto known = ids.find(place);
    if (known == ids.end()) return;
    const std::uint32_t id = known->second;
    contract::AddressRecord record = recordOf(id, objects[id]);
    record.isDeleted = true;
    objects.erase(id);
    ids.erase(known);
    notifyChange(id, record.toMessage());
}

void Addresses::apply(const LinkAddress& address) {
    held.insert(address);
    publish(address);
}

void Addresses::remove(const LinkAddress& address) {
    held.erase(address);
    const Place place{address.index, address.address};
    if (!isOffered(place)) withdraw(place);
}

void Addresses::applyAll(const std::vector<LinkAddress>& addresses) {
    held = std::set<LinkAddress>(addresses.begin(), addresses.end());
    std::vector<Place> gone;
    for (const auto& [place, id] : ids)
        if (!isOffered(place)) gone.push_back(place);
    for (const Place& place : gone) withdraw(place);
    for (const LinkAddress& address : addresses) publish(address);
}

void Addresses::forget(std::uint32_t index) {
    std::erase_if(held, [index](const LinkAddress& address) { return address.index == index; });
}

void Addresses::interfaceAdded(std::uint32_t index, std::uint32_t id) {
    interfaces[index] = id;
    for (const LinkAddress& address : held)
        if (address.index == index) publish(address);
}

void Addresses::interfaceGone(std::uint32_t index) {
    std::vector<Place> places;
    for (const auto& [place, id] : ids)
        if (place.first == index) places.push_back(place);
    for (const Place& place : places) withdraw(place);
    interfaces.erase(index);
}

tk::message Addresses::cmdGetAll(const tk::message& request) {
    return pageOf(objects, request, pageSize,
                  [](std::uint32_t id, const Published& object) { return recordOf(id, object).toMessage(); });
}

tk::message Addresses::cmdGetObj(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const auto object = objects.find(id);
    if (object == objects.end())
        return tk::errorMsg(tk::error::noSuchObject, "no address " + std::to_string(id));
    return recordOf(id, object->second).toMessage();
}

tk::message Addresses::cmdGetCount(const tk::message&) {
    return tk::countReply(objects.size());
}

}  // namespace links
