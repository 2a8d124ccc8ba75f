#include "core/mappinglist.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "contract/mappings.h"
#include "tk/answer.h"
#include "tk/names.h"

namespace gateway {

namespace {

// Where a list goes on, as a number: the seat of an interface, a port, and one bit for the protocol.
constexpr unsigned protocolBits = 1;
constexpr unsigned keyBits = 16 + protocolBits;
constexpr std::uint32_t seatLimit = 0x7FFF;  // the number of the last key there would be tk::unassigned

std::uint32_t numberOf(std::uint32_t seat, const Id& id) {
    return seat << keyBits | std::uint32_t{id.port} << protocolBits | static_cast<std::uint32_t>(id.protocol);
}

std::uint32_t seatIn(std::uint32_t number) {
    return number >> keyBits;
}

Id keyIn(std::uint32_t number) {
    return {static_cast<std::uint16_t>(number >> protocolBits), static_cast<std::int32_t>(number & 1)};
}

contract::MappingRecord recordOf(std::uint32_t interface, const Id& id, const PortMap& map) {
    return {.id = map.natId,
            .interface = interface,
            .externalPort = id.port,
            .protocol = ipProtocol(id),
            .internalClient = map.internalClient,
            .internalPort = map.internalPort,
            .enabled = map.enabled,
            .description = map.description,
            .requestedBy = map.requester,
            .since = map.since};
}

/// One page of the list while it is filled.
class Page {
public:
    using Place = PortMapTable::Entries::const_iterator;

    /// Adds the mappings of an interface from `place` to `end`, as far as there is room. Returns the place of
    /// the first that found none, else `end`.
    Place fill(std::uint32_t interface, Place place, Place end) {
        for (; place != end && hasRoomFor(place->second); ++place) {
            bytes += place->second.description.size();
            records.push_back(recordOf(interface, place->first, place->second).toMessage());
        }
        return place;
    }
    /// The page as the answer to get-all. Call once.
    tk::message toMessage() {
        tk::message reply;
        reply.insert_message_array(tk::field::objects, std::move(records));
        return reply;
    }

private:
    bool hasRoomFor(const PortMap& map) const {
        return records.empty() || (records.size() < MappingList::pageSize &&
                                   bytes + map.description.size() <= MappingList::pageBytes);
    }

    std::vector<tk::message> records;
    std::size_t bytes = 0;  // of the descriptions
};

}  // namespace

void MappingList::assignSeats() {
    std::vector<std::uint32_t> unseated;
    for (const Device* device : tracking.externalDevices()) unseated.push_back(device->id());
    // Takes away the seats of interfaces that are gone, and finds who has none.
    std::erase_if(seats, [&unseated](const auto& seat) { return std::erase(unseated, seat.second) == 0; });
    std::uint32_t seat = 0;
    for (const std::uint32_t interface : unseated) {
        while (seats.contains(seat)) ++seat;
        if (seat == seatLimit) return;
        seats.emplace(seat, interface);
    }
}

tk::message MappingList::cmdGetAll(const tk::message& request) {
    assignSeats();
    const std::uint32_t from = request.get_u32(tk::field::next, 0);
    Page page;
    for (auto seat = seats.lower_bound(seatIn(from)); seat != seats.end(); ++seat) {
        const PortMapTable::Entries& maps = tracking.deviceOf(seat->second)->ipConnection->mappings();
        const auto start = seat->first == seatIn(from) ? maps.lower_bound(keyIn(from)) : maps.begin();
        const auto left = page.fill(seat->second, start, maps.end());
        if (left == maps.end()) continue;
        tk::message reply = page.toMessage();
        reply.insert_u32(tk::field::next, numberOf(seat->first, left->first));
        return reply;
    }
    return page.toMessage();
}

tk::message MappingList::cmdGetCount(const tk::message&) {
    std::size_t count = 0;
    for (const Device* device : tracking.externalDevices()) count += device->ipConnection->mappings().size();
    return tk::countReply(count);
}

tk::message MappingList::cmdUnknown(const tk::message& received, std::uint32_t command) {
    if (command != contract::recentRefusals) return Handler::cmdUnknown(received, command);
    std::vector<tk::message> records;
    for (const contract::MappingRefusal& refusal : tracking.refusedMappings().all())
        records.push_back(refusal.toMessage());
    tk::message reply;
    reply.insert_message_array(tk::field::objects, std::move(records));
    return reply;
}

}  // namespace gateway
