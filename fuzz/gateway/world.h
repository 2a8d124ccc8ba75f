#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/gateway.h"
#include "fuzz/gateway/network.h"
#include "fuzz/gateway/router.h"
#include "tk/looper.h"
#include "tk/testing/manualclock.h"
#include "tk/testing/scriptedbus.h"

namespace fuzz {

/// What search answers and adverts name: a type and a unique name.
using Names = std::multiset<std::pair<std::string, std::string>>;

/// The daemon between a router, a network and time, all of which the input moves; and what always holds of it.
class World {
public:
    /// How long an advert lasts.
    /// Units: milliseconds.
    static constexpr std::uint64_t advertTime = 3600000;
    /// Interfaces have ids below this.
    static constexpr std::uint32_t interfaceLimit = 8;

    /// The router has the interfaces 1 and 2, and addresses for 3 and 4 that it may have later. The daemon does not
    /// run yet.
    /// Lifetime: the folder outlives the world.
    explicit World(std::string folder);
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    /// Stops the daemon, and checks that nothing is left.
    ~World();

    /// Starts the daemon as its main program does, and stops it.
    void start();
    void stop();

    /// Lets the daemon do all that can be done now.
    void settle();
    /// Lets time pass, and every timer be called at its own time.
    void pass(std::uint64_t milliseconds);
    /// Hands the daemon a notification, or a request for one of its handlers, which is answered once.
    void notify(const tk::Path& from, std::uint32_t command, tk::message content);
    tk::message request(std::uint32_t handler, std::uint32_t command, tk::message content);
    /// Ends a question to the resolver, at any time.
    void endQuestion(std::uint32_t number, tk::message content);

    /// Checks everything that always holds. Call when the daemon has settled.
    void check();

    // What the input moves.
    tk::testing::ManualClock clock;
    Network network{[this] { return clock.now(); }};
    tk::testing::ScriptedBus bus;
    Router router{bus, clock};
    tk::Looper looper{clock, bus, 80};

    /// The kernel's name of an interface.
    static std::string nameOf(std::uint32_t interface) { return "if" + std::to_string(interface); }
    /// The address that an interface serves at present, as a text; "0.0.0.0" when it is none.
    std::string addressOf(std::uint32_t interface) const;
    /// The connections of hosts, and those to subscribers, in order.
    std::vector<Link*> linksTo(bool subscribers) const;
    /// What searches must find now, told from the interfaces alone.
    Names expectedNames() const;
    /// The answers to searches since this was last emptied, and where each went.
    std::vector<std::pair<std::uint32_t, std::string>> searchAnswers;
    /// The ids of the subscriptions there are.
    std::vector<std::string> subscribers() const;

private:
    /// What is known of a host's connection.
    struct Visit {
        int listener = -1;        // of the device that it came to
        bool isOrphaned = false;  // that listener has been closed
        bool isComplete = false;  // its request has been read
        bool isHopeless = false;  // it can no longer become complete
        std::uint64_t completeAt = 0;
        bool isJudged = false;  // it is over, and was as it should be
    };

    /// The last advert of a name.
    struct Advert {
        std::string location;
        std::uint64_t at = 0;
    };

    bool isRunning() const { return daemon != nullptr; }
    bool isEnabled() const;
    std::vector<const gateway::Device*> devices() const;
    std::vector<const gateway::Service*> services() const;
    const gateway::HTTPServer::Connections& connections() const;
    void datagramSent(const Network::Datagram& datagram);
    bool isUnheard(int socket);
    void received(Link& link);
    void sent(Link& link);
    void notified(Link& link);
    void closed(int descriptor);

    void checkLog();
    void checkLoop();
    void checkRetired() const;
    void checkTree();
    void checkAnnounced(const gateway::Device& device, const Names& expected) const;
    void checkRoles() const;
    void checkRules() const;
    void checkDescriptions(const gateway::WANIPConnection& service) const;
    void checkServices() const;
    void checkDeliveries(const gateway::Service& service) const;
    void checkLimits() const;
    void checkVisits();
    void checkOpen(const Link& link, Visit& visit) const;
    void checkClosed(const Link& link, const Visit& visit) const;
    bool mayEndUnanswered(const Link& link, const Visit& visit) const;

    const std::string folder;
    std::unique_ptr<gateway::Gateway> daemon;
    std::map<const Link*, Visit> visits;
    std::map<std::string, std::uint32_t> sequence;  // the number of the next NOTIFY, by subscription
    // What hosts have heard, by the descriptor that it came from; and when something could last not be sent.
    std::map<int, std::map<Names::value_type, Advert>> heard;
    std::map<int, std::uint64_t> unheard;
};

}  // namespace fuzz
