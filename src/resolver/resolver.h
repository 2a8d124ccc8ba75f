#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "resolver/cache.h"
#include "resolver/filestamps.h"
#include "resolver/lookup.h"
#include "tk/handler.h"
#include "tk/timer.h"

namespace resolver {

/// The settings of a resolver.
struct Settings {
    std::uint32_t idleTicks = 6000;  // how long it stays without a request: a minute
    std::string servers;             // name servers to ask in place of the system's; see Lookup
    // The cache is cleared when one of them changes.
    std::vector<std::string> files = {"/etc/hosts", "/etc/resolv.conf"};
};

/// Turns host names into IPv4 addresses for whoever asks on the bus. Requests for the same name share one
/// lookup, and answers are remembered. After a time without requests it ends the process's loop. Before that
/// it gives up the program's number and answers what was asked until then, so that no request meets a program
/// that is about to end.
class Resolver final : public tk::Handler, private Lookup::Owner {
public:
    /// How many lookups may run at once, and how many requests may wait for one of them.
    static constexpr std::size_t lookupLimit = 64;
    static constexpr std::size_t waitingLimit = 64;

    /// The idle time begins at once.
    /// Lifetime: the loop outlives it.
    explicit Resolver(Settings settings);
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;
    ~Resolver() override = default;

    /// Answers a request for the address of a name.
    /// Errors: at once, error::noSuchCommand, error::invalid for a text that is not a host name, error::busy
    /// at the limits. From a lookup or the cache, error::noSuchObject for a host that is unknown or has no
    /// IPv4 address, error::failed when the name servers give no useful answer.
    tk::message cmdUnknown(const tk::message& received, std::uint32_t command) override;

private:
    struct Pending {
        std::unique_ptr<Lookup> lookup;
        std::vector<tk::message> requests;  // only their routing, which is all that an answer needs
    };

    void lookupEnded(const std::string& name, const Answer& answer) override;
    [[nodiscard]] tk::message resolve(const tk::message& request);
    [[nodiscard]] tk::message lookUp(const std::string& name, const tk::message& request);
    void startIdleTime();
    void idleTimeEnds();

    const Settings settings;
    FileStamps files;
    Cache cache;
    std::map<std::string, Pending> pending;  // by name in lower case
    bool hasResigned = false;                // true when no new request can reach this process
    tk::Timer<Resolver, &Resolver::idleTimeEnds> idleTime{*this};
};

}  // namespace resolver
