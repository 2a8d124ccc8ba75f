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

/// What a resolver goes by.
struct Settings {
    std::uint32_t idleTicks = 6000;  // how long it stays without a request: a minute
    std::string servers;             // name servers to ask instead of the system's; see Lookup
    // What is remembered depends on them.
    std::vector<std::string> files = {"/etc/hosts", "/etc/resolv.conf"};
};

/// Turns host names into IPv4 addresses, for whoever asks on the bus. It asks for itself, one lookup for
/// all who want the same name, remembers what it learned, and ends the process's loop when nobody asks any
/// more. Before that it gives the program's number up and answers what was asked until then, so that no
/// question meets a program that is about to end.
class Resolver final : public tk::Handler, private Lookup::Owner {
public:
    /// How many names may be on their way, and how many requests may wait for one of them.
    static constexpr std::size_t lookupLimit = 64;
    static constexpr std::size_t waitingLimit = 64;

    /// Its idle time begins at once.
    /// Lifetime: the loop outlives it.
    explicit Resolver(Settings settings);
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;
    ~Resolver() override = default;

    /// Errors, at once: error::noSuchCommand, error::invalid for what is no host name, error::busy at the
    /// limits. Later, and from what is remembered: error::noSuchObject for a host that is unknown or has no
    /// IPv4 address, error::failed when the name servers do not say.
    tk::message cmdUnknown(const tk::message& received, std::uint32_t command) override;

private:
    struct Pending {
        std::unique_ptr<Lookup> lookup;
        std::vector<tk::message> requests;  // the routing of each: all that its answer needs
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
    bool hasResigned = false;                // nothing new is asked of this process
    tk::Timer<Resolver, &Resolver::idleTimeEnds> idleTime{*this};
};

}  // namespace resolver
