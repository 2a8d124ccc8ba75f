#pragma once

#include <arpa/inet.h>
#include <net/if.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "hub/access.h"
#include "links/kernel.h"
#include "links/zones.h"

namespace links::testing {

/// An address in network order from its dotted form.
inline std::uint32_t address(const char* text) {
    return ::inet_addr(text);
}

/// A kernel whose interfaces the test sets.
class FakeNetwork final : public Kernel {
public:
    tk::Result<Link> readLink(std::uint32_t index) override {
        if (!links.contains(index)) return tk::Status::failure("No such device");
        return links[index];
    }
    tk::Status setLinkUp(std::uint32_t index, bool up) override {
        if (!fault.empty()) return tk::Status::failure(fault);
        switched.emplace_back(index, up);
        return {};
    }

    std::map<std::uint32_t, Link> links;
    std::vector<std::pair<std::uint32_t, bool>> switched;
    std::string fault;
};

/// A requester that is the user `asker`.
class FakeRequester final : public hub::Requester {
public:
    uid_t user() const override { return asker; }

    uid_t asker = 0;
};

/// A watcher that ignores what is inside.
class IdleWatcher final : public InsideWatcher {
public:
    void insideChanged(const Inside&) override {}
};

/// The zones of a router with 192.0.2.1/24 on lan0, interface 2, and 198.51.100.1/24 on wan0, interface 3,
/// which is outside.
struct FakeZones {
    FakeZones() {
        for (const auto& [index, name] :
             {std::pair(1U, "lo"), std::pair(2U, "lan0"), std::pair(3U, "wan0")}) {
            Link link;
            link.index = index;
            link.name = name;
            link.flags = index == 1 ? IFF_UP | IFF_LOOPBACK : IFF_UP | IFF_RUNNING;
            zones.apply(link);
        }
        hold(1, "127.0.0.1", 8);
        hold(2, "192.0.2.1", 24);
        hold(3, "198.51.100.1", 24);
        zones.addExits({{3, Prefix{}}});
        zones.start(watcher);
    }
    void hold(std::uint32_t index, const char* text, std::uint8_t length) {
        zones.apply(LinkAddress{index, address(text), address(text), length});
    }

    IdleWatcher watcher;
    Zones zones;
};

}  // namespace links::testing
