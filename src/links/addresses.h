#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "contract/addresses.h"
#include "links/interfaces.h"
#include "links/kernel.h"
#include "tk/handler.h"

namespace links {

/// The router's IPv4 addresses on the bus, at {20, 1}: one object for each address of global scope on an
/// offered interface. An object keeps its id while the address stays on its interface; the id is never used
/// again.
class Addresses final : public tk::Handler, public InterfaceWatcher {
public:
    /// The kernel has this address, or no longer has it; tells the changes.
    void apply(const LinkAddress& address);
    void remove(const LinkAddress& address);
    /// Takes a full list, and tells the differences.
    void applyAll(const std::vector<LinkAddress>& addresses);
    /// Forgets the addresses on an interface that no longer exists.
    void forget(std::uint32_t index);

    /// The addresses of an interface are offered as long as it is.
    void interfaceAdded(std::uint32_t index, std::uint32_t id) override;
    void interfaceGone(std::uint32_t index) override;

    /// Answer the bus: the list, one record, the number of records.
    tk::message cmdGetAll(const tk::message& request) override;
    tk::message cmdGetObj(const tk::message& request) override;
    tk::message cmdGetCount(const tk::message& request) override;

private:
    struct Published {
        std::uint32_t address;
        std::uint32_t interface;  // id
    };
    using Place = std::pair<std::uint32_t, std::uint32_t>;  // the kernel's index, address

    [[nodiscard]] static contract::AddressRecord recordOf(std::uint32_t id, const Published& object);
    [[nodiscard]] bool isOffered(const Place& place) const;
    void publish(const LinkAddress& address);
    void withdraw(const Place& place);

    std::set<LinkAddress> held;  // of any interface and any scope
    // The ids of the offered interfaces, by the kernel's index.
    std::unordered_map<std::uint32_t, std::uint32_t> interfaces;
    std::map<Place, std::uint32_t> ids;          // of the published objects
    std::map<std::uint32_t, Published> objects;  // by id
    std::uint32_t lastId = 0;
};

}  // namespace links
