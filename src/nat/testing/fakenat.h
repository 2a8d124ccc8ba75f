#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "firewall/table.h"
#include "links/testing/fakekernel.h"
#include "nat/listeners.h"
#include "nat/rule.h"

namespace nat::testing {

/// The kernel's map of rules. It refuses changes when a test says so.
class FakeNat final : public firewall::Kernel {
public:
    tk::Status commit(std::span<const firewall::Element> removed,
                      std::span<const firewall::Element> added) override {
        if (owner && !holds(owner->elements())) ++strayedOwner;
        std::string reason = removed.size() + added.size() > largest ? "Message too long" : fault;
        if (transactionsLeft == 0) reason = "Cannot allocate memory";
        if (!reason.empty()) return tk::Status::failure(reason);
        if (transactionsLeft) --*transactionsLeft;
        ++transactions;
        for (const firewall::Element& element : removed) elements.erase(element.key);
        for (const firewall::Element& element : added) elements[element.key] = element.target;
        return {};
    }
    std::vector<contract::NatTraffic> traffic(std::span<const firewall::Element> asked) override {
        ++readings;
        std::vector<contract::NatTraffic> found;
        for (const firewall::Element& element : asked) found.push_back(counted[element.key]);
        return found;
    }
    /// The target of an element; null when there is none.
    const NatTarget* find(const char* destination, std::uint8_t protocol, std::uint16_t port) const {
        const auto element = elements.find({links::testing::address(destination), protocol, port});
        return element == elements.end() ? nullptr : &element->second;
    }
    /// True when the map has these elements and no others.
    bool holds(const std::vector<firewall::Element>& wanted) const {
        std::map<NatKey, NatTarget> targets;
        for (const firewall::Element& element : wanted) targets[element.key] = element.target;
        return targets == elements;
    }

    std::map<NatKey, NatTarget> elements;
    const firewall::ElementOwner* owner = nullptr;  // asked at each transaction
    int strayedOwner = 0;                           // how often its elements differed from the map's
    int transactions = 0;
    std::map<NatKey, contract::NatTraffic> counted;
    int readings = 0;                     // how often traffic was asked for
    std::size_t largest = 60000;          // elements in a transaction
    std::optional<int> transactionsLeft;  // until all are refused
    std::string fault;
};

/// The services of the router that a test names.
class FakeListeners final : public Listeners {
public:
    using Place = std::pair<NatKey, std::uint32_t>;  // and the interface

    tk::Result<bool> isTaken(const NatKey& key, std::uint32_t interface) override {
        if (!fault.empty()) return tk::Status::failure(fault);
        return heard.contains({key, interface});
    }

    std::set<Place> heard;
    std::string fault;
};

}  // namespace nat::testing
