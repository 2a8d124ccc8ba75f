#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hub/access.h"
#include "hub/awaitedrequests.h"
#include "hub/localservices.h"
#include "hub/peer.h"
#include "hub/peers.h"
#include "hub/pendingrequests.h"
#include "hub/refusallog.h"
#include "hub/subscriptions.h"
#include "hub/trace.h"
#include "tk/budget.h"
#include "tk/bus.h"
#include "tk/fd.h"
#include "tk/handler.h"
#include "tk/message.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace hub {

/// Starts programs that are not on the bus when a message is for them.
class Starter {
public:
    virtual ~Starter() = default;
    /// Starts `program`, unless it was started already and is still running.
    /// Errors: nobody knows how to start it, or the system refused.
    virtual tk::Status start(std::uint32_t program) = 0;
    /// Hears that a program has registered.
    virtual void registered(std::uint32_t program) = 0;
};

/// Hears of programs as they come to the bus and leave it.
class ProgramWatcher {
public:
    virtual ~ProgramWatcher() = default;
    /// A connection of `user` becomes `program`. Called before the connection is told so.
    virtual void programComes(std::uint32_t program, uid_t user) = 0;
    /// The connection that was a program has ended, or has given the number up. May set other rights.
    virtual void programLeft() = 0;
};

/// Reads the configuration of the hub's process again.
class Reloader {
public:
    virtual ~Reloader() = default;
    /// Puts into force what has changed, and returns the names of the changed sections: none when there are
    /// none. Logs the outcome, and who asked for it.
    /// Errors: nothing has changed; the reason is one line for people.
    virtual tk::Result<std::vector<std::string>> reload(const std::string& asker) = 0;
};

/// The middle of the bus: carries requests to programs and their ends back, hands notifications to
/// subscribers, and serves the handlers of its own process. It never waits for anybody.
///
/// Every message passes through one of the functions in hub.cpp that trace it; nothing bypasses them.
class Hub final : public tk::Bus, private Peer::Owner {
public:
    /// How many elements the path of a subscription and of a request may have. Paths are kept, so their cost
    /// has to be bounded.
    static constexpr std::size_t subscriptionPathLimit = 16;
    static constexpr std::size_t requestPathLimit = 256;
    /// A request that nobody answers ends with an error after this time, or up to twice that. No requester
    /// waits so long.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t expiryTicks = 6100;
    /// Stands for the handlers of this process among the client numbers of requesters.
    static constexpr std::uint32_t ownRequester = 0;
    /// Why a request that leads nowhere ends.
    static constexpr const char* nobodyThere = "nobody at this destination";
    /// How many programs leaving within a minute are logged one by one, before they are only counted.
    static constexpr std::size_t leavesAtOnce = 16;

    Hub();
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;
    ~Hub() override;

    /// Serves a handler of this process at `path`.
    /// Lifetime: the handler outlives the hub, or close() comes first.
    void addService(tk::Handler& handler, const tk::Path& path);
    /// Tells who makes the request that a handler of this process is serving.
    /// Lifetime: that of the hub.
    const Requester& requester() const { return services; }
    /// Sets whom to ask for programs that are not there; null, as at first, for nobody.
    /// Lifetime: the starter outlives its use.
    void setStarter(Starter* target) { starter = target; }

    /// Sets who may do what. At first only root may do more than everybody. Connections that are open lose
    /// the subscriptions, and the sight of the traffic, that they may not have any more. A program whose user
    /// may not be that program any more is disconnected, from the loop.
    void setAccess(Access table);
    /// Sets the number that the next connection gets, if nobody has it.
    void setNextClient(std::uint32_t number) { peers.setNextNumber(number); }
    /// Sets whom to tell of programs that come and leave; null, as at first, for nobody.
    /// Lifetime: the watcher outlives its use.
    void setProgramWatcher(ProgramWatcher* target) { watcher = target; }
    /// Sets whom to ask to read the configuration again; null, as at first, for nobody.
    /// Lifetime: the reloader outlives its use.
    void setReloader(Reloader* target) { reloader = target; }

    /// Takes over a new, non-blocking connection. A peer over a limit is turned away.
    void adopt(tk::Fd socket, const Credentials& credentials);
    /// Tells the peer of a new, non-blocking connection of `user` why it is not taken, in one error without a
    /// number. The caller closes the connection.
    void turnAway(const tk::Fd& socket, uid_t user, std::uint32_t code, const std::string& why);
    /// Ends the requests that wait for a program that was started but did not get as far as registering.
    void programFailed(std::uint32_t program, const std::string& reason);
    /// True when requests wait for `program` to register.
    bool awaits(std::uint32_t program) const { return awaited.has(program); }
    /// Ends all connections and forgets all services. Call while the loop still exists.
    void close();

    /// How many connections there are.
    std::size_t peerCount() const { return peers.count(); }
    /// The user of the connection that is this program; none when no connection is, or it is being ended.
    [[nodiscard]] std::optional<uid_t> userOf(std::uint32_t program) const;
    /// The account of a user, or of one connection of root.
    /// Lifetime: until the next connection comes.
    tk::Budget& budgetOf(uid_t user, std::uint32_t client) { return peers.budgetOf(user, client); }

    /// Makes a request of a handler of this process to another one.
    /// Errors: error::refused for a request to another process: the hub waits for nobody.
    [[nodiscard]] tk::message exchange(const tk::message& request, const tk::Path& from,
                                       std::uint32_t command, std::uint32_t timeout) override;
    /// Sends a message of a handler of this process. A request gets its number here; its end reaches the
    /// handler's handleReply(), possibly before this returns.
    void post(tk::message stamped) override;
    [[nodiscard]] bool isHeard(const tk::Path& from, std::uint32_t command) const override;

private:
    void peerSent(Peer& peer, tk::message received) override;
    void peerEnded(Peer& peer, const std::string& reason) override;

    [[nodiscard]] bool isRefused(const Peer& from, const tk::message& sent);
    [[nodiscard]] bool mayStill(const Peer& peer, std::uint32_t command, tk::message content) const;
    void withdrawRights(Peer& peer);
    void tellEnd(const Peer& peer, const std::string& reason);

    // What passes: each of these traces its message, then hands it on.
    void takeRequest(Peer& from, const tk::message& request);
    void takeEnd(Peer& from, const tk::message& end);
    void sendEnd(const tk::message& end);
    void sendOwn(tk::message request);
    void deliverEnd(Peer& to, const tk::message& end);
    void publish(const tk::message& notification);
    void trace(const tk::message& passed);

    // Where requests go (hub_routes.cpp).
    void route(Peer& from, const tk::message& request);
    void afterCommand(Peer& from, std::uint32_t command);
    void forward(std::uint32_t from, Peer& to, const tk::message& request);
    void activate(std::uint32_t from, const tk::message& request);
    void expireLater();
    void expire();
    void releaseAwaited(Peer& program);
    void refuse(const tk::message& request, std::uint32_t code, const std::string& text);
    void refuseFull(std::uint32_t requester, const tk::message& request, const std::string& text);
    void noteRefused(const Peer& from, const std::string& why);

    // The hub's own commands (hub_commands.cpp).
    [[nodiscard]] tk::message command(Peer& from, const tk::message& request);
    [[nodiscard]] tk::message registerProgram(Peer& from, const tk::message& request);
    [[nodiscard]] tk::message unregisterProgram(const Peer& from, const tk::message& request) const;
    void giveUp(Peer& from);
    [[nodiscard]] tk::message subscribe(Peer& from, const tk::message& request);
    [[nodiscard]] tk::message unsubscribe(Peer& from, const tk::message& request);
    [[nodiscard]] tk::message listPrograms() const;
    [[nodiscard]] tk::message reload(const Peer& from) const;

    Peers peers;  // destroyed last: the others charge its budgets
    LocalServices services;
    Starter* starter = nullptr;
    ProgramWatcher* watcher = nullptr;
    Reloader* reloader = nullptr;
    RefusalLog refusedConnections{"bus", "connections refused"};
    RefusalLog refusedMessages{"bus", "messages refused"};
    RefusalLog droppedClients{"bus", "connections dropped"};
    RefusalLog leftPrograms{"bus", "programs left", leavesAtOnce};
    Access access;
    PendingRequests pending;
    Subscriptions subscriptions;
    Trace tracers;
    AwaitedRequests awaited;
    std::uint32_t ownNumbers = 0;  // of the requests of our handlers
    bool expires = false;
    tk::Timer<Hub, &Hub::expire> expiry{*this};
};

}  // namespace hub
