#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "tk/handler.h"
#include "tracking/tracking.h"

namespace gateway {

/// The bus handler that shows the administrator the port mappings of all external interfaces, and those that
/// were refused. Nothing can be changed through it.
///
/// The list goes from page to page while mappings and interfaces come and go: whatever stays is listed once.
class MappingList final : public tk::Handler {
public:
    /// How many mappings one page has at most, and how many bytes of descriptions. A single description may
    /// be longer.
    static constexpr std::size_t pageSize = 256;
    static constexpr std::size_t pageBytes = std::size_t{512} * 1024;

    /// Lifetime: `tracking` outlives the handler's last request.
    explicit MappingList(const Tracking& tracking) : tracking(tracking) {}

    tk::message cmdGetAll(const tk::message& request) override;
    tk::message cmdGetCount(const tk::message& request) override;
    tk::message cmdUnknown(const tk::message& received, std::uint32_t command) override;

private:
    void assignSeats();

    const Tracking& tracking;
    // The external interfaces in the order in which they are listed, by seats that stay theirs: their ids leave
    // no room for a port in the number that says where a list goes on.
    std::map<std::uint32_t, std::uint32_t> seats;
};

}  // namespace gateway
