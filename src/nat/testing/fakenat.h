#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <tuple>

#include "firewall/natkernel.h"
#include "links/testing/fakekernel.h"
#include "nat/listeners.h"

namespace router::testing {

/// A kernel's map of rules that refuses when it is told to.
class FakeNat final : public NatKernel {
public:
    using Key = std::tuple<std::uint32_t, std::uint8_t, std::uint16_t>;

    bool commit(std::span<const NatElement> removed, std::span<const NatElement> added,
                std::string& reason) override {
        reason = removed.size() + added.size() > largest ? "Message too long" : fault;
        if (transactionsLeft == 0) reason = "Cannot allocate memory";
        if (!reason.empty()) return false;
        if (transactionsLeft) --*transactionsLeft;
        ++transactions;
        for (const NatElement& element : removed)
            elements.erase({element.destination, element.protocol, element.port});
        for (const NatElement& element : added)
            elements[{element.destination, element.protocol, element.port}] = element;
        return true;
    }
    const NatElement* find(const char* destination, std::uint8_t protocol, std::uint16_t port) const {
        const auto element = elements.find({address(destination), protocol, port});
        return element == elements.end() ? nullptr : &element->second;
    }

    std::map<Key, NatElement> elements;
    int transactions = 0;
    std::size_t largest = 60000;          // elements in a transaction
    std::optional<int> transactionsLeft;  // before all are refused
    std::string fault;
};

/// Services of the router as a test wants them.
class FakeListeners final : public Listeners {
public:
    using Place = std::tuple<std::uint32_t, std::uint8_t, std::uint16_t, std::uint32_t>;

    Answer find(std::uint32_t address, std::uint8_t protocol, std::uint16_t port, std::uint32_t interface,
                std::string& reason) override {
        reason = fault;
        if (!fault.empty()) return Answer::unknown;
        return heard.contains({address, protocol, port, interface}) ? Answer::somebody : Answer::nobody;
    }

    std::set<Place> heard;  // address, protocol, port, interface
    std::string fault;
};

}  // namespace router::testing
